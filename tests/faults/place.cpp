#include "place.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace kvffmpeg::faults {
namespace {

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

/// The base of a library's place in memory and its file name without folder.
struct Frame {
    std::string library;
    std::string
        symbol;  ///< The nearest exported one before the address; in FFmpeg often not the function's own.
    std::uintptr_t offset = 0;
    std::uintptr_t symbolOffset = 0;

    std::string text() const {
        std::array<char, 32> number{};
        std::snprintf(number.data(), number.size(), "+0x%lx", static_cast<unsigned long>(offset));
        std::string result = library + number.data();
        if (symbol.empty()) return result;
        std::snprintf(number.data(), number.size(), "+0x%lx)", static_cast<unsigned long>(symbolOffset));
        return result + " (" + symbol + number.data();
    }
};

std::string demangled(const char* name) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                                      std::free);
    return status == 0 && text ? text.get() : name;
}

Frame frameAt(void* address) {
    Frame frame;
    Dl_info info{};
    // A return address is that of the next instruction, which may be in the next function.
    const auto number = reinterpret_cast<std::uintptr_t>(address) - 1;
    if (dladdr(reinterpret_cast<void*>(number), &info) == 0 || !info.dli_fname) {
        frame.library = "?";
        frame.offset = number;
        return frame;
    }
    const std::string path = info.dli_fname;
    frame.library = path.substr(path.rfind('/') + 1);
    frame.offset = number - reinterpret_cast<std::uintptr_t>(info.dli_fbase);
    if (info.dli_sname) {
        frame.symbol = demangled(info.dli_sname);
        frame.symbolOffset = number - reinterpret_cast<std::uintptr_t>(info.dli_saddr);
    }
    return frame;
}

bool isRuntime(const Frame& frame) {
    static const std::array<const char*, 8> prefixes = {
        "libc.", "libc-",      "libstdc++.", "libgcc_s.",
        "libm.", "libpthread", "ld-linux",   "libkvffmpeg_fault_shim"};
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](const char* prefix) { return startsWith(frame.library, prefix); }) ||
           frame.library == "linux-vdso.so.1" || frame.library == "?";  // "?": where a bad pointer led
}

bool isOurs(const Frame& frame) {
    return startsWith(frame.library, "libkvffmpeg.") || startsWith(frame.library, "liblog.") ||
           startsWith(frame.library, "kvffmpeg_");
}

bool isAllocator(const Frame& frame) {
    static const std::array<const char*, 10> prefixes = {
        "av_malloc", "av_calloc",      "av_realloc",      "av_strdup",      "av_strndup",
        "av_memdup", "av_fast_malloc", "av_fast_realloc", "av_fast_padded", "av_dynarray"};
    return startsWith(frame.library, "libavutil.") &&
           std::any_of(prefixes.begin(), prefixes.end(),
                       [&](const char* prefix) { return startsWith(frame.symbol, prefix); });
}

}  // namespace

Place placeOf(const Backtrace& backtrace, bool skipAllocators) {
    Place place;
    Frame previous;
    for (int i = 0; i < backtrace.count; ++i) {
        const Frame frame = frameAt(backtrace.frames[static_cast<std::size_t>(i)]);
        if (isRuntime(frame)) continue;
        if (place.innermost.empty()) {
            if (skipAllocators && isAllocator(frame)) {
                previous = frame;
                continue;
            }
            place.ours = isOurs(frame);
            place.innermost = frame.text();
            if (place.ours) return place;
        }
        if (isOurs(frame)) {
            place.entry = "below " + (previous.symbol.empty() ? previous.text() : previous.symbol) +
                          " called by " + frame.text();
            return place;
        }
        previous = frame;
    }
    if (place.innermost.empty()) {
        place.ours = previous.library.empty();  // where nothing is known, nobody else is blamed
        place.known = !place.ours;
        place.innermost = place.ours ? "an unknown place" : previous.text();
    }
    return place;
}

std::string describe(const Backtrace& backtrace) {
    std::string text;
    for (int i = 0; i < backtrace.count; ++i) {
        text += "    " + frameAt(backtrace.frames[static_cast<std::size_t>(i)]).text() + "\n";
    }
    return text;
}

}  // namespace kvffmpeg::faults
