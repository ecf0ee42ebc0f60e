#include "kvffmpeg/chromakey.h"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "kernels.h"

namespace kvffmpeg {
namespace {

/// The squared distance up to which a pixel is transparent.
int thresholdOf(float similarity) noexcept {
    const float square = similarity * similarity;
    const double threshold = static_cast<double>(square) * 255.0 * 255.0;
    constexpr int most = std::numeric_limits<int>::max();
    if (!(threshold < most)) return threshold >= most ? most : 0;
    return static_cast<int>(threshold);
}

}  // namespace

void chromakey_yuva420p(std::uint8_t* const planes[], const int linesizes[], int width, int height,
                        const std::uint8_t* key, float similarity, float blend) noexcept {
    const kernels::KeyRule rule = kernels::keyRule(key[0], key[1], thresholdOf(similarity), blend * 255.0F);
    const auto keyRow = kernels::active().keyRow;
    const std::ptrdiff_t columns = std::max(width, 0) >> 1;
    for (std::ptrdiff_t row = 0; row < height >> 1; ++row) {
        std::uint8_t* alpha = planes[3] + 2 * row * linesizes[3];
        keyRow(alpha, alpha + linesizes[3], planes[1] + row * linesizes[1], planes[2] + row * linesizes[2],
               columns, rule);
    }
}

}  // namespace kvffmpeg
