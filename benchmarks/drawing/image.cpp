#include "image.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

extern "C" {
#include <libavutil/imgutils.h>
}

namespace drawing {
namespace {

constexpr std::size_t pageBytes = 4096;

/// Higher inside the logo, lower outside.
double logoField(int x, int y, kvffmpeg::rect_size_t size) {
    constexpr double turn = 6.283185307179586;
    const double u = turn * ((x + 0.5) / std::min(size.w, 480) - 0.5);
    const double v = turn * ((y + 0.5) / std::min(size.h, 270) - 0.5);
    return std::cos(u) + std::cos(v) + 0.3 * std::cos(2 * u + v) + 0.2 * std::sin(u - 2 * v);
}

std::vector<std::uint8_t> logoMask(kvffmpeg::rect_size_t size) {
    std::vector<double> field;
    field.reserve(static_cast<std::size_t>(size.w) * static_cast<std::size_t>(size.h));
    for (int y = 0; y < size.h; ++y) {
        for (int x = 0; x < size.w; ++x) field.push_back(logoField(x, y, size));
    }
    std::vector<double> sorted = field;
    std::sort(sorted.begin(), sorted.end());
    const double edge = sorted[sorted.size() * 7 / 10];
    const double inside = sorted[sorted.size() * 8 / 10];
    std::vector<std::uint8_t> mask(field.size());
    std::transform(field.begin(), field.end(), mask.begin(), [&](double value) {
        if (value < edge) return std::uint8_t{0};
        if (value >= inside) return std::uint8_t{255};
        return static_cast<std::uint8_t>(1 + 253 * (value - edge) / (inside - edge));
    });
    return mask;
}

void fillWithNoise(std::uint8_t* bytes, std::size_t count, unsigned seed) {
    std::mt19937 random = makeRandom(seed);
    for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<std::uint8_t>(random() >> 24);
}

}  // namespace

Image::Image(kvffmpeg::rect_size_t size, AVPixelFormat format)
    : size_(size),
      format_(format),
      bytes_(static_cast<std::size_t>(av_image_get_buffer_size(format, size.w, size.h, 1))) {
    const std::size_t pages = (bytes_ + pageBytes - 1) / pageBytes;
    block_.reset(static_cast<std::uint8_t*>(std::aligned_alloc(pageBytes, pages * pageBytes)), std::free);
    if (!block_) throw std::bad_alloc();
    av_image_fill_arrays(planes_, linesizes_, block_.get(), format, size.w, size.h, 1);
}

Image::Image(kvffmpeg::rect_size_t size, AVPixelFormat format, unsigned seed) : Image(size, format) {
    fillWithNoise(block_.get(), bytes_, seed);
}

Image Image::clone() const {
    Image result(size_, format_);
    std::memcpy(result.plane(0), plane(0), bytes_);
    return result;
}

Image::Image(kvffmpeg::Picture& picture)
    : size_(picture.size()), format_(picture.pixelFormat()), bytes_(picture.buffer()->size()) {
    std::copy_n(picture.getPlanes(), 4, planes_);
    std::copy_n(picture.getLinesize(), 4, linesizes_);
}

Frames makeFrames(kvffmpeg::rect_size_t size, AVPixelFormat format) {
    Frames frames{Image(size, format, 1)};
    while (frames.size() < frameCount) frames.push_back(frames[0].clone());
    return frames;
}

std::vector<std::uint8_t> alphaMask(kvffmpeg::rect_size_t size, Alpha alpha) {
    if (alpha == Alpha::logo) return logoMask(size);
    const auto count = static_cast<std::size_t>(size.w) * static_cast<std::size_t>(size.h);
    std::vector<std::uint8_t> mask(count, alpha == Alpha::opaque ? 255 : 0);
    if (alpha == Alpha::noise) fillWithNoise(mask.data(), count, 3);
    return mask;
}

void setAlpha(const Image& image, Alpha alpha, int alphaByte) {
    const std::vector<std::uint8_t> mask = alphaMask(image.size(), alpha);
    if (image.plane(3)) {
        std::copy(mask.begin(), mask.end(), image.plane(3));
        return;
    }
    for (std::size_t i = 0; i < mask.size(); ++i) {
        image.plane(0)[4 * i + static_cast<std::size_t>(alphaByte)] = mask[i];
    }
}

Image premultiplied(const Image& image, int alphaByte) {
    Image result(image.size(), AV_PIX_FMT_BGRA, 0);
    for (std::size_t i = 0; i < image.bytes(); i += 4) {
        const std::uint8_t* pixel = image.plane(0) + i;
        const int alpha = pixel[alphaByte];
        const std::uint8_t* colors = alphaByte == 0 ? pixel + 1 : pixel;
        for (std::size_t c = 0; c < 3; ++c) {
            result.plane(0)[i + c] = static_cast<std::uint8_t>((colors[c] * alpha + 127) / 255);
        }
        result.plane(0)[i + 3] = static_cast<std::uint8_t>(alpha);
    }
    return result;
}

}  // namespace drawing
