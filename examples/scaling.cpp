// Enlarges the middle of a picture in four ways, and puts the results side by side: the nearest pixel,
// bilinear, bicubic and Lanczos:
//
//     kvffmpeg_example_scaling picture.png

#include <kvffmpeg/kvffmpeg.h>

#include <iostream>

int main(int count, char** arguments) try {
    using kvffmpeg::Picture;
    using kvffmpeg::Scaler;

    if (count != 2) {
        std::cerr << "usage: " << arguments[0] << " PICTURE\n";
        return 2;
    }
    const Picture picture = kvffmpeg::loadPicture(arguments[1]);
    if (picture.empty()) throw std::runtime_error("There is no picture in the file");

    constexpr int part = 40;
    if (picture.width() < part || picture.height() < part)
        throw std::runtime_error("The picture is too small");

    // A view of the picture's own pixels: cropping copies nothing.
    const kvffmpeg::rect_t detail =
        kvffmpeg::center_rect_in_container({0, 0, part, part}, {0, 0, picture.width(), picture.height()});
    const Picture middle = picture.crop(detail);

    constexpr int side = 4 * part;
    constexpr int gap = 4;
    Picture result({4 * side + 3 * gap, side}, AV_PIX_FMT_RGB24, AVCOL_RANGE_JPEG);
    result.fillWithRGB(255, 255, 255);
    Scaler scaler;
    int x = 0;
    for (const auto algorithm : {Scaler::point, Scaler::bilinear, Scaler::bicubic, Scaler::lanczos}) {
        scaler.setAlgorithm(algorithm);
        result.bitblt(scaler.scale(middle, {side, side}, result.pixelFormat(), result.colorRange()), {x, 0});
        x += side + gap;  // even, as bitblt's positions are
    }
    savePicture(result, "scaling.png");
    std::cout << "scaling.png: " << result << ", " << detail << " four times as large\n";
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
