#include "logger/logger.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <functional>
#include <iomanip>
#include <locale>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace kvffmpeg {
namespace {

using logger::Level;
using logger::MessageOstream;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;

static_assert(static_cast<int>(Level::error) == 1 && static_cast<int>(Level::warning) == 2);
static_assert(static_cast<int>(Level::info) == 4 && static_cast<int>(Level::debug) == 5);
static_assert(std::is_move_constructible_v<MessageOstream> && !std::is_copy_constructible_v<MessageOstream>);
static_assert(std::is_same_v<decltype(logger::log(Level::error)), MessageOstream>);

/// Restores the logger's defaults after every test.
class LoggerTest : public testing::Test {
protected:
    ~LoggerTest() override {
        logger::setSink({});
        logger::setThreshold(Level::warning);
    }

    using Message = std::pair<Level, std::string>;

    void collect() {
        logger::setSink([this](Level level, const std::string& text) {
            const std::lock_guard<std::mutex> lock(mutex_);
            messages_.emplace_back(level, text);
        });
    }
    std::vector<Message> messages() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return messages_;
    }

private:
    std::mutex mutex_;
    std::vector<Message> messages_;
};

/// What `action` writes to stderr.
template <typename Action>
std::string standardErrorOf(Action action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

void vprintOf(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void vprintOf(Level level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    logger::vprint(level, format, args);
    va_end(args);
}

TEST_F(LoggerTest, DefaultThresholdPassesErrorsAndWarnings) {
    collect();
    logger::log(Level::error) << "e";
    logger::log(Level::warning) << "w";
    logger::log(Level::info) << "i";
    logger::log(Level::debug) << "d";
    EXPECT_THAT(messages(), ElementsAre(Pair(Level::error, "e"), Pair(Level::warning, "w")));
}

TEST_F(LoggerTest, MessagesAboveTheThresholdAreDropped) {
    collect();
    for (int threshold = 0; threshold <= 6; ++threshold) {
        logger::setThreshold(static_cast<Level>(threshold));
        const std::size_t before = messages().size();
        for (int level = 1; level <= 5; ++level) logger::log(static_cast<Level>(level)) << threshold;
        EXPECT_EQ(messages().size() - before, static_cast<std::size_t>(std::min(threshold, 5))) << threshold;
    }
}

TEST_F(LoggerTest, ThresholdHoldsForPrintedMessagesToo) {
    collect();
    logger::setThreshold(Level::error);
    logger::error("%d", 1);
    logger::warning("%d", 2);
    vprintOf(Level::error, "%d", 3);
    vprintOf(Level::debug, "%d", 4);
    EXPECT_THAT(messages(), ElementsAre(Pair(Level::error, "1"), Pair(Level::error, "3")));
}

TEST_F(LoggerTest, PrintedMessagesAreFormattedAndHaveTheirLevel) {
    collect();
    logger::setThreshold(Level::debug);
    logger::error("a %s %d%%", "text", -5);
    logger::warning("plain");
    vprintOf(Level::info, "%05.1f|%s", 2.25, "x");
    EXPECT_THAT(messages(), ElementsAre(Pair(Level::error, "a text -5%"), Pair(Level::warning, "plain"),
                                        Pair(Level::info, "002.2|x")));
}

TEST_F(LoggerTest, LongPrintedMessagesAreNotCut) {
    collect();
    const std::string text(100000, 'x');
    logger::error("<%s>", text.c_str());
    EXPECT_EQ(messages().at(0).second, "<" + text + ">");
}

TEST_F(LoggerTest, SinkReceivesTheTextsAsTheyAre) {
    collect();
    logger::error("%s", "100% {} {0} %s\n");
    logger::log(Level::warning) << "{braces} %d" << std::endl;
    logger::log(Level::warning);
    EXPECT_THAT(messages(), ElementsAre(Pair(Level::error, "100% {} {0} %s\n"),
                                        Pair(Level::warning, "{braces} %d\n"), Pair(Level::warning, "")));
}

TEST_F(LoggerTest, StreamCollectsOneMessageUntilTheObjectEnds) {
    collect();
    {
        MessageOstream message = logger::log(Level::error);
        message << "a" << 1 << std::string(" b ") << 2.5 << std::hex << std::setw(4) << std::setfill('0')
                << 255;
        EXPECT_THAT(messages(), IsEmpty());
    }
    EXPECT_THAT(messages(), ElementsAre(Pair(Level::error, "a1 b 2.500ff")));
}

/// Tells how often it was written.
struct Counted {
    int* writes;
    friend std::ostream& operator<<(std::ostream& out, const Counted& counted) {
        ++*counted.writes;
        return out;
    }
};

TEST_F(LoggerTest, InsertingIntoADisabledMessageWritesNothing) {
    collect();
    int writes = 0;
    {
        MessageOstream disabled(Level::error, false);
        disabled << "x" << std::endl << Counted{&writes};
    }
    logger::log(Level::debug) << Counted{&writes};
    EXPECT_EQ(writes, 0);
    EXPECT_THAT(messages(), IsEmpty());
    logger::log(Level::error) << Counted{&writes};
    EXPECT_EQ(writes, 1);
}

TEST_F(LoggerTest, MessageIsEnabledWhenItIsMade) {
    collect();
    {
        MessageOstream message = logger::log(Level::error);
        MessageOstream silent = logger::log(Level::debug);
        logger::setThreshold(static_cast<Level>(0));
        message << "kept";
        logger::setThreshold(Level::debug);
        silent << "lost";
    }
    EXPECT_THAT(messages(), ElementsAre(Pair(Level::error, "kept")));
}

TEST_F(LoggerTest, MovedMessageIsDeliveredOnce) {
    collect();
    {
        MessageOstream first = logger::log(Level::error);
        first << "a";
        MessageOstream second = std::move(first);
        first << "lost";  // NOLINT: what was moved from delivers nothing
        second << "b";
    }
    EXPECT_THAT(messages(), ElementsAre(Pair(Level::error, "ab")));
}

TEST_F(LoggerTest, MoveAssignmentDeliversTheMessageHeldSoFar) {
    collect();
    {
        MessageOstream target = logger::log(Level::error);
        target << "old";
        MessageOstream source = logger::log(Level::warning);
        source << "new";
        target = std::move(source);
        EXPECT_THAT(messages(), ElementsAre(Pair(Level::error, "old")));
        target << " more";
        MessageOstream& self = target;
        target = std::move(self);
    }
    EXPECT_THAT(messages(), ElementsAre(Pair(Level::error, "old"), Pair(Level::warning, "new more")));
}

TEST_F(LoggerTest, NumbersDoNotDependOnTheGlobalLocale) {
    struct Punctuation : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    collect();
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Punctuation));
    logger::log(Level::error) << 1234567 << " " << 1.5;
    std::locale::global(before);
    EXPECT_THAT(messages(), ElementsAre(Pair(Level::error, "1234567 1.5")));
}

TEST_F(LoggerTest, SinkMayLog) {
    std::vector<std::string> texts;
    logger::setSink([&](Level, const std::string& text) {
        texts.push_back(text);
        if (texts.size() == 1) {
            logger::error("%s", "from the sink");
            logger::log(Level::warning) << "streamed";
        }
    });
    logger::error("%s", "first");
    EXPECT_THAT(texts, ElementsAre("first", "from the sink", "streamed"));
}

TEST_F(LoggerTest, SinkMayReplaceItselfAndTheThreshold) {
    std::vector<std::string> texts;
    logger::setSink([&](Level, const std::string& text) {
        texts.push_back("old " + text);
        logger::setThreshold(Level::debug);
        logger::setSink([&](Level, const std::string& later) { texts.push_back("new " + later); });
        texts.push_back("still here");  // what runs is not destroyed under itself
    });
    logger::error("1");
    logger::log(Level::debug) << 2;
    EXPECT_THAT(texts, ElementsAre("old 1", "still here", "new 2"));
}

TEST_F(LoggerTest, ExceptionsOfASinkAreDropped) {
    int calls = 0;
    logger::setSink([&](Level, const std::string&) {
        ++calls;
        throw std::runtime_error("from the sink");
    });
    EXPECT_NO_THROW(logger::error("1"));
    EXPECT_NO_THROW(logger::warning("2"));
    EXPECT_NO_THROW(vprintOf(Level::error, "3"));
    EXPECT_NO_THROW({ logger::log(Level::error) << "4"; });
    EXPECT_EQ(calls, 4);
}

TEST_F(LoggerTest, ReplacedSinkIsReleased) {
    const auto held = std::make_shared<int>(1);
    logger::setSink([held](Level, const std::string&) {});
    EXPECT_EQ(held.use_count(), 2);
    logger::setSink({});
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(LoggerTest, DefaultOutputIsOneLineOnStandardErrorPerMessage) {
    const std::string output = standardErrorOf([] {
        logger::error("%s", "first {} %s");
        logger::log(Level::warning) << "second";
        logger::log(Level::info) << "dropped";
    });
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2) << output;
    EXPECT_THAT(output, HasSubstr("first {} %s\n"));
    EXPECT_THAT(output, EndsWith("second\n"));
    EXPECT_THAT(output, Not(HasSubstr("dropped")));
}

TEST_F(LoggerTest, DefaultOutputDoesNotDoubleTheLineEnd) {
    const std::string output = standardErrorOf([] { logger::error("ended\n"); });
    EXPECT_THAT(output, EndsWith("ended\n"));
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
}

TEST_F(LoggerTest, DefaultOutputWritesEveryLevel) {
    logger::setThreshold(Level::debug);
    const std::string output = standardErrorOf([] {
        for (int level = 1; level <= 5; ++level) logger::log(static_cast<Level>(level)) << "level" << level;
    });
    for (const char* text : {"level1", "level2", "level3", "level4", "level5"})
        EXPECT_THAT(output, HasSubstr(text));
}

TEST_F(LoggerTest, EmptySinkRestoresTheDefault) {
    collect();
    logger::error("collected");
    logger::setSink({});
    EXPECT_THAT(standardErrorOf([] { logger::error("printed"); }), HasSubstr("printed"));
    EXPECT_EQ(messages().size(), 1u);
}

TEST_F(LoggerTest, NoOutputOnStandardOutput) {
    testing::internal::CaptureStdout();
    (void)standardErrorOf([] { logger::error("x"); });
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(LoggerTest, ManyThreadsLoseNoMessageAndMixNone) {
    constexpr int threads = 8, count = 200;
    collect();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t] {
            for (int i = 0; i < count; ++i) {
                if (i % 2 == 0) {
                    logger::error("%d:%d", t, i);
                } else {
                    logger::log(Level::warning) << t << ":" << i;
                }
                logger::log(Level::debug) << "dropped";
            }
        });
    }
    for (std::thread& worker : workers) worker.join();
    std::vector<int> next(threads);
    for (const Message& message : messages()) {
        const std::size_t colon = message.second.find(':');
        ASSERT_NE(colon, std::string::npos) << message.second;
        const auto t = static_cast<std::size_t>(std::stoi(message.second));
        ASSERT_LT(t, next.size());
        EXPECT_EQ(message.second, std::to_string(t) + ":" + std::to_string(next[t]++));
    }
    EXPECT_THAT(next, testing::Each(count));
}

TEST_F(LoggerTest, SinkAndThresholdMayChangeWhileOthersLog) {
    std::atomic<bool> stop{false};
    std::atomic<int> received{0};
    logger::setSink([&](Level, const std::string&) { ++received; });
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([&] {
            while (!stop) logger::log(Level::error) << "x";
        });
    }
    for (int i = 0; i < 300 || received == 0; ++i) {
        logger::setSink([&](Level, const std::string& text) { received += text == "x" ? 1 : 0; });
        logger::setThreshold(i % 2 == 0 ? Level::debug : Level::error);
    }
    stop = true;
    for (std::thread& worker : workers) worker.join();
    EXPECT_GT(received, 0);
}

TEST_F(LoggerTest, ManyThreadsWriteWholeLinesToTheDefaultOutput) {
    const std::string output = standardErrorOf([] {
        std::vector<std::thread> workers;
        for (int t = 0; t < 4; ++t) {
            workers.emplace_back([] {
                for (int i = 0; i < 50; ++i) logger::error("0123456789");
            });
        }
        for (std::thread& worker : workers) worker.join();
    });
    std::size_t whole = 0;
    for (std::size_t at = output.find("0123456789\n"); at != std::string::npos;
         at = output.find("0123456789\n", at + 1)) {
        ++whole;
    }
    EXPECT_EQ(whole, 200u);
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 200);
}

}  // namespace
}  // namespace kvffmpeg
