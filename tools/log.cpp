#include "log.h"

#include <cstdarg>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "console.h"
#include "kvffmpeg/logging.h"
#include "logger/logger.h"

extern "C" {
#include <libavutil/log.h>
}

namespace kvffmpeg::tool {
namespace {

const char* kindOf(logger::Level level) {
    if (level <= logger::Level::error) return "error: ";
    return level <= logger::Level::warning ? "warning: " : "";
}

/// Joins what one thread of FFmpeg's logs in pieces to the lines that it means.
class LineOfPieces {
public:
    LineOfPieces() = default;
    ~LineOfPieces() { end(); }
    LineOfPieces(const LineOfPieces&) = delete;
    LineOfPieces& operator=(const LineOfPieces&) = delete;

    void add(logger::Level level, std::string_view piece) {
        while (!piece.empty()) {
            const std::size_t length = piece.find('\n');
            if (text_.empty()) level_ = level;
            text_ += piece.substr(0, length);
            if (length == std::string_view::npos && text_.size() < longestLine) return;
            end();
            piece.remove_prefix(length == std::string_view::npos ? piece.size() : length + 1);
        }
    }

    void end() noexcept {
        try {
            if (!text_.empty()) report(std::string("FFmpeg: ") + kindOf(level_) + text_);
        } catch (...) {
            // A line of the log is not worth more.
        }
        text_.clear();
    }

private:
    static constexpr std::size_t longestLine = 8192;  // so that pieces without an end do not pile up

    logger::Level level_ = logger::Level::debug;
    std::string text_;
};

thread_local LineOfPieces lineOfPieces;
thread_local bool isFromFFmpeg = false;

/// The library's bridge, with a note of where the message comes from: the library's own messages are whole
/// and have no line end, so that a piece of a line looks just like one of them.
extern "C" void onFFmpegMessage(void* context, int level, const char* format, va_list arguments) {
    isFromFFmpeg = true;
    ffmpeg_log_callback(context, level, format, arguments);
    isFromFFmpeg = false;
}

void writeMessage(logger::Level level, const std::string& text) {
    if (isFromFFmpeg) {
        lineOfPieces.add(level, text);
    } else {
        report(std::string("kvffmpeg: ") + kindOf(level) + text);
    }
}

/// Messages that are not worth a line each: a damaged file has one for every packet.
class Gathered {
public:
    void add(const std::string& text) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (count_++ == 0) first_ = text;
    }

    std::string take() {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::string text = std::move(first_);
        if (count_ > 1) text += " (and " + std::to_string(count_ - 1) + " more; -v shows them)";
        first_.clear();
        count_ = 0;
        return text;
    }

private:
    std::mutex mutex_;
    std::string first_;
    std::size_t count_ = 0;
};

Gathered& gathered() {
    static Gathered messages;
    return messages;
}

}  // namespace

std::string takeGathered() {
    return gathered().take();
}

void setUpLogging(Verbosity verbosity) {
    logger::setSink(writeMessage);
    switch (verbosity) {
        case Verbosity::quiet:
            logger::setThreshold(static_cast<logger::Level>(0));  // above which there is no level
            av_log_set_level(AV_LOG_QUIET);
            hideProgress();
            return;
        case Verbosity::normal:
            // What FFmpeg calls errors are its reasons for what is reported in one line here.
            av_log_set_level(AV_LOG_FATAL);
            logger::setSink([](logger::Level /*level*/, const std::string& text) { gathered().add(text); });
            return;
        case Verbosity::verbose:
            logger::setThreshold(logger::Level::info);
            av_log_set_level(AV_LOG_INFO);  // some messages FFmpeg only makes when it is asked for them
            break;
        case Verbosity::debug:
            logger::setThreshold(logger::Level::debug);
            av_log_set_level(AV_LOG_DEBUG);
            break;
    }
    av_log_set_callback(onFFmpegMessage);
}

void endLogLine() {
    lineOfPieces.end();
}

}  // namespace kvffmpeg::tool
