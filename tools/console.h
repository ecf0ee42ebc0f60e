#pragma once

#include <string>
#include <string_view>

#include "kvffmpeg/timestamp.h"

namespace kvffmpeg::tool {

/// `text` as it may be sent to a terminal: tabs and line ends become spaces; other control characters, and
/// bytes that are not UTF-8, become U+FFFD.
std::string printable(std::string_view text);

/// "01:02:03.500", rounded to milliseconds.
std::string clockText(Timestamp time);

/// Writes one line to stderr, in place of the progress line. `text` is made printable. From any thread.
void report(const std::string& text);

/// From here on there is no progress line.
void hideProgress();
/// True when stderr is a terminal and its progress line is due for renewal. Ask before making its text.
bool progressIsDue();
/// Replaces the progress line on the terminal.
void showProgress(const std::string& text);
void clearProgress();

/// Gives /dev/null to those of stdin, stdout and stderr that are closed, so that no file that is opened later
/// takes their place. Writing to them fails, as it did.
void occupyStandardStreams();

/// @throws std::runtime_error when what was written to std::cout did not get through.
void flushOutput();

}  // namespace kvffmpeg::tool
