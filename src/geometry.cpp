#include "kvffmpeg/geometry.h"

#include <algorithm>
#include <limits>
#include <ostream>

namespace kvffmpeg {
namespace {

// Sums of two coordinates are formed in 64 bits. What is stored is at most as large as an input, except for
// differences of far-off starts in absurd input, which are clamped.
std::int32_t narrow(std::int64_t value) noexcept {
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, std::numeric_limits<std::int32_t>::min(),
                                                              std::numeric_limits<std::int32_t>::max()));
}

std::int64_t end(std::int32_t start, std::int32_t length) noexcept {
    return static_cast<std::int64_t>(start) + length;
}

struct Span {
    std::int32_t start;
    std::int32_t length;
};

Span cropSpan(std::int32_t start, std::int32_t length, std::int32_t bound) noexcept {
    std::int64_t rest = length;
    if (start < 0) {
        rest = std::max<std::int64_t>(end(start, length), 0);
        start = 0;
    }
    const std::int64_t over = start + rest - bound;
    if (over > 0) rest = std::max<std::int64_t>(rest - over, 0);
    return {start, narrow(rest)};
}

Span visibleSpan(std::int32_t start, std::int32_t length, std::int32_t bound) noexcept {
    if (start < 0) {
        const std::int64_t visibleEnd = std::max<std::int64_t>(end(start, length), 0);
        return {narrow(-static_cast<std::int64_t>(start)),
                narrow(std::max<std::int64_t>(std::min<std::int64_t>(visibleEnd, bound), 0))};
    }
    const std::int64_t over = std::max<std::int64_t>(end(start, length) - bound, 0);
    return {0, narrow(std::max<std::int64_t>(length - over, 0))};
}

}  // namespace

rect_t rect_t::intersected(const rect_t& other) const noexcept {
    if ((w == 0 && h == 0) || (other.w == 0 && other.h == 0)) return {};
    if (end(other.x, other.w) < x || end(x, w) < other.x || end(other.y, other.h) < y ||
        end(y, h) < other.y) {
        return {};
    }
    const std::int32_t left = std::max(x, other.x);
    const std::int32_t top = std::max(y, other.y);
    return {left, top, narrow(std::min(end(x, w), end(other.x, other.w)) - left),
            narrow(std::min(end(y, h), end(other.y, other.h)) - top)};
}

rect_t crop_rect(rect_t rect, rect_size_t bounds) noexcept {
    const Span columns = cropSpan(rect.x, rect.w, bounds.w);
    const Span rows = cropSpan(rect.y, rect.h, bounds.h);
    return {columns.start, rows.start, columns.length, rows.length};
}

rect_t get_image_visible_area(rect_t placement, rect_size_t container) noexcept {
    if (container.w < placement.x || container.h < placement.y) return {};
    const Span columns = visibleSpan(placement.x, placement.w, container.w);
    const Span rows = visibleSpan(placement.y, placement.h, container.h);
    return {columns.start, rows.start, columns.length, rows.length};
}

rect_t center_rect_in_container(rect_t rect, rect_t container) noexcept {
    // Each half is at most 2^30 in size, so the differences fit.
    return {container.w / 2 - rect.w / 2, container.h / 2 - rect.h / 2, rect.w, rect.h};
}

std::ostream& operator<<(std::ostream& out, point_t point) {
    return out << "x:" << point.x << ", y:" << point.y;
}

std::ostream& operator<<(std::ostream& out, rect_size_t size) {
    return out << "w:" << size.w << ", h:" << size.h;
}

std::ostream& operator<<(std::ostream& out, const rect_t& rect) {
    return out << point_t{rect.x, rect.y} << ", " << rect_size_t{rect.w, rect.h};
}

}  // namespace kvffmpeg
