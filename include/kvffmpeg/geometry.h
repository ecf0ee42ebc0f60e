#pragma once

#include <cstdint>
#include <iosfwd>

#include "kvffmpeg/export.h"

/// \file
/// Positions, sizes and rectangles in whole pixels. Sums that no int holds are not checked.

namespace kvffmpeg {

/// A position in pixels. An aggregate.
struct point_t {
    std::int32_t x = 0;  ///< Columns to the right.
    std::int32_t y = 0;  ///< Rows down.
};

/// A size in pixels. An aggregate. Sizes with a side of 0 or less have no area.
struct rect_size_t {
    std::int32_t w = 0;  ///< Width.
    std::int32_t h = 0;  ///< Height.
};

/// The pixels of columns x ... x + w - 1 and rows y ... y + h - 1. An aggregate. {0, 0, 0, 0} means no area.
struct KVFFMPEG_EXPORT rect_t {
    std::int32_t x = 0;  ///< First column.
    std::int32_t y = 0;  ///< First row.
    std::int32_t w = 0;  ///< Width.
    std::int32_t h = 0;  ///< Height.

    /// What this rectangle and `other` have in common. Only a rectangle whose width *and* height are 0
    /// counts as empty; rectangles that merely touch give a width or height of 0 ({0, 0, 10, 10} and
    /// {10, 0, 5, 5} give {10, 0, 0, 5}), disjoint ones {0, 0, 0, 0}. Negative sizes pass through: a
    /// consumer treats every w <= 0 or h <= 0 as no area.
    rect_t intersected(const rect_t& other) const noexcept;
};

/// Equal in every field.
constexpr bool operator==(point_t a, point_t b) noexcept {
    return a.x == b.x && a.y == b.y;
}
/// Different in a field.
constexpr bool operator!=(point_t a, point_t b) noexcept {
    return !(a == b);
}
/// Equal in every field.
constexpr bool operator==(rect_size_t a, rect_size_t b) noexcept {
    return a.w == b.w && a.h == b.h;
}
/// Different in a field.
constexpr bool operator!=(rect_size_t a, rect_size_t b) noexcept {
    return !(a == b);
}
/// Equal in every field; rectangles without area are not equal for that.
constexpr bool operator==(const rect_t& a, const rect_t& b) noexcept {
    return a.x == b.x && a.y == b.y && a.w == b.w && a.h == b.h;
}
/// Different in a field.
constexpr bool operator!=(const rect_t& a, const rect_t& b) noexcept {
    return !(a == b);
}

/// Clips `rect` to the area 0 ... `bounds`. The start is not clamped: a rectangle beyond the right edge keeps
/// its x and gets w = 0.
KVFFMPEG_EXPORT rect_t crop_rect(rect_t rect, rect_size_t bounds) noexcept;

/// The part of an image that is visible when the image (of size placement.w x placement.h) is put at
/// (placement.x, placement.y) into a container of the given size; in the image's own coordinates.
KVFFMPEG_EXPORT rect_t get_image_visible_area(rect_t placement, rect_size_t container) noexcept;

/// `rect`'s size, centred in a container of `container`'s size. Relative to the container's top-left corner:
/// both positions are ignored. Both halvings truncate before the subtraction.
KVFFMPEG_EXPORT rect_t center_rect_in_container(rect_t rect, rect_t container) noexcept;

/// "x:3, y:-4".
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, point_t point);
/// "w:30, h:40".
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, rect_size_t size);
/// "x:1, y:2, w:30, h:40".
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, const rect_t& rect);

}  // namespace kvffmpeg
