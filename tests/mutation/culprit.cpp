#include "culprit.h"

#include <algorithm>
#include <initializer_list>
#include <sstream>

namespace kvffmpeg::mutation {
namespace {

bool holdsAny(const std::string& text, std::initializer_list<const char*> parts) {
    return std::any_of(parts.begin(), parts.end(),
                       [&](const char* part) { return text.find(part) != std::string::npos; });
}

bool isFrame(const std::string& line) {
    const std::size_t first = line.find_first_not_of(' ');
    if (first == std::string::npos) return false;
    // "    #0 0x7f in name (object+0x1)", and "object(name+0x1)[0x7f]".
    return line[first] == '#' || (line.back() == ']' && line.find('(') != std::string::npos);
}

bool ofARuntime(const std::string& frame) {
    return holdsAny(
        frame, {"libasan", "libubsan", "liblsan", "libtsan", "libclang_rt", "libsanitizer", "__interceptor_",
                "/libc.so", "/libc-", "/libm.so", "/libpthread", "/ld-linux", "/ld-", "linux-vdso",
                "libstdc++", "libgcc_s", "/sysdeps/", "/include/c++/", "unknown module"});
}

}  // namespace

Culprit culpritOf(const std::string& report) {
    std::istringstream lines(report);
    bool inStack = false;
    for (std::string line; std::getline(lines, line);) {
        if (!isFrame(line)) {
            // Of several stacks the first tells where it happened, the others where memory came from.
            if (inStack) break;
            continue;
        }
        inStack = true;
        if (ofARuntime(line)) continue;
        if (holdsAny(line, {"kvffmpeg", ".cpp:"})) return Culprit::library;
        if (line.find(".so") != std::string::npos) return Culprit::ffmpeg;
    }
    return Culprit::unknown;
}

const char* nameOf(Culprit culprit) noexcept {
    switch (culprit) {
        case Culprit::library:
            return "this library";
        case Culprit::ffmpeg:
            return "FFmpeg";
        case Culprit::unknown:
            break;
    }
    return "unknown";
}

}  // namespace kvffmpeg::mutation
