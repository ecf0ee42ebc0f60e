#pragma once

#include <string>

namespace kvffmpeg::tool {

/// The file of a font for plain text, from the folders where the XDG Base Directory Specification has data:
/// one of those that are usual for it, otherwise one whose name says that it is upright and not bold,
/// otherwise any.
/// @throws std::runtime_error when there is none.
std::string defaultFont();

}  // namespace kvffmpeg::tool
