#pragma once

/// \file
/// An open stand-in for the closed `logger` library. What that library offers has the same names here;
/// `setThreshold` and `setSink` are extras of the stand-in. Every function may be called from any thread, and
/// none throws.

#include <cstdarg>
#include <functional>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

#define LOGGER_EXPORT __attribute__((visibility("default")))
#define LOGGER_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))

namespace logger {

/// The lower, the more urgent.
enum class Level : int { error = 1, warning = 2, info = 4, debug = 5 };

/// A message under construction: what is inserted is collected, and the message is delivered when the object
/// is destroyed. Inserting into a message that is not enabled (its level is above the threshold) does
/// nothing. Movable; what was moved from delivers nothing.
class LOGGER_EXPORT MessageOstream {
public:
    MessageOstream(Level level, bool enabled) noexcept;
    MessageOstream(MessageOstream&& other) noexcept;
    /// Delivers the message held so far, and goes on with `other`'s.
    MessageOstream& operator=(MessageOstream&& other) noexcept;
    MessageOstream(const MessageOstream&) = delete;
    MessageOstream& operator=(const MessageOstream&) = delete;
    ~MessageOstream();

    template <typename T>
    MessageOstream& operator<<(const T& value) {
        if (enabled_ && stream_) *stream_ << value;
        return *this;
    }
    /// Stream manipulators such as std::endl.
    MessageOstream& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
        if (enabled_ && stream_) *stream_ << manipulator;
        return *this;
    }

private:
    void deliver() noexcept;

    Level level_;
    bool enabled_;
    std::unique_ptr<std::ostringstream> stream_;
};

/// A message of `level`, to be inserted into. Numbers are written in the classic locale.
LOGGER_EXPORT MessageOstream log(Level level) noexcept;
/// One message of level 1, formatted as by printf.
LOGGER_EXPORT void error(const char* format, ...) noexcept LOGGER_PRINTF(1, 2);
/// One message of level 2, formatted as by printf.
LOGGER_EXPORT void warning(const char* format, ...) noexcept LOGGER_PRINTF(1, 2);
/// One message of `level`, formatted as by vprintf.
LOGGER_EXPORT void vprint(Level level, const char* format, va_list args) noexcept LOGGER_PRINTF(2, 0);

/// Messages of levels above `threshold` are dropped. 2 (errors and warnings pass) unless set.
LOGGER_EXPORT void setThreshold(Level threshold) noexcept;

/// Where messages go: called on the thread that logs, with no lock held, so a sink may itself log or set
/// another sink. Calls may overlap, and a message on its way may still reach the sink that was just replaced.
/// Exceptions that leave a sink are dropped.
using Sink = std::function<void(Level, const std::string&)>;
/// Replaces the sink. An empty one restores the default: a line on stderr, without the message's own line
/// end.
LOGGER_EXPORT void setSink(Sink sink) noexcept;

}  // namespace logger
