#include "logger/logger.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <cstdio>
#include <locale>
#include <mutex>
#include <utility>

namespace logger {
namespace {

/// Beside the rest, because to ask it must not need memory.
std::atomic<int> currentThreshold{static_cast<int>(Level::warning)};

/// What all messages share. Never destroyed, since objects with static storage may log when the process ends.
struct State {
    std::mutex mutex;  // guards `sink`, and is not held while that runs
    std::shared_ptr<const Sink> sink;
    const std::shared_ptr<spdlog::logger> standard = makeStandard();

    static std::shared_ptr<spdlog::logger> makeStandard() {
        auto created =
            std::make_shared<spdlog::logger>("kvffmpeg", std::make_shared<spdlog::sinks::stderr_sink_mt>());
        created->set_level(spdlog::level::trace);  // the threshold is applied before
        return created;
    }
};

State& state() {
    static State* const shared = new State;
    return *shared;
}

bool passes(Level level) {
    return static_cast<int>(level) <= currentThreshold.load(std::memory_order_relaxed);
}

spdlog::level::level_enum standardLevel(Level level) {
    if (level <= Level::error) return spdlog::level::err;
    if (level <= Level::warning) return spdlog::level::warn;
    return level <= Level::info ? spdlog::level::info : spdlog::level::debug;
}

void deliverTo(State& shared, Level level, const std::string& text) {
    std::shared_ptr<const Sink> sink;
    {
        const std::lock_guard<std::mutex> lock(shared.mutex);
        sink = shared.sink;
    }
    if (sink) {
        (*sink)(level, text);
        return;
    }
    spdlog::string_view_t line(text.data(), text.size());
    if (!text.empty() && text.back() == '\n') line = spdlog::string_view_t(text.data(), text.size() - 1);
    shared.standard->log(standardLevel(level), line);
}

void print(Level level, const char* format, va_list args) {
    if (!passes(level)) return;
    va_list measured;
    va_copy(measured, args);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (length < 0) return;
    std::string text(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    deliverTo(state(), level, text);
}

/// Logging is never worth an exception: callers are C code and destructors.
template <typename Action>
void guarded(Action action) noexcept {
    try {
        action();
    } catch (...) {
    }
}

}  // namespace

MessageOstream::MessageOstream(Level level, bool enabled) noexcept : level_(level), enabled_(enabled) {
    if (!enabled_) return;
    guarded([this] {
        stream_ = std::make_unique<std::ostringstream>();
        stream_->imbue(std::locale::classic());
    });
}

MessageOstream::MessageOstream(MessageOstream&& other) noexcept
    : level_(other.level_),
      enabled_(std::exchange(other.enabled_, false)),
      stream_(std::move(other.stream_)) {}

MessageOstream& MessageOstream::operator=(MessageOstream&& other) noexcept {
    if (this != &other) {
        deliver();
        level_ = other.level_;
        enabled_ = std::exchange(other.enabled_, false);
        stream_ = std::move(other.stream_);
    }
    return *this;
}

MessageOstream::~MessageOstream() {
    deliver();
}

void MessageOstream::deliver() noexcept {
    if (!enabled_ || !stream_) return;
    guarded([this] { deliverTo(state(), level_, stream_->str()); });
}

MessageOstream log(Level level) noexcept {
    return MessageOstream(level, passes(level));
}

void error(const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    guarded([&] { print(Level::error, format, args); });
    va_end(args);
}

void warning(const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    guarded([&] { print(Level::warning, format, args); });
    va_end(args);
}

void vprint(Level level, const char* format, va_list args) noexcept {
    guarded([&] { print(level, format, args); });
}

void setThreshold(Level threshold) noexcept {
    currentThreshold.store(static_cast<int>(threshold));
}

void setSink(Sink sink) noexcept {
    guarded([&] {
        std::shared_ptr<const Sink> replaced = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
        const std::lock_guard<std::mutex> lock(state().mutex);
        state().sink.swap(replaced);
    });
}

}  // namespace logger
