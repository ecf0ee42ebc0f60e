#include "logger/logger.h"

#include <cstdio>
#include <utility>

namespace logger {

MessageOstream::MessageOstream(Level level) : level_(level) {}

MessageOstream::MessageOstream(MessageOstream&& other) noexcept
    : enabled_(std::exchange(other.enabled_, false)), level_(other.level_), text_(std::move(other.text_)) {}

MessageOstream::~MessageOstream() {
    if (enabled_) {
        std::fprintf(stderr, "closed logger, level %d: %s\n", static_cast<int>(level_), text_.str().c_str());
    }
}

MessageOstream log(Level level) {
    return MessageOstream(level);
}

void vprint(Level level, const char* format, va_list args) {
    std::fprintf(stderr, "closed logger, level %d: ", static_cast<int>(level));
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
}

void error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vprint(Level::fault, format, args);
    va_end(args);
}

void warning(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vprint(Level::caution, format, args);
    va_end(args);
}

}  // namespace logger
