#pragma once

#include <string>

#include "kvffmpeg/filtering.h"
#include "kvffmpeg/frame.h"
#include "kvffmpeg/picture.h"

namespace kvffmpeg::tool {

/// A filter graph from the command line.
class PictureFilter {
public:
    /// With an empty specification pictures stay as they are.
    explicit PictureFilter(const std::string& specification);

    /// Gives the frame's picture to the graph, and takes one from it: empty when none came out.
    /// @throws std::runtime_error with the specification in its text; std::bad_alloc.
    Picture filter(Frame frame);

private:
    std::string specification_;
    FFmpegFilterWrapper graph_;
};

}  // namespace kvffmpeg::tool
