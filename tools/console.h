#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
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

/// The progress line of one piece of work that begins with its construction, with rate and time left.
class Progress {
public:
    /// `unit` stands behind a number of units a second: " pictures/s".
    explicit Progress(std::string unit);

    /// Replaces the progress line by `what` and what follows from it: `done` units, and the share of all work
    /// that they are, if that is known. Ask `progressIsDue()` first.
    void show(const std::string& what, double done, const std::optional<double>& share) const;

private:
    std::string unit_;
    std::chrono::steady_clock::time_point start_;
};

/// Gives /dev/null to those of stdin, stdout and stderr that are closed, so that no file that is opened later
/// takes their place. Writing to them fails, as it did.
void occupyStandardStreams();

/// Thrown to end the program when nobody reads its standard output any more; not an exception that anything
/// else catches.
struct BrokenPipe {};

/// @throws BrokenPipe, or std::runtime_error when what was written to std::cout did not get through
/// otherwise.
void flushOutput();

/// Writes bytes to standard output, past std::cout. @throws BrokenPipe; Interrupted; std::runtime_error.
void writeOutput(const void* bytes, std::size_t count);
/// @throws UsageError when standard output is a terminal, which is no place for pictures.
void requireNoTerminal();

}  // namespace kvffmpeg::tool
