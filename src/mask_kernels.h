#pragma once

#include <cstddef>
#include <cstdint>

namespace kvffmpeg::kernels {

/// What a colour is drawn through: one byte of coverage, 0 ... 255, for each pixel of a rectangle.
struct Coverage {
    const std::uint8_t* first;  ///< Of the top-left pixel.
    std::ptrdiff_t linesize;    ///< In bytes; may be negative.
    std::ptrdiff_t columns;     ///< May be 0.
    std::ptrdiff_t rows;        ///< May be 0.
    std::uint32_t opacity;      ///< Of the colour: 0 ... `opaque`.
};

/// With this the sample becomes the colour's where coverage is 255: 255 * opaque is 2^24 + 2^16 + 2^8 - 3.
constexpr std::uint32_t opaque = 0x10203;

/// U and V of 4:2:0, where a sample is drawn through the average of its four pixels, rounded down; pixels
/// beyond the rectangle count 0.
struct ChromaTarget {
    std::uint8_t* samples[2];  ///< That of the rectangle's top-left pixel.
    std::ptrdiff_t linesizes[2];
    std::uint8_t values[2];
    bool startsRight;  ///< The rectangle's first column is the right one of its samples,
    bool startsLow;    ///< and its first row the lower one.
};

/// The inner loops of drawing through masks, in samples D of one byte and with w = coverage * opacity:
/// D = ((0x1010101 - w) * D + w * value) >> 24, which leaves D as it is where coverage is 0. All variants
/// give the same bytes and touch nothing beyond the rectangle.
struct MaskKernels {
    /// One sample a pixel.
    void (*blendBytes)(std::uint8_t* samples, std::ptrdiff_t linesize, std::uint8_t value,
                       const Coverage& coverage);
    /// Pixels of four bytes; those bytes whose bit of `usedBytes` is clear stay.
    void (*blendPixels)(std::uint8_t* pixels, std::ptrdiff_t linesize, const std::uint8_t* values,
                        unsigned usedBytes, const Coverage& coverage);
    void (*blendChroma)(const ChromaTarget& target, const Coverage& coverage);
};

extern const MaskKernels scalarMasks;
extern const MaskKernels avx2Masks;
extern const MaskKernels avx512Masks;  ///< The parts F, BW and VL.

}  // namespace kvffmpeg::kernels
