#pragma once

#include <string>

#include "kvffmpeg/geometry.h"
#include "kvffmpeg/timestamp.h"

namespace kvffmpeg::tool {

/// The longest side that a picture can be asked to have.
constexpr int longestSide = 65535;

/// "12.5" (seconds) or "[HH:]MM:SS[.mmm]", in microseconds; digits beyond those are dropped.
/// @throws UsageError for anything else.
Timestamp parseTime(const std::string& text);

/// "640x360", "640x-1" or "-1x360"; a side of -1 follows from the other one.
/// @throws UsageError for anything else.
rect_size_t parseSize(const std::string& text);

/// "1280x240", both sides given. @throws UsageError for anything else.
rect_size_t parseExactSize(const std::string& text);

/// A whole number from `least` to `most`, which is 999999999 at most: the value of `option`.
/// @throws UsageError for anything else.
unsigned int parseNumber(const std::string& option, const std::string& text, unsigned int least,
                         unsigned int most = 999999999);

}  // namespace kvffmpeg::tool
