#pragma once

#include <cstdint>

#include "kvffmpeg/export.h"

namespace kvffmpeg {

/// \file
/// Painting an overlay with alpha onto an image, in place, at an integer position. The overlay may stick out
/// on any side; what lies outside the destination is left out.
///
/// Every sample becomes (t * 257) >> 16 with t = D * (255 - a) + S * a + 128, which is (D * (255 - a) + S *
/// a) / 255 rounded to nearest: exactly D where the overlay is transparent and exactly S where it is opaque.
/// The alpha of the destination is never written. The result is the same on every CPU.
///
/// Planes are given as in an AVFrame; sizes and positions are in pixels. Not checked: that the planes exist
/// and hold rows of the sizes given. Linesizes may be as short as the rows are and negative; nothing beyond
/// the rows is touched. Overlay and destination may share memory: at the same place that makes no difference,
/// elsewhere samples are read after those above them, and those to the left in their row, were written.
///
/// No memory is allocated. One pass, at the speed of memory for large images.

/// YUVA 4:2:0 over YUV 4:2:0 (plane 3 of the destination, if any, is left alone).
///
/// Chroma samples lie at x >> 1, y >> 1 and are weighted with the average of the four alphas that they cover,
/// rounded down. In the last row and column of chroma the top left one counts three times its one
/// neighbour. In long rows, runs of 32 chroma samples look at the upper row of alpha alone to tell whether
/// all is transparent or all opaque; a run must end two chroma samples before the overlay's last one for
/// that.
KVFFMPEG_EXPORT void blend_image_yuva420(std::uint8_t* const destination[], const int destinationLinesizes[],
                                         int destinationWidth, int destinationHeight,
                                         const std::uint8_t* const overlay[], const int overlayLinesizes[],
                                         int overlayWidth, int overlayHeight, int x, int y) noexcept;

/// Four bytes a pixel over the same, alpha in the last byte: RGBA, and BGRA as well.
KVFFMPEG_EXPORT void blend_image_rgba(std::uint8_t* const destination[], const int destinationLinesizes[],
                                      int destinationWidth, int destinationHeight,
                                      const std::uint8_t* const overlay[], const int overlayLinesizes[],
                                      int overlayWidth, int overlayHeight, int x, int y) noexcept;

/// Four bytes a pixel over the same, alpha in the first byte: ARGB, and ABGR as well.
KVFFMPEG_EXPORT void blend_image_argb(std::uint8_t* const destination[], const int destinationLinesizes[],
                                      int destinationWidth, int destinationHeight,
                                      const std::uint8_t* const overlay[], const int overlayLinesizes[],
                                      int overlayWidth, int overlayHeight, int x, int y) noexcept;

}  // namespace kvffmpeg
