#include "workers.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace kvffmpeg {
namespace {

using mutation::Job;
using mutation::Limits;
using mutation::note;
using mutation::Operation;
using mutation::Outcome;
using mutation::Result;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr Limits wide{100, std::size_t{100} << 30};

/// The results by their items.
std::map<std::size_t, Result> runAll(std::size_t items, unsigned workers, const Limits& limits,
                                     const Job& job) {
    std::map<std::size_t, Result> results;
    runInWorkers(items, workers, limits, job, [&](const Result& result) {
        EXPECT_TRUE(results.emplace(result.item, result).second) << "item " << result.item << " came twice";
    });
    return results;
}

Result runOne(const Limits& limits, const Job& job) {
    return runAll(1, 1, limits, job).at(0);
}

template <typename Exception>
Outcome noted(Operation operation, const Exception& exception) {
    Outcome outcome;
    note(outcome, "name", operation, std::make_exception_ptr(exception));
    return outcome;
}

void useProcessor(double seconds) {
    const auto clock = [] { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; };
    const double end = clock() + seconds;
    while (clock() < end) {
    }
}

TEST(WorkersTest, RunEveryItemOnce) {
    const auto results =
        runAll(50, 3, wide, [](std::size_t item, Outcome& outcome) { outcome.packets = item; });
    ASSERT_EQ(results.size(), 50U);
    for (const auto& [item, result] : results) {
        EXPECT_EQ(result.outcome.packets, item);
        EXPECT_THAT(result.outcome.failures, IsEmpty());
        EXPECT_EQ(result.death, "");
    }
}

TEST(WorkersTest, AreReplacedAfterACrashAndTellTheSignal) {
    const auto results = runAll(9, 2, wide, [](std::size_t item, Outcome& outcome) {
        if (item % 3 == 1) std::abort();
        outcome.packets = item;
    });
    ASSERT_EQ(results.size(), 9U);
    for (const auto& [item, result] : results) {
        if (item % 3 != 1) {
            EXPECT_EQ(result.death, "") << item;
            EXPECT_EQ(result.outcome.packets, item);
            continue;
        }
        EXPECT_NE(result.death, "") << item;
        EXPECT_NE(result.report, "") << item;
        if (!mutation::isSanitized()) {
            EXPECT_EQ(result.death, "Aborted");
        }
    }
}

TEST(WorkersTest, TellWhereACrashWas) {
    if (mutation::isSanitized()) GTEST_SKIP() << "the sanitizer tells it";
    const Result result = runOne(wide, [](std::size_t, Outcome&) { raise(SIGSEGV); });
    EXPECT_EQ(result.death, "Segmentation fault");
    EXPECT_THAT(result.report, HasSubstr("libc.so"));
    EXPECT_THAT(result.report, HasSubstr("mutation_workers_test"));
}

TEST(WorkersTest, AnExitIsADeath) {
    EXPECT_EQ(runOne(wide, [](std::size_t, Outcome&) { _exit(3); }).death, "exit status 3");
}

TEST(WorkersTest, ARunOverTheTimeLimitIsAFailure) {
    const Result result = runOne({0.2, wide.bytes}, [](std::size_t, Outcome&) { useProcessor(0.3); });
    ASSERT_EQ(result.outcome.failures.size(), 1U);
    EXPECT_THAT(result.outcome.failures[0], HasSubstr("s of processor time"));
    EXPECT_NE(result.report, "");
}

TEST(WorkersTest, ARunThatDoesNotEndIsKilled) {
    const Result result = runOne({0.1, wide.bytes}, [](std::size_t, Outcome&) { useProcessor(1000); });
    EXPECT_THAT(result.death, HasSubstr("killed after 0.5"));
}

TEST(WorkersTest, ARunThatWaitsIsKilled) {
    const Result result = runOne({0.01, wide.bytes}, [](std::size_t, Outcome&) {
        std::this_thread::sleep_for(std::chrono::hours(1));
    });
    EXPECT_THAT(result.death, HasSubstr("killed after"));
}

TEST(WorkersTest, ARunOverTheMemoryLimitIsAFailure) {
    constexpr std::size_t size = 300000000;
    const Job job = [](std::size_t item, Outcome&) {
        if (item == 1) return;
        // Written as volatile: a block that nobody looks at need not be allocated.
        const std::unique_ptr<char[]> memory(new char[size]);
        for (std::size_t i = 0; i < size; i += 1024) static_cast<volatile char*>(memory.get())[i] = 'x';
    };
    const auto results = runAll(2, 1, {wide.seconds, size}, job);
    EXPECT_THAT(results.at(0).outcome.failures, ElementsAre(HasSubstr("MB of memory")));
    EXPECT_GT(results.at(0).outcome.peakBytes, size);
    EXPECT_THAT(results.at(1).outcome.failures, IsEmpty());
    EXPECT_LT(results.at(1).outcome.peakBytes, size);
}

TEST(WorkersTest, ADescriptorThatStaysOpenIsAFailureOfThatRunOnly) {
    const auto results = runAll(3, 1, wide, [](std::size_t item, Outcome&) {
        if (item != 1) return;
        EXPECT_GE(open("/dev/null", O_RDONLY), 0);
    });
    EXPECT_THAT(results.at(0).outcome.failures, IsEmpty());
    EXPECT_THAT(results.at(1).outcome.failures, ElementsAre("1 descriptors were left open"));
    EXPECT_THAT(results.at(2).outcome.failures, IsEmpty());
}

TEST(WorkersTest, ALeakIsAFailureOfThatRunOnly) {
    if (!mutation::isSanitized()) GTEST_SKIP() << "only the leak sanitizer sees leaks";
    const auto results = runAll(3, 1, wide, [](std::size_t item, Outcome&) {
        if (item != 1) return;
        // Enough that no forgotten register or stack slot still points to all of them.
        for (int i = 0; i < 10; ++i) {
            char* volatile lost = new char[100];
            lost[0] = 'x';
            lost = nullptr;
        }
    });
    EXPECT_THAT(results.at(0).outcome.failures, IsEmpty());
    EXPECT_THAT(results.at(1).outcome.failures, ElementsAre("memory was leaked"));
    EXPECT_THAT(results.at(1).report, HasSubstr("LeakSanitizer"));
    EXPECT_THAT(results.at(2).outcome.failures, IsEmpty());
}

TEST(WorkersTest, OutcomesArriveWhole) {
    const Result result = runOne(wide, [](std::size_t, Outcome& outcome) {
        outcome.format = "h264, \xFF";  // no UTF-8
        outcome.opened = outcome.pictureLoaded = true;
        outcome.packets = 5;
        outcome.frames = 4;
        outcome.thrown["open: text"] = 3;
        outcome.logged["Could not decode video"] = 2;
        outcome.failures = {"one", "two"};
    });
    EXPECT_EQ(result.outcome.format, "h264, \xEF\xBF\xBD");
    EXPECT_TRUE(result.outcome.opened);
    EXPECT_TRUE(result.outcome.pictureLoaded);
    EXPECT_EQ(result.outcome.packets, 5U);
    EXPECT_EQ(result.outcome.frames, 4U);
    EXPECT_THAT(result.outcome.thrown, ElementsAre(testing::Pair("open: text", 3)));
    EXPECT_THAT(result.outcome.logged, ElementsAre(testing::Pair("Could not decode video", 2)));
    EXPECT_THAT(result.outcome.failures, ElementsAre("one", "two"));
}

TEST(NoteTest, CountsWhatMayLeaveTheLibrary) {
    EXPECT_THAT(noted(Operation::other, std::runtime_error("text")).thrown,
                ElementsAre(testing::Pair("name: std::runtime_error \"text\"", 1)));
    EXPECT_THAT(noted(Operation::other, std::out_of_range("text")).failures, IsEmpty());
    EXPECT_THAT(noted(Operation::other, std::range_error("text")).failures, IsEmpty());
    EXPECT_THAT(noted(Operation::other, std::bad_alloc()).failures, IsEmpty());
    EXPECT_THAT(noted(Operation::decoding, std::bad_alloc()).failures, IsEmpty());
}

TEST(NoteTest, RefusesWhatMayNot) {
    EXPECT_THAT(noted(Operation::decoding, std::runtime_error("text")).failures,
                ElementsAre("name: std::runtime_error \"text\" left the library"));
    EXPECT_THAT(noted(Operation::other, std::logic_error("text")).failures,
                ElementsAre("name: std::logic_error \"text\" left the library"));
    EXPECT_THAT(noted(Operation::other, std::length_error("text")).failures,
                ElementsAre("name: std::length_error \"text\" left the library"));
    EXPECT_EQ(noted(Operation::other, std::system_error(std::error_code(), "text")).failures.size(), 1U);
    EXPECT_THAT(noted(Operation::other, 5).failures,
                ElementsAre("name: something that is no std::exception left the library"));
}

}  // namespace
}  // namespace kvffmpeg
