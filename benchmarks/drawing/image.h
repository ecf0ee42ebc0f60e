#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "kvffmpeg/picture.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace drawing {

/// Planes in one page-aligned block, in rows without padding. Copies share the block.
class Image {
public:
    /// Filled with noise, the same in every run for one `seed`.
    Image(kvffmpeg::rect_size_t size, AVPixelFormat format, unsigned seed);
    /// A view of the picture's memory, which must live longer.
    explicit Image(kvffmpeg::Picture& picture);
    Image clone() const;  ///< In a block of its own.

    int width() const { return size_.w; }
    int height() const { return size_.h; }
    kvffmpeg::rect_size_t size() const { return size_; }
    AVPixelFormat format() const { return format_; }
    std::uint8_t* plane(int index) const { return planes_[index]; }
    int linesize(int index) const { return linesizes_[index]; }
    std::uint8_t* row(int plane, int y) const {
        return planes_[plane] + std::ptrdiff_t{y} * linesizes_[plane];
    }
    std::uint8_t* const* planes() const { return planes_; }
    const int* linesizes() const { return linesizes_; }
    std::size_t bytes() const { return bytes_; }  ///< Of all planes together, from plane 0 on.

private:
    Image(kvffmpeg::rect_size_t size, AVPixelFormat format);

    kvffmpeg::rect_size_t size_;
    AVPixelFormat format_;
    std::shared_ptr<std::uint8_t> block_;  ///< Null in views.
    std::uint8_t* planes_[4] = {};
    int linesizes_[4] = {};
    std::size_t bytes_ = 0;
};

/// Random numbers that are the same in every run.
inline std::mt19937 makeRandom(unsigned seed) {
    return std::mt19937(seed);
}

enum class Alpha { noise, logo, opaque, clear };
inline const char* nameOf(Alpha alpha) {
    constexpr const char* names[] = {"noise alpha", "logo mask", "all 255", "all 0"};
    return names[static_cast<int>(alpha)];
}

constexpr kvffmpeg::rect_size_t large{1920, 1080};
constexpr kvffmpeg::rect_size_t inCache{256, 256};

/// What is drawn on: each contender has one of its own, all begin with the same noise.
using Frames = std::vector<Image>;
constexpr std::size_t frameCount = 5;
Frames makeFrames(kvffmpeg::rect_size_t size, AVPixelFormat format);

/// One byte a pixel. The logo is 70 % clear, 20 % opaque, and 10 % soft edge between the two: blobs of a few
/// hundred pixels, a single one in small images.
std::vector<std::uint8_t> alphaMask(kvffmpeg::rect_size_t size, Alpha alpha);
/// Puts the mask into plane 3, or, in a format of four bytes a pixel, into byte `alphaByte`.
void setAlpha(const Image& image, Alpha alpha, int alphaByte = 3);
/// A copy of a packed image with alpha last and the colours multiplied by it.
Image premultiplied(const Image& image, int alphaByte);

}  // namespace drawing
