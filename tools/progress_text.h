#pragma once

#include <optional>
#include <string>

namespace kvffmpeg::tool {

/// How far a piece of work has come.
struct ProgressState {
    std::string what;             ///< "12 pictures, 00:00:01.200".
    double done = 0;              ///< In units.
    std::string unit;             ///< Behind a number of units a second: " pictures/s".
    double elapsed = 0;           ///< In seconds.
    std::optional<double> share;  ///< What of all the work is done, 0 to 1; nothing when that is not known.
};

/// "12 pictures, 00:00:01.200, 8.5 pictures/s, 1:02:03 left". The rate comes when there was time to measure
/// it, the time left when it is known what share is done.
std::string progressText(const ProgressState& state);

}  // namespace kvffmpeg::tool
