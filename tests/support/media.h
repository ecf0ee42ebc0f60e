#pragma once

#include <cstdint>
#include <string>
#include <vector>

// FFmpeg's headers need no order and no extern "C" of their own behind this one.
#include "kvffmpeg/kvffmpeg.h"

namespace kvffmpeg::test {

/// Runs `ffmpeg -v error -y -nostdin <arguments>` through the shell. @throws std::runtime_error when it
/// fails.
void runFFmpeg(const std::string& arguments);
/// The same; returns what the command writes to its standard output.
std::vector<std::uint8_t> readFFmpeg(const std::string& arguments);

/// The command's option for the rate of its output, such as "-fps_mode vfr"; before FFmpeg 5.1 it had another
/// name.
std::string frameRateOption(const std::string& mode);
/// Whether the command has an encoder of this name.
bool commandEncodes(const std::string& encoder);
/// Whether the command is of the very release of FFmpeg that the tests run with: only then their results are
/// the same byte for byte.
bool commandIsOfThisRelease();

/// The path of a real media file; empty when KVFFMPEG_SAMPLE_MEDIA is not set.
std::string sampleMedia(const std::string& name);
/// The path of a file in examples/media.
std::string exampleMedia(const std::string& name);

/// All bytes of a file. @throws std::runtime_error.
std::vector<std::uint8_t> readFile(const std::string& path);
void writeFile(const std::string& path, const std::vector<std::uint8_t>& bytes);

/// A picture whose every buffer byte is pseudo-random, the same for the same arguments.
Picture randomPicture(rect_size_t size, AVPixelFormat format, AVColorRange range = AVCOL_RANGE_UNSPECIFIED,
                      int align = 1, unsigned seed = 1);

/// The visible bytes of a picture, plane after plane, rows without padding.
std::vector<std::uint8_t> visibleBytes(const Picture& picture);

}  // namespace kvffmpeg::test

/// Skips the test, saying so, where the command comes from another FFmpeg than the libraries.
#define KVFFMPEG_REQUIRE_COMMAND_OF_THIS_RELEASE()                                          \
    if (!kvffmpeg::test::commandIsOfThisRelease()) {                                        \
        GTEST_SKIP() << "the ffmpeg command is of another release than FFmpeg's libraries"; \
    }                                                                                       \
    static_assert(true, "")

/// Skips the test, saying so, where the command cannot make H.264.
#define KVFFMPEG_REQUIRE_X264()                                       \
    if (!kvffmpeg::test::commandEncodes("libx264")) {                 \
        GTEST_SKIP() << "the ffmpeg command has no encoder of H.264"; \
    }                                                                 \
    static_assert(true, "")

/// Skips the test, saying so, where no real media files are at hand.
#define KVFFMPEG_REQUIRE_SAMPLE_MEDIA()                                                  \
    if (kvffmpeg::test::sampleMedia("").empty()) {                                       \
        GTEST_SKIP() << "KVFFMPEG_SAMPLE_MEDIA is not set: no real media files to read"; \
    }                                                                                    \
    static_assert(true, "")
