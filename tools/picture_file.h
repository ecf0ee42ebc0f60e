#pragma once

#include <string>

namespace kvffmpeg::tool {

/// Only formats whose files are what the encoder makes, with no container around it, can be written. Call
/// when the library has been asked to open something: before that, old releases of FFmpeg know no format at
/// all.
/// @throws UsageError when the ending of `path` stands for none of them.
void requirePictureFormat(const std::string& path);

/// True when the ending of `path` stands for a format whose encoder keeps the alpha of rgba.
bool canHaveAlpha(const std::string& path);

/// @throws std::runtime_error when `path` is the file `name`, which is read: `what` it is, such as "the
/// input", is in the text.
void refuseToOverwrite(const std::string& path, const std::string& name, const std::string& what);

}  // namespace kvffmpeg::tool
