// Paints pictures sample by sample, and saves them for the other examples to draw with: badge.png, a disc
// with soft edges and a ring that lets through what is behind it; studio.png, somebody before a green screen,
// with shade and noise; and sky.png, an evening:
//
//     kvffmpeg_example_paint

#include <kvffmpeg/kvffmpeg.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <random>

namespace {

using kvffmpeg::Color;
using kvffmpeg::Picture;

/// A picture whose pixel at column x and row y has the colour colorAt(x, y).
template <typename ColorAt>
Picture painted(kvffmpeg::rect_size_t size, ColorAt colorAt) {
    Picture picture(size, AV_PIX_FMT_RGBA);  // its pixels are not initialised
    for (int y = 0; y < size.h; ++y) {
        // A linesize is in bytes, and may be longer than the row.
        unsigned char* pixel = picture.getPlanes()[0] + y * picture.getLinesize()[0];
        for (int x = 0; x < size.w; ++x, pixel += 4) {
            const Color color = colorAt(x, y);
            pixel[0] = static_cast<unsigned char>(color.red);
            pixel[1] = static_cast<unsigned char>(color.green);
            pixel[2] = static_cast<unsigned char>(color.blue);
            pixel[3] = static_cast<unsigned char>(color.alpha);
        }
    }
    return picture;
}

Picture badge(int side) {
    return painted({side, side}, [side](int x, int y) {
        const double centre = (side - 1) / 2.0;
        const double distance = std::hypot(x - centre, y - centre);
        const double edge = std::clamp(side / 2.0 - distance, 0.0, 2.0) / 2;  // fades over two pixels
        const double ring = std::abs(distance - side * 0.3) < side * 0.04 ? 0.3 : 1;
        return Color(255, static_cast<unsigned>(100 + 120 * y / side), 30,
                     static_cast<unsigned>(255 * edge * ring));
    });
}

bool isInEllipse(int x, int y, kvffmpeg::rect_t box) {
    return std::hypot(2.0 * (x - box.x) / box.w - 1, 2.0 * (y - box.y) / box.h - 1) < 1;
}

Picture studio(kvffmpeg::rect_size_t size) {
    std::mt19937 random;  // the same noise each time
    return painted(size, [size, &random](int x, int y) {
        const auto noise = static_cast<unsigned>(random() % 24);
        const kvffmpeg::rect_t head{size.w * 2 / 5, size.h / 9, size.w / 5, size.h / 2};
        const kvffmpeg::rect_t body{size.w / 5, size.h * 3 / 5, size.w * 3 / 5, size.h};
        if (isInEllipse(x, y, head)) return Color(212 + noise, 160 + noise, 128 + noise);
        if (isInEllipse(x, y, body)) return Color(138 + noise, 28 + noise, 48 + noise);
        const auto light = static_cast<unsigned>(50 * x / size.w);  // the left is in the shade
        return Color(light / 5 + noise, 138 + light + noise, 38 + light * 3 / 5 + noise);
    });
}

Picture sky(kvffmpeg::rect_size_t size) {
    return painted(size, [size](int /*x*/, int y) {
        return Color(static_cast<unsigned>(40 + 200 * y / size.h),
                     static_cast<unsigned>(50 + 90 * y / size.h),
                     static_cast<unsigned>(110 - 40 * y / size.h));
    });
}

void save(const Picture& picture, const char* path) {
    savePicture(picture, path);
    std::cout << path << ": " << picture << '\n';
}

}  // namespace

int main() try {
    save(badge(64), "badge.png");
    save(studio({320, 180}), "studio.png");
    save(sky({320, 180}), "sky.png");
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
