#include "culprit.h"

#include <gmock/gmock.h>

namespace kvffmpeg {
namespace {

using mutation::Culprit;
using mutation::culpritOf;

TEST(CulpritTest, IsFFmpegForAStackThatBeginsInItsLibraries) {
    EXPECT_EQ(culpritOf("/lib/x86_64-linux-gnu/libavcodec.so.59(+0x2c0f1e)[0x7f01]\n"
                        "./libkvffmpeg.so.0(_ZN8kvffmpeg13FormatContext10readPacketEv+0x1d)[0x7f02]\n"),
              Culprit::ffmpeg);
}

TEST(CulpritTest, IsFFmpegForACodecThatItCalls) {
    EXPECT_EQ(culpritOf("/lib/x86_64-linux-gnu/libopenjp2.so.7(+0x11)[0x7f01]\n"), Culprit::ffmpeg);
}

TEST(CulpritTest, IsTheLibraryForAStackThatBeginsInIt) {
    EXPECT_EQ(culpritOf("./libkvffmpeg.so.0(_ZN8kvffmpeg7PictureC1EPK7AVFrame+0x1d)[0x7f02]\n"
                        "/lib/x86_64-linux-gnu/libavcodec.so.59(+0x2c0f1e)[0x7f01]\n"),
              Culprit::library);
}

TEST(CulpritTest, LeavesOutFramesOfTheRuntimes) {
    EXPECT_EQ(culpritOf("/lib/x86_64-linux-gnu/libc.so.6(abort+0xdf)[0x7f00]\n"
                        "/lib/x86_64-linux-gnu/libstdc++.so.6(+0x9e)[0x7f00]\n"
                        "./libkvffmpeg.so.0(+0x1d)[0x7f02]\n"
                        "/lib/x86_64-linux-gnu/libavformat.so.59(+0x2c0f1e)[0x7f01]\n"),
              Culprit::library);
}

TEST(CulpritTest, ReadsAReportOfTheAddressSanitizer) {
    EXPECT_EQ(
        culpritOf("==1==ERROR: AddressSanitizer: heap-buffer-overflow on address 0x60\n"
                  "READ of size 4 at 0x60 thread T0\n"
                  "    #0 0x7f in __interceptor_memcpy ../../src/libsanitizer/sanitizer_common/x.inc:827\n"
                  "    #1 0x55 in kvffmpeg::Picture::fill(unsigned char const*) src/picture.cpp:90\n"
                  "    #2 0x7f in avcodec_send_packet (/lib/libavcodec.so.59+0x1)\n"),
        Culprit::library);
    EXPECT_EQ(culpritOf("==1==ERROR: AddressSanitizer: SEGV on unknown address\n"
                        "    #0 0x7f  (/lib/x86_64-linux-gnu/libavformat.so.59+0x1)\n"
                        "    #1 0x55 in kvffmpeg::FormatContext::readPacket() src/format_context.cpp:90\n"),
              Culprit::ffmpeg);
}

TEST(CulpritTest, IsWhoseFrameIsInnermostAndNotWhoAllocated) {
    EXPECT_EQ(culpritOf("    #0 0x7f  (/lib/x86_64-linux-gnu/libavformat.so.59+0x1)\n"
                        "0x60 is located 0 bytes inside of a region allocated by thread T0 here:\n"
                        "    #0 0x55 in kvffmpeg::MemBuffer::resize(unsigned long) src/memory.cpp:30\n"),
              Culprit::ffmpeg);
}

TEST(CulpritTest, IsUnknownWithoutAStack) {
    EXPECT_EQ(culpritOf(""), Culprit::unknown);
    EXPECT_EQ(culpritOf("killed [by somebody]\n"), Culprit::unknown);
}

}  // namespace
}  // namespace kvffmpeg
