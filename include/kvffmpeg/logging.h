#pragma once

#include <cstdarg>

#include "kvffmpeg/export.h"

/// \file
/// The bridge from FFmpeg's log to `logger`. Nothing in the library installs it by itself.

/// Sends everything that FFmpeg logs, from now on and for the whole process, to `logger`:
/// `ffmpeg_log_callback` becomes FFmpeg's callback. May be called again. FFmpeg's own log level no longer
/// counts; the logger has its threshold.
KVFFMPEG_EXPORT void ffmpeg_enable_logging() noexcept;

/// Hands a message of FFmpeg to `logger::vprint`, format and arguments unchanged: no context is added, lines
/// are not joined, and a newline at the end stays. AV_LOG_PANIC, FATAL and ERROR become level 1, WARNING 2,
/// INFO 4, and any other value 5, those between the named levels included. From any thread; no exception
/// leaves it.
KVFFMPEG_EXPORT void ffmpeg_log_callback(void* avcl, int level, const char* format, va_list args) noexcept
    __attribute__((format(printf, 3, 0)));
