#include "kvffmpeg/blending.h"

#include <algorithm>
#include <cstddef>
#include <functional>

#include "kernels.h"

namespace {

using kvffmpeg::kernels::ChromaRow;
using kvffmpeg::kernels::Variant;
using std::int64_t;
using std::ptrdiff_t;
using std::uint8_t;

/// The part of an overlay, along one axis, that falls into the destination. 64 bits, because positions near
/// the ends of int are allowed.
struct Span {
    Span(int position, int overlaySize, int destinationSize) noexcept
        : begin(std::max<int64_t>(-static_cast<int64_t>(position), 0)),
          end(std::min<int64_t>(static_cast<int64_t>(destinationSize) - position, overlaySize)) {}
    bool empty() const noexcept { return begin >= end; }

    int64_t begin;
    int64_t end;
};

constexpr int chromaSize(int size) noexcept {
    return static_cast<int>((static_cast<int64_t>(size) + 1) >> 1);
}

uint8_t* at(uint8_t* plane, int linesize, int64_t row, int64_t byte) noexcept {
    return plane + static_cast<ptrdiff_t>(row) * linesize + static_cast<ptrdiff_t>(byte);
}
const uint8_t* at(const uint8_t* plane, int linesize, int64_t row, int64_t byte) noexcept {
    return plane + static_cast<ptrdiff_t>(row) * linesize + static_cast<ptrdiff_t>(byte);
}

/// The bytes that a rectangle of a plane touches. Linesizes may be negative.
struct Extent {
    Extent(const uint8_t* first, int linesize, int64_t rows, int64_t rowBytes) noexcept {
        const uint8_t* last = at(first, linesize, rows - 1, 0);
        begin = std::min(first, last, std::less<>());
        end = std::max(first, last, std::less<>()) + rowBytes;
    }
    bool meets(const Extent& other) const noexcept {
        return std::less<>()(begin, other.end) && std::less<>()(other.begin, end);
    }

    const uint8_t* begin;
    const uint8_t* end;
};

/// Whether a kernel may read `source` in blocks while it writes `destination`: they do not meet, or every
/// sample is read only where it is written.
bool inBlocks(const uint8_t* destination, int destinationLinesize, const uint8_t* source, int sourceLinesize,
              int64_t rows, int64_t rowBytes) noexcept {
    if (destination == source && (destinationLinesize == sourceLinesize || rows == 1)) return true;
    return !Extent(destination, destinationLinesize, rows, rowBytes)
                .meets(Extent(source, sourceLinesize, rows, rowBytes));
}

/// The parts of an overlay's chroma planes that fall into the destination's.
struct ChromaArea {
    ChromaArea(int overlayWidth, int overlayHeight, int destinationWidth, int destinationHeight, int x,
               int y) noexcept
        : left(x >> 1),
          top(y >> 1),
          width(chromaSize(overlayWidth)),
          height(chromaSize(overlayHeight)),
          rows(top, height, chromaSize(destinationHeight)),
          columns(left, width, chromaSize(destinationWidth)) {}

    /// Row `row`, which must be one of `rows`; `columns` must not be empty.
    ChromaRow row(uint8_t* const destination[], const uint8_t* const overlay[],
                  const int destinationLinesizes[], const int overlayLinesizes[],
                  int64_t row) const noexcept {
        ChromaRow result = {};
        for (int plane = 1; plane <= 2; ++plane) {
            result.destination[plane - 1] =
                at(destination[plane], destinationLinesizes[plane], top + row, left + columns.begin);
            result.source[plane - 1] = at(overlay[plane], overlayLinesizes[plane], row, columns.begin);
        }
        result.upper = at(overlay[3], overlayLinesizes[3], 2 * row, 2 * columns.begin);
        if (row + 1 < height) result.lower = result.upper + overlayLinesizes[3];
        result.count = static_cast<ptrdiff_t>(columns.end - columns.begin);
        result.left = static_cast<ptrdiff_t>(width - columns.begin);
        return result;
    }

    int left;
    int top;
    int width;
    int height;
    Span rows;
    Span columns;
};

/// Blends one plane of chroma, 1 or 2, sample by sample.
void blend_plane_UV_420p_no_alpha_composite(uint8_t* const destination[], const uint8_t* const overlay[],
                                            const int destinationLinesizes[], const int overlayLinesizes[],
                                            int overlayWidth, int overlayHeight, int destinationWidth,
                                            int destinationHeight, int plane, int x, int y) noexcept {
    const ChromaArea area(overlayWidth, overlayHeight, destinationWidth, destinationHeight, x, y);
    if (area.columns.empty()) return;
    for (int64_t row = area.rows.begin; row < area.rows.end; ++row) {
        kvffmpeg::kernels::blendChromaPlane(
            area.row(destination, overlay, destinationLinesizes, overlayLinesizes, row), plane - 1);
    }
}

using PackedRow = void (*Variant::*)(uint8_t*, const uint8_t*, ptrdiff_t);

void blendPacked(PackedRow kernel, uint8_t* destination, int destinationLinesize, int destinationWidth,
                 int destinationHeight, const uint8_t* overlay, int overlayLinesize, int overlayWidth,
                 int overlayHeight, int x, int y) noexcept {
    const Span rows(y, overlayHeight, destinationHeight);
    const Span columns(x, overlayWidth, destinationWidth);
    if (rows.empty() || columns.empty()) return;
    const int64_t count = columns.end - columns.begin;
    uint8_t* to = at(destination, destinationLinesize, y + rows.begin, 4 * (x + columns.begin));
    const uint8_t* from = at(overlay, overlayLinesize, rows.begin, 4 * columns.begin);
    const bool blocks =
        inBlocks(to, destinationLinesize, from, overlayLinesize, rows.end - rows.begin, 4 * count);
    const auto blendRow = (blocks ? kvffmpeg::kernels::active() : kvffmpeg::kernels::scalar).*kernel;
    for (int64_t row = rows.begin; row < rows.end; ++row) {
        blendRow(to, from, static_cast<ptrdiff_t>(count));
        to += destinationLinesize;
        from += overlayLinesize;
    }
}

}  // namespace

namespace kvffmpeg {

void blend_image_yuva420(std::uint8_t* const destination[], const int destinationLinesizes[],
                         int destinationWidth, int destinationHeight, const std::uint8_t* const overlay[],
                         const int overlayLinesizes[], int overlayWidth, int overlayHeight, int x,
                         int y) noexcept {
    const Span rows(y, overlayHeight, destinationHeight);
    const Span columns(x, overlayWidth, destinationWidth);
    // An overlay just beyond an odd edge is outside, although its first chroma samples would not be.
    if (rows.empty() || columns.empty()) return;
    const ChromaArea chroma(overlayWidth, overlayHeight, destinationWidth, destinationHeight, x, y);
    const auto lumaRow = [&](const Variant& variant, int64_t row) {
        variant.blendRow(at(destination[0], destinationLinesizes[0], y + row, x + columns.begin),
                         at(overlay[0], overlayLinesizes[0], row, columns.begin),
                         at(overlay[3], overlayLinesizes[3], row, columns.begin),
                         static_cast<ptrdiff_t>(columns.end - columns.begin));
    };

    bool blocks =
        inBlocks(at(destination[0], destinationLinesizes[0], y + rows.begin, x + columns.begin),
                 destinationLinesizes[0], at(overlay[0], overlayLinesizes[0], rows.begin, columns.begin),
                 overlayLinesizes[0], rows.end - rows.begin, columns.end - columns.begin);
    if (!chroma.rows.empty() && !chroma.columns.empty()) {
        const ChromaRow first =
            chroma.row(destination, overlay, destinationLinesizes, overlayLinesizes, chroma.rows.begin);
        for (int plane = 0; plane < 2; ++plane) {
            blocks = blocks &&
                     inBlocks(first.destination[plane], destinationLinesizes[plane + 1], first.source[plane],
                              overlayLinesizes[plane + 1], chroma.rows.end - chroma.rows.begin, first.count);
        }
    }
    if (!blocks) {
        for (int64_t row = rows.begin; row < rows.end; ++row) lumaRow(kernels::scalar, row);
        for (const int plane : {1, 2}) {
            blend_plane_UV_420p_no_alpha_composite(destination, overlay, destinationLinesizes,
                                                   overlayLinesizes, overlayWidth, overlayHeight,
                                                   destinationWidth, destinationHeight, plane, x, y);
        }
        return;
    }

    // Luma and chroma together, so that each row of alpha is fetched from memory once.
    const Variant& variant = kernels::active();
    const int64_t firstPair = std::min(rows.begin >> 1, chroma.rows.begin);
    const int64_t endPair = std::max((rows.end + 1) >> 1, chroma.rows.end);
    for (int64_t pair = firstPair; pair < endPair; ++pair) {
        const int64_t end = std::min(2 * pair + 2, rows.end);
        for (int64_t row = std::max(2 * pair, rows.begin); row < end; ++row) lumaRow(variant, row);
        if (pair >= chroma.rows.begin && pair < chroma.rows.end && !chroma.columns.empty()) {
            variant.blendChromaRow(
                chroma.row(destination, overlay, destinationLinesizes, overlayLinesizes, pair));
        }
    }
}

void blend_image_rgba(std::uint8_t* const destination[], const int destinationLinesizes[],
                      int destinationWidth, int destinationHeight, const std::uint8_t* const overlay[],
                      const int overlayLinesizes[], int overlayWidth, int overlayHeight, int x,
                      int y) noexcept {
    blendPacked(&Variant::blendRgbaRow, destination[0], destinationLinesizes[0], destinationWidth,
                destinationHeight, overlay[0], overlayLinesizes[0], overlayWidth, overlayHeight, x, y);
}

void blend_image_argb(std::uint8_t* const destination[], const int destinationLinesizes[],
                      int destinationWidth, int destinationHeight, const std::uint8_t* const overlay[],
                      const int overlayLinesizes[], int overlayWidth, int overlayHeight, int x,
                      int y) noexcept {
    blendPacked(&Variant::blendArgbRow, destination[0], destinationLinesizes[0], destinationWidth,
                destinationHeight, overlay[0], overlayLinesizes[0], overlayWidth, overlayHeight, x, y);
}

}  // namespace kvffmpeg
