#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "image.h"

namespace drawing {

/// Something to measure, done to one of the frames. Empty for a peer that was not found when this program was
/// built.
using Work = std::function<void(std::size_t frame)>;

// Overlays are put onto the whole frame, in place.

/// YUVA 4:2:0 onto YUV 4:2:0.
Work libyuvI420Blend(const Frames& frames, const Image& overlay);
/// Premultiplied BGRA onto BGRA.
Work libyuvArgbBlend(const Frames& frames, const Image& overlay);
Work libyuvI420Rect(const Frames& frames, int y, int u, int v);

/// Premultiplied BGRA onto BGR0.
Work pixmanOver(const Frames& frames, const Image& overlay);
Work cairoOver(const Frames& frames, const Image& overlay);

/// The alpha of YUVA 4:2:0 from its chroma. `limit` is the squared distance that is still transparent,
/// `slope` what alpha gains from there with each unit of it; 0 for a hard key.
Work opencvChromakey(const Frames& frames, std::uint8_t u, std::uint8_t v, int limit, double slope);
/// Plane 0, in place.
Work opencvLut(const Frames& frames, const std::uint8_t (&table)[256]);

// The filter "overlay" onto YUV 4:2:0, on frames that are handed over by reference.

/// The overlay is given once, and every picture is drawn on in place, which the filter does only then.
Work libavfilterStillOverlay(const Frames& frames, const Image& overlay);
/// The overlay is given anew and converted with every picture. The filter draws on a copy of the picture.
Work libavfilterOverlay(const Frames& frames, const Image& overlay);

/// BGRA to YUV 4:2:0, between images that exist already.
Work swscaleConversion(const Image& destination, const Image& source);

}  // namespace drawing
