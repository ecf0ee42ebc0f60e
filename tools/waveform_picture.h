#pragma once

#include "kvffmpeg/picture.h"
#include "peaks.h"

namespace kvffmpeg::tool {

/// Draws the sound over all of an editable RGB24 picture: for every column the range of its samples, full
/// scale from the bottom to the top, red at the edges where samples are clipped. The peaks are not without
/// samples.
void drawPeaks(Picture& picture, const Peaks& peaks);

}  // namespace kvffmpeg::tool
