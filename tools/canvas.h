#pragma once

#include "kvffmpeg/geometry.h"
#include "kvffmpeg/picture.h"
#include "kvffmpeg/scaler.h"

namespace kvffmpeg::tool {

/// An overlay that is ready for `DrawUtils::compose`. Empty when nothing of it is visible.
struct PlacedOverlay {
    Picture picture;
    point_t position;
};

/// A picture that is drawn on. 4:2:0 is drawn on as yuv420p, with an even number of rows and columns, so that
/// chroma has no half samples at the edges; all else as rgba, which keeps its colours as sharp as they are.
class Canvas {
public:
    /// The picture's content. With `isKeyed` it is yuv420p whatever the picture is, as keying makes 4:2:0 of
    /// all pictures.
    /// @throws std::runtime_error for formats that cannot be converted.
    Canvas(Scaler& scaler, const Picture& picture, bool isKeyed);

    Picture& picture() noexcept { return picture_; }
    const Picture& picture() const noexcept { return picture_; }

    /// The size of the picture that is drawn on.
    rect_size_t size() const noexcept { return size_; }

    /// `picture` as a canvas of this one's size, format and range. @throws std::runtime_error.
    Picture matching(Scaler& scaler, const Picture& picture) const;
    /// The part of an overlay, in rgba, that is visible at `position`.
    PlacedOverlay place(const Picture& overlay, point_t position) const;
    /// What a fill of `area` covers: in 4:2:0 its edges are rounded down to even numbers, but for those at
    /// the right and lower edge of the picture or beyond.
    rect_t onGrid(rect_t area) const noexcept;

    /// What was drawn, in the size of the picture.
    Picture result() const;

private:
    rect_size_t size_;
    Picture picture_;
};

}  // namespace kvffmpeg::tool
