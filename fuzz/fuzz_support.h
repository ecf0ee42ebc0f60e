#pragma once

// What the fuzz targets share. A target is a source with one LLVMFuzzerTestOneInput, which libFuzzer calls,
// and which the replay of the corpus calls under a name of the target's own.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include "kvffmpeg/kvffmpeg.h"
#include "logger/logger.h"

extern "C" {
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace kvffmpeg::fuzz {

/// FFmpeg gives up on blocks beyond this, so that what a header promises does not count as a find of ours.
constexpr std::size_t largestFFmpegBlock = std::size_t{32} << 20;

/// Silence, and a limit to FFmpeg's memory. For a static constant of each target.
inline bool prepare() {
    av_log_set_level(AV_LOG_QUIET);
    av_max_alloc(largestFFmpegBlock);
    logger::setSink([](logger::Level, const std::string&) {});
    return true;
}

/// Ends the process, which is how a find is told.
#define KVFFMPEG_FUZZ_REQUIRE(condition)                                                        \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                       \
        }                                                                                       \
    } while (false)

/// Runs what may throw what the library promises to throw. Anything else ends the process.
/// @returns whether nothing was thrown.
template <typename Call>
bool mayThrow(const Call& call) {
    try {
        call();
        return true;
    } catch (const std::runtime_error&) {  // std::range_error for text among them
    } catch (const std::out_of_range&) {
    } catch (const std::bad_alloc&) {
    }
    return false;
}

/// What decodePacket gives, from which nothing but std::bad_alloc may come: noexcept, so that a caller's
/// `mayThrow` cannot take the rest for its own.
inline Frame decode(FormatContext& input, const std::shared_ptr<Packet>& packet) noexcept {
    try {
        return input.decodePacket(packet);
    } catch (const std::bad_alloc&) {
        return Frame();
    }
}

/// The input as a file in memory: as fast as a data: URL and twice as fast as a pipe, but with seeking,
/// and FreeType opens it as well.
class MemoryFile {
public:
    MemoryFile(const std::uint8_t* data, std::size_t size) : descriptor_(memfd_create("fuzz", MFD_CLOEXEC)) {
        KVFFMPEG_FUZZ_REQUIRE(descriptor_ >= 0);
        for (std::size_t done = 0; done < size;) {
            const ssize_t written = ::write(descriptor_, data + done, size - done);
            KVFFMPEG_FUZZ_REQUIRE(written > 0);
            done += static_cast<std::size_t>(written);
        }
        path_ = "/proc/self/fd/" + std::to_string(descriptor_);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile() { ::close(descriptor_); }

    const std::string& path() const { return path_; }

private:
    int descriptor_;
    std::string path_;
};

/// Takes numbers and texts from the input, zeros when it is used up.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : next_(data), end_(data + size) {}

    std::size_t left() const { return static_cast<std::size_t>(end_ - next_); }
    const std::uint8_t* rest() const { return next_; }

    std::uint8_t byte() { return next_ == end_ ? std::uint8_t{0} : *next_++; }
    /// Of `bytes` bytes, the most significant one first.
    std::uint64_t number(int bytes) {
        std::uint64_t value = 0;
        for (int i = 0; i < bytes; ++i) value = value << 8 | byte();
        return value;
    }
    std::int64_t signed64() { return static_cast<std::int64_t>(number(8)); }
    std::int32_t signed32() { return static_cast<std::int32_t>(number(4)); }
    std::string text(std::size_t length) {
        const std::size_t taken = std::min(length, left());
        std::string result(next_, next_ + taken);
        next_ += taken;
        return result;
    }
    /// The last byte, which so stays apart from what a file format has at the front.
    std::uint8_t lastByte() { return next_ == end_ ? std::uint8_t{0} : *--end_; }
    std::string lastText(std::size_t length) {
        const std::size_t taken = std::min(length, left());
        end_ -= taken;
        return std::string(end_, end_ + taken);
    }

private:
    const std::uint8_t* next_;
    const std::uint8_t* end_;
};

}  // namespace kvffmpeg::fuzz
