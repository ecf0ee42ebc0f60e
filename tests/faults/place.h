#pragma once

#include <string>

#include "shim.h"

namespace kvffmpeg::faults {

/// Where in the code something happened, from a list of return addresses of this process or a fork of it.
struct Place {
    bool known = true;      ///< False: no frame told anything, and it counts as ours.
    bool ours = false;      ///< The innermost frame outside the C and C++ libraries and the shim is ours.
    std::string innermost;  ///< That frame: "libavutil.so.57+0x1234 (av_frame_ref+0x20)".
    std::string entry;      ///< FFmpeg's or FreeType's function that we called, and our function.

    std::string text() const { return entry.empty() ? innermost : innermost + ", " + entry; }
};

/// With `skipAllocators` av_malloc and the like do not count as the innermost frame.
Place placeOf(const Backtrace& backtrace, bool skipAllocators);

/// All frames, one a line.
std::string describe(const Backtrace& backtrace);

}  // namespace kvffmpeg::faults
