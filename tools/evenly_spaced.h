#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "input.h"
#include "kvffmpeg/frame.h"
#include "sheet_picture.h"

namespace kvffmpeg::tool {

/// Makes what is kept of a frame.
using CellMaker = std::function<SheetCell(const Frame&)>;

/// Up to `count` frames of a video track, evenly spaced and in their order; fewer only when the input has
/// fewer. They are found by seeking, each being what is shown in the middle of its share of the duration.
/// Where that does not give as many (the input cannot seek, its duration is not known or not true, or some
/// frames are shown for longer than a share), all of it is read, and they are evenly spaced by number. Call
/// it before anything was read.
/// @throws Interrupted; std::runtime_error; what `make` throws.
std::vector<SheetCell> evenlySpaced(Input& input, unsigned int track, std::size_t count,
                                    const CellMaker& make);

}  // namespace kvffmpeg::tool
