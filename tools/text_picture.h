#pragma once

#include <string>

#include "kvffmpeg/picture.h"
#include "text_style.h"

namespace kvffmpeg::tool {

/// A picture of a text in UTF-8, as large as the text and its padding: rgb24 with an opaque background, else
/// rgba, transparent where no text is. Empty when there is nothing to see in the text.
/// @throws std::runtime_error when it would become too large, and for a font that cannot be used.
Picture renderText(const std::string& text, TextStyle style);

}  // namespace kvffmpeg::tool
