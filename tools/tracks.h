#pragma once

#include <optional>
#include <string>

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

/// Moves to a key frame from which the picture of a video track at `target` can be decoded. False when the
/// input does not support that, after which it is read from its beginning.
bool seekBefore(Input& input, unsigned int track, Timestamp target);

/// The next frame of the track; an empty one at the end. @throws Interrupted; std::runtime_error.
Frame nextFrame(Input& input, unsigned int track);

/// False when the frame came without a time.
bool hasTime(const Frame& frame);
/// What of the time from `from`, behind the start of the input, to its end lies before the frame, 0 to 1;
/// nothing when that is not known.
std::optional<double> shareBefore(const Input& input, const Frame& frame, Timestamp from = Timestamp(0));
/// The frame's time from the start of the input on, "00:00:01.500"; `unknown` when it has none.
std::string positionText(const Input& input, const Frame& frame, const std::string& unknown = "");

}  // namespace kvffmpeg::tool
