#include "mask_kernels.h"

// The plain form, which defines what every other variant gives.

namespace kvffmpeg::kernels {
namespace {

void blend(std::uint8_t& sample, std::uint32_t value, std::uint32_t coverage,
           std::uint32_t opacity) noexcept {
    // The factors are 0x1010101 together, which times 255 is 2^32 - 1: the sum does not overflow.
    const std::uint32_t weight = coverage * opacity;
    sample = static_cast<std::uint8_t>(((0x1010101 - weight) * sample + weight * value) >> 24);
}

void blendBytes(std::uint8_t* samples, std::ptrdiff_t linesize, std::uint8_t value,
                const Coverage& coverage) {
    const std::uint8_t* mask = coverage.first;
    for (std::ptrdiff_t y = 0; y < coverage.rows; ++y, samples += linesize, mask += coverage.linesize) {
        for (std::ptrdiff_t x = 0; x < coverage.columns; ++x) {
            if (mask[x] != 0) blend(samples[x], value, mask[x], coverage.opacity);
        }
    }
}

void blendPixels(std::uint8_t* pixels, std::ptrdiff_t linesize, const std::uint8_t* values,
                 unsigned usedBytes, const Coverage& coverage) {
    const std::uint8_t* mask = coverage.first;
    for (std::ptrdiff_t y = 0; y < coverage.rows; ++y, pixels += linesize, mask += coverage.linesize) {
        for (std::ptrdiff_t x = 0; x < coverage.columns; ++x) {
            if (mask[x] == 0) continue;
            for (unsigned byte = 0; byte < 4; ++byte) {
                if ((usedBytes >> byte & 1) != 0)
                    blend(pixels[4 * x + byte], values[byte], mask[x], coverage.opacity);
            }
        }
    }
}

void blendChroma(const ChromaTarget& target, const Coverage& coverage) {
    const std::ptrdiff_t left = target.startsRight ? 1 : 0;
    const std::ptrdiff_t top = target.startsLow ? 1 : 0;
    const std::ptrdiff_t columns = coverage.columns == 0 ? 0 : (coverage.columns + left + 1) / 2;
    const std::ptrdiff_t rows = coverage.rows == 0 ? 0 : (coverage.rows + top + 1) / 2;
    for (std::ptrdiff_t r = 0; r < rows; ++r) {
        for (std::ptrdiff_t c = 0; c < columns; ++c) {
            std::uint32_t sum = 0;
            for (std::ptrdiff_t y = 2 * r - top; y < 2 * r - top + 2; ++y) {
                for (std::ptrdiff_t x = 2 * c - left; x < 2 * c - left + 2; ++x) {
                    if (x >= 0 && x < coverage.columns && y >= 0 && y < coverage.rows)
                        sum += coverage.first[y * coverage.linesize + x];
                }
            }
            if (sum / 4 == 0) continue;
            for (int plane = 0; plane < 2; ++plane) {
                blend(target.samples[plane][r * target.linesizes[plane] + c], target.values[plane], sum / 4,
                      coverage.opacity);
            }
        }
    }
}

}  // namespace

const MaskKernels scalarMasks = {blendBytes, blendPixels, blendChroma};

}  // namespace kvffmpeg::kernels
