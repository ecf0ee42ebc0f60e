#pragma once

#include <optional>

#include "input.h"
#include "kvffmpeg/geometry.h"
#include "picture_file.h"

namespace kvffmpeg::tool {

struct WaveformOptions {
    InputOptions input;
    PictureOutputOptions output;
    rect_size_t size{1280, 240};
    unsigned int rate = 8000;  ///< Of the samples that are drawn, in Hz.
    std::optional<unsigned int> track;
};

/// Decodes an audio track, and saves a picture of it. Says on std::cout what was written,
/// unless the picture goes there.
/// @throws std::runtime_error also when there was no sound to draw.
void saveWaveform(const WaveformOptions& options);

}  // namespace kvffmpeg::tool
