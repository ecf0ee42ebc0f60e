#pragma once

#include <optional>
#include <string>

#include "drawing.h"
#include "input.h"
#include "picture_file.h"

namespace kvffmpeg::tool {

struct ComposeOptions {
    InputOptions background;  ///< Without a URL: a canvas of one colour.
    PictureOutputOptions output;
    std::optional<std::string> size;   ///< Of the canvas, or what the background is scaled to.
    std::optional<std::string> color;  ///< Of the canvas; transparent otherwise.
    std::string algorithm = "lanczos";
    DrawingOptions drawing;  ///< Without what is keyed.
};

/// Draws on a picture or a canvas, in rgba, and saves that. Says on std::cout what was written, unless the
/// picture goes there.
/// @throws UsageError also when neither a background nor a size is given; std::runtime_error.
void savePictureOfPictures(const ComposeOptions& options);

}  // namespace kvffmpeg::tool
