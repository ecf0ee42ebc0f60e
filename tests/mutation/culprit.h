#pragma once

#include <string>

namespace kvffmpeg::mutation {

/// Whose code the innermost frame of a stack is, those of the C and C++ runtimes and of the sanitizers left
/// out.
enum class Culprit { library, ffmpeg, unknown };

/// Reads the first stack in a text: of a sanitizer's report, or as backtrace_symbols_fd() writes them. Shared
/// objects other than this project's count as FFmpeg's, as they are its or those of codecs that it calls.
Culprit culpritOf(const std::string& report);
const char* nameOf(Culprit culprit) noexcept;

}  // namespace kvffmpeg::mutation
