#pragma once

#include "kvffmpeg/color.h"
#include "kvffmpeg/export.h"
#include "kvffmpeg/geometry.h"
#include "kvffmpeg/picture.h"

/// \file
/// Fills, and pictures with alpha onto pictures.

namespace kvffmpeg {

/// Filling rectangles and putting pictures onto pictures, in place. Stateless; any thread.
///
/// All failures are std::runtime_error, thrown before anything is changed.
class KVFFMPEG_EXPORT DrawUtils {
public:
    DrawUtils() = delete;

    /// Sets all components, alpha included, of the part of `rect` that lies inside the picture. Luma and
    /// chroma are full-range for a picture of AVCOL_RANGE_JPEG, else the format's own.
    ///
    /// For formats with subsampled chroma that part's x, y, width and height are rounded down to the chroma
    /// grid: in 4:2:0, {3, 3, 5, 5} fills {2, 2, 4, 4}, a single pixel fills nothing, and a picture of 5 x 5
    /// keeps its last row and column.
    ///
    /// A rectangle that is apart from the picture does nothing whatever the format; one that touches its edge
    /// does nothing either, but the format is looked at.
    /// @throws std::runtime_error "fillRectangle: Picture must be editable";
    /// "Drawing is not supported for " and the pixel format's name, for formats that `ff_draw_init` refuses.
    static void fillRectangle(Picture& picture, rect_t rect, Color color);
    /// The same for the whole picture, with the same rounding.
    static void fillRectangle(Picture& picture, Color color);

    /// Puts `overlay` onto `destination` with its top-left pixel at `position`; what lies outside is left
    /// out. With alpha it is blended, and the destination's alpha stays; without, copied.
    ///
    /// | destination | overlay | |
    /// |---|---|---|
    /// | argb | argb | blended |
    /// | rgba | rgba | blended |
    /// | yuv420p | yuva420p | blended |
    /// | yuv420p | yuv420p | copied |
    ///
    /// In 4:2:0 the visible part of the overlay has its place and size rounded down to even numbers, so that
    /// an overlay of odd size loses its last row and column. Where an overlay with alpha sticks out at the
    /// left or top, alpha is still taken from the top-left corner of its plane, as `Picture::crop` leaves it.
    ///
    /// Pictures that are apart do nothing whatever the formats; where they touch, the formats are looked at.
    /// `destination` and `overlay` may be the same picture.
    /// @throws std::runtime_error "compose: Picture must be editable" for the destination;
    /// "compose: Unsupported overlay pixel format for ARGB" (or RGBA, YUV420P, after the destination);
    /// "compose: Unsupported destination pixel format.".
    static void compose(Picture& destination, const Picture& overlay, point_t position);
};

}  // namespace kvffmpeg
