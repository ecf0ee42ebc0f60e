#pragma once

#include <optional>
#include <string>

#include "input.h"
#include "kvffmpeg/geometry.h"
#include "picture_file.h"

namespace kvffmpeg::tool {

struct SheetOptions {
    InputOptions input;
    PictureOutputOptions output;
    rect_size_t grid{4, 4};
    int width = 1280;
    std::string font;  ///< Empty: `defaultFont()`.
    std::optional<unsigned int> track;
};

/// Saves a picture of evenly spaced pictures of a video track, each with its time. Says on std::cout what was
/// written, unless the picture goes there.
/// @throws std::runtime_error also when there was no picture to show.
void saveSheet(const SheetOptions& options);

}  // namespace kvffmpeg::tool
