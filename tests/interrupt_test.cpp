#include <gmock/gmock.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kvffmpeg/format_context.h"
#include "reliability/interruption.h"
#include "support/log_capture.h"
#include "support/loopback_server.h"
#include "support/media.h"

namespace kvffmpeg {
namespace {

using reliability::Ending;
using reliability::Waiting;
using test::StalledServer;

/// Interrupts a context again and again until stopped: an interrupt before `open` is lost, and a test cannot
/// see when FFmpeg begins to wait.
class Interrupter {
public:
    explicit Interrupter(FormatContext& context)
        : thread_([this, &context] {
              while (!stop_) {
                  context.interrupt();
                  std::this_thread::sleep_for(std::chrono::milliseconds(5));
              }
          }) {}
    ~Interrupter() {
        stop_ = true;
        thread_.join();
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// Bytes that the "h264" demuxer takes for a stream that has begun.
std::vector<std::uint8_t> beginningOfH264(std::size_t size) {
    std::vector<std::uint8_t> bytes(size, 0x55);
    const std::uint8_t accessUnit[] = {0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x41, 0x9a};
    for (std::size_t at = 0; at + 64 <= size; at += 64)
        std::copy(std::begin(accessUnit), std::end(accessUnit),
                  bytes.begin() + static_cast<std::ptrdiff_t>(at));
    return bytes;
}

TEST(InterruptTest, EndsAnOpenThatWaitsForASilentPeer) {
    const StalledServer server;
    FormatContext context(server.url());
    context.setInterruptCallback();
    const Interrupter interrupter(context);
    EXPECT_THAT([&] { context.open(); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("can't open input file")));
    EXPECT_FALSE(context.isOpened());
}

TEST(InterruptTest, EndsTheSearchForStreamInfoAndLeavesTheInputOpen) {
    // The "mpeg" demuxer opens without reading far, and has no track before it meets one.
    const StalledServer server(std::vector<std::uint8_t>(256));
    FormatContext context(server.url());
    context.setInterruptCallback();
    std::string text;
    {
        std::thread interrupter([&] {
            server.waitUntilGreeted();
            // Later than the opening itself, which needs only what is there already.
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            context.interrupt();
        });
        try {
            context.open("mpeg", true);
        } catch (const std::runtime_error& error) {
            text = error.what();
        }
        interrupter.join();
    }
    EXPECT_EQ(text, "can't find stream info");
    EXPECT_TRUE(context.isOpened());
    context.close();
    EXPECT_FALSE(context.isOpened());
}

TEST(InterruptTest, EndsAReadThatWaitsForAStalledPeer) {
    const StalledServer server(beginningOfH264(4096));
    FormatContext context(server.url());
    context.setInterruptCallback();
    ASSERT_TRUE(context.open("h264", false));
    const Interrupter interrupter(context);
    // Packets that are buffered may still come first.
    EXPECT_THROW(while (context.readPacket()){}, std::runtime_error);
    EXPECT_FALSE(context.isEOF());
}

class InterruptOfWaitingTest : public testing::TestWithParam<Waiting> {};

TEST_P(InterruptOfWaitingTest, OnceEndsIt) {
    const bool waitsInRead = GetParam().what == Waiting::For::body;
    for (int run = 0; run < 3; ++run) {
        SCOPED_TRACE(run);
        const Ending ending = reliability::interruptOnce(GetParam(), std::chrono::milliseconds(7 * run));
        EXPECT_TRUE(ending.interrupted);
        EXPECT_EQ(ending.opened, waitsInRead);
        EXPECT_EQ(ending.text, waitsInRead ? "Immediate exit requested" : "can't open input file");
    }
}

std::string lettersOf(const testing::TestParamInfo<Waiting>& info) {
    std::string letters;
    for (const char letter : info.param.name) {
        if (std::isalnum(static_cast<unsigned char>(letter))) letters += letter;
    }
    return letters;
}

INSTANTIATE_TEST_SUITE_P(Peers, InterruptOfWaitingTest, testing::ValuesIn(reliability::waitings()),
                         lettersOf);

TEST(InterruptTest, MayComeAtAnyMoment) {
    const test::LogCapture quiet;
    const reliability::Tally tally = reliability::interruptAtRandom(
        500, 1, 2, {test::exampleMedia("clip.mp4"), test::exampleMedia("raster_font.png")});
    EXPECT_GE(tally.interrupts, 500U);
    for (const char* const moment : {"open", "readPacket"}) {
        EXPECT_GT(tally.moments.at(moment), 0U) << moment;
    }
    for (const auto& [ending, rounds] : tally.endings) {
        EXPECT_THAT(ending, testing::Not(testing::HasSubstr("unexpected"))) << rounds << " times";
    }
}

TEST(InterruptTest, StaysUntilTheNextOpen) {
    const StalledServer server(beginningOfH264(4096));
    FormatContext context(server.url());
    context.setInterruptCallback();
    ASSERT_TRUE(context.open("h264", false));
    EXPECT_EQ(interrupt_cb(&context), 0);
    context.interrupt();
    EXPECT_EQ(interrupt_cb(&context), 1);
    context.close();
    EXPECT_EQ(interrupt_cb(&context), 1);
    const StalledServer again(beginningOfH264(4096));
    context.setUrl(again.url());
    ASSERT_TRUE(context.open("h264", false));
    EXPECT_EQ(interrupt_cb(&context), 0);
}

TEST(InterruptTest, InputThatWasMovedGoesOnAskingTheSource) {
    const StalledServer server(beginningOfH264(4096));
    auto source = std::make_unique<FormatContext>(server.url());
    source->setInterruptCallback();
    ASSERT_TRUE(source->open("h264", false));
    FormatContext target(std::move(*source));
    const AVIOInterruptCB& callback = target.getAVFormatContext()->interrupt_callback;
    EXPECT_EQ(callback.opaque, source.get());
    EXPECT_EQ(callback.callback(callback.opaque), 0);
    target.interrupt();
    EXPECT_EQ(callback.callback(callback.opaque), 0);
    source->interrupt();
    EXPECT_EQ(callback.callback(callback.opaque), 1);
    source.reset();
    EXPECT_EQ(callback.callback(callback.opaque), 0);
}

TEST(InterruptCallbackTest, NullIsInterrupted) {
    EXPECT_EQ(interrupt_cb(nullptr), 1);
}

TEST(InterruptCallbackTest, AddressThatIsNoLivingContextIsNotInterrupted) {
    int something = 0;
    EXPECT_EQ(interrupt_cb(&something), 0);
    // In storage that outlives the object, so that its address may still be named.
    alignas(FormatContext) unsigned char storage[sizeof(FormatContext)];
    auto* const context = new (storage) FormatContext;
    context->interrupt();
    EXPECT_EQ(interrupt_cb(storage), 1);
    context->~FormatContext();
    EXPECT_EQ(interrupt_cb(storage), 0);
}

TEST(InterruptCallbackTest, KnowsManyContextsApart) {
    std::vector<std::unique_ptr<FormatContext>> contexts;
    for (int i = 0; i < 500; ++i) contexts.push_back(std::make_unique<FormatContext>());
    for (std::size_t i = 0; i < contexts.size(); i += 3) contexts[i]->interrupt();
    for (std::size_t i = 0; i < contexts.size(); i += 2) contexts[i].reset();
    for (std::size_t i = 0; i < contexts.size(); ++i) {
        if (contexts[i]) {
            EXPECT_EQ(interrupt_cb(contexts[i].get()), i % 3 == 0 ? 1 : 0) << i;
        }
    }
}

TEST(InterruptCallbackTest, MayBeAskedWhileContextsComeAndGo) {
    std::atomic<bool> stop{false};
    FormatContext lasting;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                FormatContext passing("none");
                FormatContext moved(std::move(passing));
                EXPECT_EQ(interrupt_cb(&moved), 0);
            }
        });
    }
    for (int i = 0; i < 300000; ++i) {
        lasting.interrupt();
        EXPECT_EQ(interrupt_cb(&lasting), 1);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace kvffmpeg
