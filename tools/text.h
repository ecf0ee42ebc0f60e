#pragma once

#include <string>

#include "picture_file.h"
#include "text_style.h"

namespace kvffmpeg::tool {

struct TextOptions {
    std::string text;
    PictureOutputOptions output;
    std::string rasterFont;  ///< A picture of glyphs; empty: the font of `style`.
    TextStyleOptions style;
};

/// Saves a picture of a text. Says on std::cout what was written, unless the picture goes there.
/// @throws std::runtime_error also when there is nothing to see in the text.
void saveText(const TextOptions& options);

}  // namespace kvffmpeg::tool
