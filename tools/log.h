#pragma once

#include <string>

namespace kvffmpeg::tool {

/// How much is told on stderr besides the tool's own errors.
enum class Verbosity {
    quiet,    ///< Nothing, and no progress line.
    normal,   ///< The library's errors and warnings, gathered: the first and how many more.
    verbose,  ///< What FFmpeg tells, too.
    debug,    ///< Everything.
};

void setUpLogging(Verbosity verbosity);

/// What the library has told since the last call and was not written yet: "Could not ... (and 3 more; -v
/// shows them)". Empty when there is nothing.
std::string takeGathered();

/// Writes out a line that FFmpeg has begun on this thread and not ended. Call before a last line.
void endLogLine();

}  // namespace kvffmpeg::tool
