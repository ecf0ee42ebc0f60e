#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "logger/logger.h"
#include "reliability/bombs.h"
#include "reliability/measured_child.h"
#include "support/media.h"
#include "support/temporary_folder.h"

namespace kvffmpeg {
namespace {

using reliability::Bomb;
using reliability::Growth;
using reliability::Measured;

#define KVFFMPEG_REQUIRE_MEASURABLE_MEMORY()                                                   \
    if (const std::string reason = reliability::reasonNotToMeasureMemory(); !reason.empty()) { \
        GTEST_SKIP() << reason;                                                                \
    }                                                                                          \
    static_assert(true, "")

/// What cannot be decoded is logged. Without a capture, whose memory would grow.
class Quiet {
public:
    Quiet() {
        logger::setSink([](logger::Level, const std::string&) {});
    }
    ~Quiet() { logger::setSink({}); }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;
};

void touch(char* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) static_cast<volatile char*>(bytes)[i] = 1;
}

// ----- What measures would find what it is there to find -----

TEST(MeasuredChildTest, TellsWhatTheChildSaysAndItsPeak) {
    KVFFMPEG_REQUIRE_MEASURABLE_MEMORY();
    const Measured measured = reliability::measureInChild([] {
        std::vector<char> bytes(50000000);
        touch(bytes.data(), bytes.size());
        return std::string("done");
    });
    EXPECT_FALSE(measured.died);
    EXPECT_EQ(measured.outcome, "done");
    EXPECT_GE(measured.peakGrowth, 49000000U);
    EXPECT_LE(measured.peakGrowth, 60000000U);
}

TEST(MeasuredChildTest, TellsHowTheChildDied) {
    const Measured measured = reliability::measureInChild([]() -> std::string { _exit(3); });
    EXPECT_TRUE(measured.died);
    EXPECT_EQ(measured.outcome, "died: exit status 3");
}

TEST(GrowthTest, SeesMemoryThatIsLost) {
    KVFFMPEG_REQUIRE_MEASURABLE_MEMORY();
    std::vector<char*> lost;
    const Growth growth = reliability::growthOver(300, 10, [&] {
        lost.push_back(static_cast<char*>(std::malloc(8000)));
        touch(lost.back(), 8000);
    });
    for (char* const bytes : lost) std::free(bytes);
    EXPECT_GE(growth.residentBytes, 2000000);
}

TEST(GrowthTest, SeesDescriptorsThatStayOpen) {
    std::vector<int> open;
    const Growth growth =
        reliability::growthOver(3, 1, [&] { open.push_back(::open("/dev/null", O_RDONLY)); });
    for (const int descriptor : open) close(descriptor);
    EXPECT_EQ(growth.descriptors, 3);
    EXPECT_EQ(growth.threads, 0);
}

TEST(GrowthTest, SeesThreadsThatGoOn) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    const Growth growth = reliability::growthOver(3, 1, [&] {
        threads.emplace_back([&stop] {
            while (!stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        });
    });
    stop = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(growth.threads, 3);
    EXPECT_EQ(growth.descriptors, 0);
}

// ----- Pictures -----

class PictureBombTest : public testing::TestWithParam<Bomb> {};

TEST_P(PictureBombTest, EndsInAPictureOrNoneWithin300Megabytes) {
    KVFFMPEG_REQUIRE_MEASURABLE_MEMORY();
    const Quiet quiet;
    const test::TemporaryFolder folder;
    const std::string path = folder.file("bomb." + GetParam().ending);
    test::writeFile(path, GetParam().make());
    const Measured measured = reliability::measureInChild([&] { return reliability::pictureInWords(path); });
    EXPECT_FALSE(measured.died);
    EXPECT_THAT(measured.outcome, testing::AnyOf("empty picture", testing::StartsWith("picture, "),
                                                 "exception, can't open input file",
                                                 "exception, Invalid data found when processing input"));
    EXPECT_LE(measured.peakGrowth, 300000000U) << measured.outcome;
}

std::string lettersOf(const testing::TestParamInfo<Bomb>& info) {
    std::string letters;
    for (const char letter : info.param.name) {
        if (std::isalnum(static_cast<unsigned char>(letter))) letters += letter;
    }
    return letters;
}

INSTANTIATE_TEST_SUITE_P(Files, PictureBombTest, testing::ValuesIn(reliability::pictureBombs()), lettersOf);

// ----- Again and again -----

class CyclesTest : public testing::TestWithParam<const char*> {};

TEST_P(CyclesTest, LeaveLessThanAKilobyteAndAHalfBehindOnAverage) {
    KVFFMPEG_REQUIRE_MEASURABLE_MEMORY();
    const Quiet quiet;
    const std::string path = test::exampleMedia(GetParam());
    const Growth growth = reliability::growthOver(200, 20, [&] { reliability::decodeAll(path); });
    EXPECT_LT(growth.residentBytes, 200 * 1500);
}

TEST_P(CyclesTest, LeaveNoDescriptorAndNoThreadBehind) {
    const Quiet quiet;
    const std::string path = test::exampleMedia(GetParam());
    const Growth growth = reliability::growthOver(20, 1, [&] { reliability::decodeAll(path); });
    EXPECT_EQ(growth.descriptors, 0);
    EXPECT_EQ(growth.threads, 0);
}

std::string stemOf(const testing::TestParamInfo<const char*>& info) {
    const std::string name = info.param;
    return name.substr(0, name.find('.'));
}

INSTANTIATE_TEST_SUITE_P(Files, CyclesTest, testing::Values("clip.mp4", "raster_font.png"), stemOf);

}  // namespace
}  // namespace kvffmpeg
