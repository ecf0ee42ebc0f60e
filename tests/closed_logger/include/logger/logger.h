#pragma once

// Plays a closed logging library: what the library needs of one, with other names for the levels, other
// members, and none of the stand-in's extras.

#include <cstdarg>
#include <sstream>

namespace logger {

enum class Level { fault = 1, caution = 2, notice = 4, trace = 5 };

class __attribute__((visibility("default"))) MessageOstream {
public:
    explicit MessageOstream(Level level);
    MessageOstream(MessageOstream&& other) noexcept;
    ~MessageOstream();

    template <typename T>
    MessageOstream& operator<<(const T& value) {
        if (enabled_) text_ << value;
        return *this;
    }

private:
    bool enabled_ = true;
    Level level_;
    std::ostringstream text_;
};

MessageOstream log(Level level);
void error(const char* format, ...);
void warning(const char* format, ...);
void vprint(Level level, const char* format, va_list args);

}  // namespace logger
