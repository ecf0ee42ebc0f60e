#pragma once

#include <optional>

#include "input.h"
#include "kvffmpeg/frame.h"

extern "C" {
#include <libavutil/avutil.h>
}

namespace kvffmpeg::tool {

/// The wanted track; without one the first track of this type, covers of audio files last.
/// @throws UsageError when the wanted one is of another type; std::runtime_error when there is none.
unsigned int chooseTrack(const Input& input, AVMediaType type, const std::optional<unsigned int>& wanted);

/// Asks the demuxer for nothing but this track.
void discardOthers(FormatContext& context, unsigned int track);

/// The next frame of the track; an empty one at the end. @throws Interrupted; std::runtime_error.
Frame nextFrame(Input& input, unsigned int track);

}  // namespace kvffmpeg::tool
