#include "kvffmpeg/logging.h"

#include "logger/logger.h"

extern "C" {
#include <libavutil/log.h>
}

void ffmpeg_enable_logging() noexcept {
    av_log_set_callback(ffmpeg_log_callback);
}

void ffmpeg_log_callback(void* /*avcl*/, int level, const char* format, va_list args) noexcept {
    struct Pair {
        int ffmpeg;
        int logger;
    };
    static constexpr Pair levels[] = {{AV_LOG_PANIC, 1},   {AV_LOG_FATAL, 1}, {AV_LOG_ERROR, 1},
                                      {AV_LOG_WARNING, 2}, {AV_LOG_INFO, 4},  {AV_LOG_VERBOSE, 5},
                                      {AV_LOG_DEBUG, 5}};
    int mapped = 5;
    for (const Pair& pair : levels) {
        if (pair.ffmpeg == level) mapped = pair.logger;
    }
    try {
        logger::vprint(static_cast<logger::Level>(mapped), format, args);
    } catch (...) {
        // The caller is C code.
    }
}
