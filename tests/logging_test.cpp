#include "kvffmpeg/logging.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kvffmpeg/format_context.h"
#include "support/log_capture.h"
#include "support/media.h"
#include "support/temporary_folder.h"

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/log.h>
}

namespace kvffmpeg {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

/// Gives FFmpeg its own callback and level back, whatever a test installs.
class LoggingTest : public testing::Test {
protected:
    ~LoggingTest() override {
        av_log_set_callback(av_log_default_callback);
        av_log_set_level(level_);
    }

    /// What FFmpeg does with its callback.
    static void call(void* avcl, int level, const char* format, ...) __attribute__((format(printf, 3, 4))) {
        va_list args;
        va_start(args, format);
        ffmpeg_log_callback(avcl, level, format, args);
        va_end(args);
    }

    test::LogCapture log_;

private:
    int level_ = av_log_get_level();
};

/// An object that FFmpeg's own callback would name before a message.
struct Named {
    Named() {
        description.class_name = "Named";
        description.item_name = [](void*) { return "named"; };
        description.version = static_cast<int>(avutil_version());
    }
    const AVClass* first = &description;
    AVClass description{};
};

TEST_F(LoggingTest, LevelsMapExactly) {
    const std::vector<std::pair<int, int>> levels = {
        {AV_LOG_PANIC, 1}, {AV_LOG_FATAL, 1},   {AV_LOG_ERROR, 1}, {AV_LOG_WARNING, 2},
        {AV_LOG_INFO, 4},  {AV_LOG_VERBOSE, 5}, {AV_LOG_DEBUG, 5}};
    for (const auto& [ffmpeg, mapped] : levels) {
        log_.clear();
        call(nullptr, ffmpeg, "text");
        EXPECT_THAT(log_.messages(), ElementsAre(Pair(mapped, "text"))) << ffmpeg;
    }
}

TEST_F(LoggingTest, EveryOtherValueIsTheMostDetailedLevel) {
    for (int level = -64; level <= 128; ++level) {
        const bool named = level >= AV_LOG_PANIC && level <= AV_LOG_DEBUG && level % 8 == 0;
        if (named) continue;
        log_.clear();
        call(nullptr, level, "text");
        EXPECT_THAT(log_.messages(), ElementsAre(Pair(5, "text"))) << level;
    }
}

TEST_F(LoggingTest, BetweenErrorAndWarningIsNeither) {
    call(nullptr, 20, "text");
    EXPECT_THAT(log_.messages(), ElementsAre(Pair(5, "text")));
}

TEST_F(LoggingTest, TraceAndQuietAreTheMostDetailedLevel) {
    call(nullptr, AV_LOG_TRACE, "trace");
    call(nullptr, AV_LOG_QUIET, "quiet");
    EXPECT_EQ(AV_LOG_TRACE, 56);
    EXPECT_EQ(AV_LOG_QUIET, -8);
    EXPECT_THAT(log_.messages(), ElementsAre(Pair(5, "trace"), Pair(5, "quiet")));
}

TEST_F(LoggingTest, ArgumentsAreFormatted) {
    call(nullptr, AV_LOG_ERROR, "%s:%d %5.2f 0x%08x %c 100%%", "url", -7, 2.5, 0xbeefU, 'c');
    EXPECT_THAT(log_.messages(1), ElementsAre("url:-7  2.50 0x0000beef c 100%"));
}

TEST_F(LoggingTest, LineEndsStay) {
    call(nullptr, AV_LOG_INFO, "with a line end\n");
    call(nullptr, AV_LOG_INFO, "without");
    call(nullptr, AV_LOG_INFO, "\n\n");
    EXPECT_THAT(log_.messages(4), ElementsAre("with a line end\n", "without", "\n\n"));
}

TEST_F(LoggingTest, PartsOfALineAreNotJoined) {
    ffmpeg_enable_logging();
    av_log(nullptr, AV_LOG_INFO, "one, ");
    av_log(nullptr, AV_LOG_INFO, "two\n");
    EXPECT_THAT(log_.messages(4), ElementsAre("one, ", "two\n"));
}

TEST_F(LoggingTest, EqualMessagesAreAllDelivered) {
    ffmpeg_enable_logging();
    for (int i = 0; i < 3; ++i) av_log(nullptr, AV_LOG_WARNING, "again\n");
    EXPECT_THAT(log_.messages(2), ElementsAre("again\n", "again\n", "again\n"));
}

TEST_F(LoggingTest, NoContextIsAdded) {
    Named named;
    call(&named, AV_LOG_WARNING, "text\n");
    ffmpeg_enable_logging();
    av_log(&named, AV_LOG_WARNING, "text\n");
    EXPECT_THAT(log_.messages(2), ElementsAre("text\n", "text\n"));
}

TEST_F(LoggingTest, EmptyMessageIsDelivered) {
    call(nullptr, AV_LOG_WARNING, "%s", "");
    EXPECT_THAT(log_.messages(2), ElementsAre(""));
}

TEST_F(LoggingTest, LongMessageIsWhole) {
    const std::string text(100000, 'x');
    call(nullptr, AV_LOG_WARNING, "%s\n", text.c_str());
    EXPECT_THAT(log_.messages(2), ElementsAre(text + "\n"));
}

TEST_F(LoggingTest, NothingArrivesUntilItIsEnabled) {
    av_log(nullptr, AV_LOG_ERROR, "before\n");
    EXPECT_THAT(log_.messages(), IsEmpty());
    ffmpeg_enable_logging();
    av_log(nullptr, AV_LOG_ERROR, "after\n");
    EXPECT_THAT(log_.messages(), ElementsAre(Pair(1, "after\n")));
}

TEST_F(LoggingTest, UsingTheLibraryDoesNotEnableIt) {
    FormatContext context;
    context.setUrl("/nonexistent/input.mp4");
    EXPECT_ANY_THROW(context.open());
    log_.clear();
    av_log(nullptr, AV_LOG_ERROR, "text\n");
    EXPECT_THAT(log_.messages(), IsEmpty());
}

TEST_F(LoggingTest, EnablingTwiceDeliversOnce) {
    ffmpeg_enable_logging();
    ffmpeg_enable_logging();
    av_log(nullptr, AV_LOG_ERROR, "text\n");
    EXPECT_THAT(log_.messages(), ElementsAre(Pair(1, "text\n")));
}

TEST_F(LoggingTest, FFmpegsOwnLevelDoesNotCount) {
    ffmpeg_enable_logging();
    av_log_set_level(AV_LOG_QUIET);
    av_log(nullptr, AV_LOG_PANIC, "panic");
    av_log(nullptr, AV_LOG_TRACE, "trace");
    EXPECT_THAT(log_.messages(), ElementsAre(Pair(1, "panic"), Pair(5, "trace")));
}

TEST_F(LoggingTest, LoggersThresholdCounts) {
    ffmpeg_enable_logging();
    logger::setThreshold(logger::Level::error);
    av_log(nullptr, AV_LOG_WARNING, "warning");
    av_log(nullptr, AV_LOG_ERROR, "error");
    EXPECT_THAT(log_.messages(), ElementsAre(Pair(1, "error")));
}

TEST_F(LoggingTest, SinkThatThrowsDoesNotReachFFmpeg) {
    ffmpeg_enable_logging();
    int calls = 0;
    logger::setSink([&calls](logger::Level, const std::string&) {
        ++calls;
        throw std::runtime_error("sink");
    });
    EXPECT_NO_THROW(av_log(nullptr, AV_LOG_ERROR, "text\n"));
    EXPECT_NO_THROW(call(nullptr, AV_LOG_ERROR, "text\n"));
    EXPECT_EQ(calls, 2);
}

/// An MP4 file with its index twice, of which the demuxer takes the first and warns of the second.
std::vector<std::uint8_t> fileWithTwoIndexes(const test::TemporaryFolder& folder) {
    const std::string path = folder.file("one.mp4");
    test::runFFmpeg("-f lavfi -i testsrc2=size=32x32:duration=0.2 -c:v mpeg4 -movflags +faststart '" + path +
                    "'");
    std::vector<std::uint8_t> bytes = test::readFile(path);
    for (std::size_t at = 0; at + 8 <= bytes.size();) {
        const std::size_t size = std::size_t{bytes[at]} << 24 | std::size_t{bytes[at + 1]} << 16 |
                                 std::size_t{bytes[at + 2]} << 8 | std::size_t{bytes[at + 3]};
        if (size < 8 || size > bytes.size() - at) break;
        if (std::string(bytes.begin() + static_cast<std::ptrdiff_t>(at) + 4,
                        bytes.begin() + static_cast<std::ptrdiff_t>(at) + 8) == "moov") {
            const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at);
            const std::vector<std::uint8_t> index(begin, begin + static_cast<std::ptrdiff_t>(size));
            bytes.insert(begin, index.begin(), index.end());
            return bytes;
        }
        at += size;
    }
    throw std::runtime_error("no index in " + path);
}

TEST_F(LoggingTest, WarningOfADemuxerArrivesAsItWasWritten) {
    const test::TemporaryFolder folder;
    test::writeFile(folder.file("two.mp4"), fileWithTwoIndexes(folder));
    ffmpeg_enable_logging();
    FormatContext context;
    context.setUrl(folder.file("two.mp4"));
    ASSERT_TRUE(context.open("", false));
    EXPECT_THAT(log_.messages(2), Contains("Found duplicated MOOV Atom. Skipped it\n"));
}

TEST_F(LoggingTest, ThreadsLogAtTheSameTime) {
    ffmpeg_enable_logging();
    constexpr int threads = 4;
    constexpr int perThread = 200;
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([t] {
            for (int i = 0; i < perThread; ++i) av_log(nullptr, AV_LOG_WARNING, "thread %d: %d\n", t, i);
        });
    }
    for (std::thread& thread : running) thread.join();

    const std::vector<std::string> messages = log_.messages(2);
    EXPECT_EQ(messages.size(), std::size_t{threads} * perThread);
    for (int t = 0; t < threads; ++t) {
        const std::string prefix = "thread " + std::to_string(t) + ": ";
        std::vector<std::string> own;
        std::copy_if(messages.begin(), messages.end(), std::back_inserter(own),
                     [&](const std::string& text) { return text.compare(0, prefix.size(), prefix) == 0; });
        std::vector<std::string> expected;
        for (int i = 0; i < perThread; ++i) expected.push_back(prefix + std::to_string(i) + "\n");
        EXPECT_EQ(own, expected);
    }
}

}  // namespace
}  // namespace kvffmpeg
