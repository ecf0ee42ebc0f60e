#pragma once

#include <iosfwd>

#include "description.h"

namespace kvffmpeg::tool {

/// Writes a description for people, a fact a line. Nothing in it steers a terminal.
void writeText(std::ostream& out, const Json& description);

}  // namespace kvffmpeg::tool
