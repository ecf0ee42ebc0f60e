#pragma once

#include <string>

#include "kvffmpeg/geometry.h"
#include "kvffmpeg/picture.h"
#include "kvffmpeg/scaler.h"

namespace kvffmpeg::tool {

/// Gives the scaler its algorithm, whose name comes from the command line. @throws UsageError.
void setAlgorithm(Scaler& scaler, const std::string& name);

/// The picture in the wanted size, a side of -1 of which follows from the other one.
/// @throws std::runtime_error when it would become too large, or cannot be scaled.
Picture scaled(Scaler& scaler, const Picture& picture, rect_size_t wanted);

}  // namespace kvffmpeg::tool
