#include "kvffmpeg/blending.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>

#include "kernels.h"

namespace {

using kvffmpeg::kernels::ChromaRows;
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

/// How many bytes of alpha luma and chroma are blended for in turns. Small images stay in the cache: there a
/// turn is short, because more of the short ones are clear as a whole. From large ones memory delivers faster
/// where it goes on in few places for longer; a turn's alpha then stays in the second cache.
constexpr int64_t alphaBytesPerTurn(int64_t alphaBytes) noexcept {
    return alphaBytes > (1 << 18) ? 1 << 17 : 1 << 13;
}

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

    /// The rows from `begin` to `end`, which must be among `rows`; `columns` must not be empty.
    ChromaRows part(uint8_t* const destination[], const uint8_t* const overlay[],
                    const int destinationLinesizes[], const int overlayLinesizes[], int64_t begin,
                    int64_t end) const noexcept {
        ChromaRows result = {};
        for (int plane = 1; plane <= 2; ++plane) {
            result.destination[plane - 1] =
                at(destination[plane], destinationLinesizes[plane], top + begin, left + columns.begin);
            result.source[plane - 1] = at(overlay[plane], overlayLinesizes[plane], begin, columns.begin);
            result.destinationLinesize[plane - 1] = destinationLinesizes[plane];
            result.sourceLinesize[plane - 1] = overlayLinesizes[plane];
        }
        result.alpha = at(overlay[3], overlayLinesizes[3], 2 * begin, 2 * columns.begin);
        result.alphaLinesize = overlayLinesizes[3];
        result.rows = static_cast<ptrdiff_t>(end - begin);
        result.endsOverlay = end == height;
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
    if (area.rows.empty() || area.columns.empty()) return;
    kvffmpeg::kernels::blendChromaPlane(area.part(destination, overlay, destinationLinesizes,
                                                  overlayLinesizes, area.rows.begin, area.rows.end),
                                        plane - 1);
}

void copyChroma(const ChromaRows& area) noexcept {
    for (int plane = 0; plane < 2; ++plane) {
        if (area.destinationLinesize[plane] == area.count && area.sourceLinesize[plane] == area.count) {
            std::memmove(area.destination[plane], area.source[plane],
                         static_cast<std::size_t>(area.count * area.rows));  // rows without gaps
            continue;
        }
        for (ptrdiff_t row = 0; row < area.rows; ++row) {
            std::memmove(area.destination[plane] + row * area.destinationLinesize[plane],
                         area.source[plane] + row * area.sourceLinesize[plane],
                         static_cast<std::size_t>(area.count));
        }
    }
}

/// The bytes of a plane of 4:2:0.
Extent planeExtent(const uint8_t* plane, int linesize, int width, int height, int number) noexcept {
    const bool isChroma = number == 1 || number == 2;
    return {plane, linesize, isChroma ? chromaSize(height) : height, isChroma ? chromaSize(width) : width};
}

/// Whether a plane of the destination shares memory with another than its own of the overlay, so that what is
/// written may be what is read next.
bool otherPlanesMeet(uint8_t* const destination[], const int destinationLinesizes[], int destinationWidth,
                     int destinationHeight, const uint8_t* const overlay[], const int overlayLinesizes[],
                     int overlayWidth, int overlayHeight) noexcept {
    for (int p = 0; p < 3; ++p) {
        const Extent written =
            planeExtent(destination[p], destinationLinesizes[p], destinationWidth, destinationHeight, p);
        for (int q = 0; q < 4; ++q) {
            if (q != p &&
                written.meets(planeExtent(overlay[q], overlayLinesizes[q], overlayWidth, overlayHeight, q))) {
                return true;
            }
        }
    }
    return false;
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
    if (blocks && destinationLinesize == 4 * count && overlayLinesize == 4 * count) {
        blendRow(to, from, static_cast<ptrdiff_t>(count * (rows.end - rows.begin)));  // rows without gaps
        return;
    }
    for (int64_t row = 0; row < rows.end - rows.begin; ++row) {
        blendRow(at(to, destinationLinesize, row, 0), at(from, overlayLinesize, row, 0),
                 static_cast<ptrdiff_t>(count));
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
    const auto lumaRow = [&](const Variant& variant, int64_t row, int64_t count) {
        return variant.blendRow(at(destination[0], destinationLinesizes[0], y + row, x + columns.begin),
                                at(overlay[0], overlayLinesizes[0], row, columns.begin),
                                at(overlay[3], overlayLinesizes[3], row, columns.begin),
                                static_cast<ptrdiff_t>(count));
    };

    bool blocks =
        inBlocks(at(destination[0], destinationLinesizes[0], y + rows.begin, x + columns.begin),
                 destinationLinesizes[0], at(overlay[0], overlayLinesizes[0], rows.begin, columns.begin),
                 overlayLinesizes[0], rows.end - rows.begin, columns.end - columns.begin);
    if (!chroma.rows.empty() && !chroma.columns.empty()) {
        const ChromaRows all = chroma.part(destination, overlay, destinationLinesizes, overlayLinesizes,
                                           chroma.rows.begin, chroma.rows.end);
        for (int plane = 0; plane < 2; ++plane) {
            blocks = blocks && inBlocks(all.destination[plane], destinationLinesizes[plane + 1],
                                        all.source[plane], overlayLinesizes[plane + 1], all.rows, all.count);
        }
    }
    blocks =
        blocks && !otherPlanesMeet(destination, destinationLinesizes, destinationWidth, destinationHeight,
                                   overlay, overlayLinesizes, overlayWidth, overlayHeight);
    if (!blocks) {
        for (int64_t row = rows.begin; row < rows.end; ++row) {
            lumaRow(kernels::scalar, row, columns.end - columns.begin);
        }
        for (const int plane : {1, 2}) {
            blend_plane_UV_420p_no_alpha_composite(destination, overlay, destinationLinesizes,
                                                   overlayLinesizes, overlayWidth, overlayHeight,
                                                   destinationWidth, destinationHeight, plane, x, y);
        }
        return;
    }

    // Luma and chroma in turns of a few rows, so that alpha comes from memory once.
    const Variant& variant = kernels::active();
    const int64_t width = columns.end - columns.begin;
    const bool together =
        destinationLinesizes[0] == width && overlayLinesizes[0] == width && overlayLinesizes[3] == width;
    const int64_t pairsPerTurn =
        std::max<int64_t>(alphaBytesPerTurn((rows.end - rows.begin) * width) / 2 / width, 1);
    const int64_t firstPair = std::min(rows.begin >> 1, chroma.rows.begin);
    const int64_t endPair = std::max((rows.end + 1) >> 1, chroma.rows.end);
    // Whether luma meets every alpha that chroma looks at.
    const bool sameColumns = columns.begin <= 2 * chroma.columns.begin &&
                             columns.end >= std::min<int64_t>(2 * chroma.columns.end, overlayWidth);
    for (int64_t pair = firstPair; pair < endPair; pair += pairsPerTurn) {
        const int64_t begin = std::max(2 * pair, rows.begin);
        const int64_t end = std::min(2 * (pair + pairsPerTurn), rows.end);
        unsigned seen = 0;
        if (together && begin < end) {
            seen = lumaRow(variant, begin, (end - begin) * width);
        } else {
            for (int64_t row = begin; row < end; ++row) seen |= lumaRow(variant, row, width);
        }

        const int64_t chromaBegin = std::max(pair, chroma.rows.begin);
        const int64_t chromaEnd = std::min(pair + pairsPerTurn, chroma.rows.end);
        if (chroma.columns.empty() || chromaBegin >= chromaEnd) continue;
        const bool sameRows =
            begin <= 2 * chromaBegin && end >= std::min<int64_t>(2 * chromaEnd, overlayHeight);
        if (!sameRows || !sameColumns) seen = kernels::someNotClear | kernels::someNotOpaque;
        if ((seen & kernels::someNotClear) == 0) continue;
        const ChromaRows part =
            chroma.part(destination, overlay, destinationLinesizes, overlayLinesizes, chromaBegin, chromaEnd);
        if ((seen & kernels::someNotOpaque) != 0) {
            variant.blendChromaRows(part);
        } else {
            copyChroma(part);
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
