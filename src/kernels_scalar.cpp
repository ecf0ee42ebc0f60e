#include <algorithm>

#include "kernels.h"

// The plain form, which defines what every other variant gives.

namespace kvffmpeg::kernels {
namespace {

constexpr std::ptrdiff_t runLength = 32;

std::uint8_t blended(std::uint32_t destination, std::uint32_t source, std::uint32_t alpha) noexcept {
    const std::uint32_t t = destination * (255 - alpha) + source * alpha + 128;
    return static_cast<std::uint8_t>((t * 257) >> 16);
}

unsigned blendRow(std::uint8_t* destination, const std::uint8_t* source, const std::uint8_t* alpha,
                  std::ptrdiff_t count) {
    unsigned seen = 0;
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        destination[i] = blended(destination[i], source[i], alpha[i]);
        if (alpha[i] != 0) seen |= someNotClear;
        if (alpha[i] != 255) seen |= someNotOpaque;
    }
    return seen;
}

/// One row of one plane of chroma.
struct ChromaRow {
    std::uint8_t* destination;
    const std::uint8_t* source;
    const std::uint8_t* upper;  ///< Alpha of the luma row 2r,
    const std::uint8_t* lower;  ///< and of 2r + 1, but in the overlay's last row.
    bool isLast;                ///< Whether this is that row.
    std::ptrdiff_t count;
    std::ptrdiff_t left;
};

int chromaAlpha(const ChromaRow& row, std::ptrdiff_t column) noexcept {
    const bool lastColumn = column + 1 >= row.left;
    const std::uint8_t* upper = row.upper + 2 * column;
    if (row.isLast) return lastColumn ? upper[0] : (upper[0] + ((upper[0] + upper[1]) >> 1)) >> 1;
    const std::uint8_t* lower = row.lower + 2 * column;
    if (lastColumn) return (upper[0] + ((lower[0] + upper[0]) >> 1)) >> 1;
    return (upper[0] + upper[1] + lower[0] + lower[1]) >> 2;
}

bool allAre(std::uint8_t value, const std::uint8_t* bytes, std::ptrdiff_t count) noexcept {
    return std::all_of(bytes, bytes + count, [&](std::uint8_t byte) { return byte == value; });
}

void blendChromaRow(const ChromaRow& row) {
    std::ptrdiff_t column = 0;
    while (column < row.count) {
        const bool wholeRun = row.count - column >= runLength;
        const std::ptrdiff_t end = wholeRun ? column + runLength : row.count;
        // Away from the overlay's right edge the upper row of alpha speaks for both.
        if (wholeRun && end + 1 < row.left) {
            const std::uint8_t* upper = row.upper + 2 * column;
            const bool clear = allAre(0, upper, 2 * runLength);
            if (clear || allAre(255, upper, 2 * runLength)) {
                if (!clear) std::copy(row.source + column, row.source + end, row.destination + column);
                column = end;
                continue;
            }
        }
        for (; column < end; ++column) {
            row.destination[column] = blended(row.destination[column], row.source[column],
                                              static_cast<std::uint32_t>(chromaAlpha(row, column)));
        }
    }
}

void blendChromaRows(const ChromaRows& area) {
    blendChromaPlane(area, 0);
    blendChromaPlane(area, 1);
}

template <int alphaByte>
void blendPackedRow(std::uint8_t* destination, const std::uint8_t* source, std::ptrdiff_t count) {
    constexpr int firstColour = alphaByte == 0 ? 1 : 0;
    for (std::ptrdiff_t i = 0; i < count; ++i, destination += 4, source += 4) {
        const std::uint32_t alpha = source[alphaByte];
        for (int byte = firstColour; byte < firstColour + 3; ++byte) {
            destination[byte] = blended(destination[byte], source[byte], alpha);
        }
    }
}

void composeRow(std::uint8_t* destination, const std::uint8_t* source, const std::uint8_t* pixels,
                std::ptrdiff_t count, int pixelsPerSample) {
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        const std::uint32_t alpha = pixels[4 * i * pixelsPerSample + 3];
        destination[i] =
            static_cast<std::uint8_t>((source[i] * alpha + destination[i] * (255 - alpha)) / 255);
    }
}

std::uint8_t keyAlpha(int distance, const KeyRule& rule) noexcept {
    if (!rule.soft) return distance > rule.threshold ? 255 : 0;
    // Cut as a float: the quotient by a small divisor does not fit in an int.
    const float quotient = static_cast<float>(distance - rule.threshold) / rule.divisor;
    return static_cast<std::uint8_t>(std::min(std::max(quotient, 0.0F), 255.0F));
}

int squaredDistance(int u, int v, const KeyRule& rule) noexcept {
    return (u - rule.u) * (u - rule.u) + (v - rule.v) * (v - rule.v);
}

/// The least distance whose alpha is at least `alpha`, or more than all there are. Alpha never falls with
/// distance.
int firstDistanceOf(int alpha, const KeyRule& rule) noexcept {
    int low = 0;
    int high = 2 * 255 * 255 + 1;
    while (low < high) {
        const int middle = (low + high) / 2;
        if (keyAlpha(middle, rule) >= alpha) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return low;
}

void keyRow(std::uint8_t* upper, std::uint8_t* lower, const std::uint8_t* u, const std::uint8_t* v,
            std::ptrdiff_t count, const KeyRule& rule) {
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        const std::uint8_t alpha = keyAlpha(squaredDistance(u[i], v[i], rule), rule);
        upper[2 * i] = upper[2 * i + 1] = alpha;
        lower[2 * i] = lower[2 * i + 1] = alpha;
    }
}

void mapRow(std::uint8_t* row, std::ptrdiff_t count, const std::uint8_t* table) {
    for (std::ptrdiff_t i = 0; i < count; ++i) row[i] = table[row[i]];
}

void repeatRow(std::uint8_t* row, std::ptrdiff_t count, const std::uint8_t* pattern) {
    while (count > 0) {
        const std::ptrdiff_t copied = std::min(count, patternBytes);
        row = std::copy_n(pattern, copied, row);
        count -= copied;
    }
}

}  // namespace

KeyRule keyRule(std::uint8_t u, std::uint8_t v, int threshold, float divisor) noexcept {
    KeyRule rule = {u, v, divisor > 0, threshold, divisor, 0, 0};
    rule.clearUpTo = firstDistanceOf(1, rule) - 1;
    rule.opaqueFrom = firstDistanceOf(255, rule);
    return rule;
}

void blendChromaPlane(const ChromaRows& area, int plane) {
    for (std::ptrdiff_t r = 0; r < area.rows; ++r) {
        const bool isLast = area.endsOverlay && r + 1 == area.rows;
        const std::uint8_t* upper = area.alpha + 2 * r * area.alphaLinesize;
        blendChromaRow({area.destination[plane] + r * area.destinationLinesize[plane],
                        area.source[plane] + r * area.sourceLinesize[plane], upper,
                        isLast ? upper : upper + area.alphaLinesize, isLast, area.count, area.left});
    }
}

const Variant scalar = {
    "scalar",
    []() noexcept { return true; },
    blendRow,
    blendChromaRows,
    blendPackedRow<3>,
    blendPackedRow<0>,
    composeRow,
    keyRow,
    mapRow,
    repeatRow,
    &scalarMasks,
};

}  // namespace kvffmpeg::kernels
