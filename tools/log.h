#pragma once

namespace kvffmpeg::tool {

/// How much is told on stderr besides the tool's own errors.
enum class Verbosity {
    quiet,    ///< Nothing, and no progress line.
    normal,   ///< The library's errors and warnings.
    verbose,  ///< What FFmpeg tells, too.
    debug,    ///< Everything.
};

void setUpLogging(Verbosity verbosity);

/// Writes out a line that FFmpeg has begun on this thread and not ended. Call before a last line.
void endLogLine();

}  // namespace kvffmpeg::tool
