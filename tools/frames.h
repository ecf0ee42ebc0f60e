#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "drawing.h"
#include "input.h"
#include "kvffmpeg/geometry.h"
#include "kvffmpeg/timestamp.h"

namespace kvffmpeg::tool {

struct FramesOptions {
    InputOptions input;
    std::string output;  ///< See `FilePattern`; `standardStream` is a stream on standard output.
    Timestamp start;     ///< Behind the start of the input, in microseconds. Nil: from the first picture on.
    std::uint64_t count = std::numeric_limits<std::uint64_t>::max();
    std::string filter;               ///< A filter graph for the pictures, before they are scaled.
    DrawingOptions drawing;           ///< What is drawn onto the pictures after they are scaled.
    std::optional<rect_size_t> size;  ///< A side of -1 follows from the other one.
    std::string algorithm = "lanczos";
    std::optional<unsigned int> track;
};

/// Decodes a video track and saves its pictures. Says on std::cout which files were written,
/// unless the pictures go there.
/// @throws std::runtime_error also when there was no picture to write.
void saveFrames(const FramesOptions& options);

}  // namespace kvffmpeg::tool
