#pragma once

#include <cstdint>

#include "kvffmpeg/export.h"

/// \file
/// Alpha from the distance to a key colour, on planes.

namespace kvffmpeg {

/// Writes the alpha of a YUVA 4:2:0 picture from how far its chroma is from a key; each chroma sample decides
/// for the four pixels that it covers. With d = (U - key[0])^2 + (V - key[1])^2 and T = similarity^2 * 255^2,
/// rounded down:
/// - blend > 0: alpha is (d - T) / (blend * 255) in single precision, rounded toward zero, 0 ... 255;
/// - else, also for a blend that is not a number: alpha is 0 up to T and 255 beyond.
///
/// Planes 1 and 2 are read, plane 3 is written, plane 0 need not exist. `width` and `height` are in pixels;
/// where they are odd, the last column or row of alpha keeps its values. `key` points to two bytes, U and V.
/// Not checked: that the planes hold rows of these sizes, and that plane 3 shares no memory with the others;
/// nothing beyond the rows is touched. Linesizes may be negative. A similarity whose T
/// does not fit in an int counts as the nearest that does, one that is not a number as 0. The result is the
/// same on every CPU. Allocates nothing.
KVFFMPEG_EXPORT void chromakey_yuva420p(std::uint8_t* const planes[], const int linesizes[], int width,
                                        int height, const std::uint8_t* key, float similarity,
                                        float blend) noexcept;

}  // namespace kvffmpeg
