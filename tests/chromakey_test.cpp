#include "kvffmpeg/chromakey.h"

#include <gmock/gmock.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "kernels.h"
#include "support/guarded_bytes.h"
#include "support/test_heap.h"

namespace kvffmpeg {
namespace {

using kernels::Variant;
using test::GuardedBytes;
using testing::Each;
using testing::ElementsAre;
using testing::ValuesIn;

using Bytes = std::vector<std::uint8_t>;

std::string nameOfVariant(const testing::TestParamInfo<const Variant*>& info) {
    return info.param->name;
}

/// Every test runs with every variant of the kernels.
class ChromakeyTest : public testing::TestWithParam<const Variant*> {
protected:
    void SetUp() override {
        if (!GetParam()->supported()) GTEST_SKIP() << "this CPU does not run " << GetParam()->name;
        kernels::setActive(GetParam());
    }
    void TearDown() override { kernels::setActive(nullptr); }

    /// The alpha that one block of chroma gets.
    static int alphaOf(int u, int v, std::array<std::uint8_t, 2> key, float similarity, float blend) {
        // As wide as several vectors, so that they decide, and not only the end of a row.
        constexpr int width = 200;
        Bytes us(width / 2, static_cast<std::uint8_t>(u));
        Bytes vs(width / 2, static_cast<std::uint8_t>(v));
        Bytes alpha(width * 2, 1);
        std::uint8_t* const planes[] = {nullptr, us.data(), vs.data(), alpha.data()};
        const int linesizes[] = {0, width / 2, width / 2, width};
        chromakey_yuva420p(planes, linesizes, width, 2, key.data(), similarity, blend);
        EXPECT_THAT(alpha, Each(alpha[0]));
        return alpha[0];
    }
};

INSTANTIATE_TEST_SUITE_P(Variants, ChromakeyTest, ValuesIn(kernels::all().begin(), kernels::all().end()),
                         nameOfVariant);

TEST_P(ChromakeyTest, WithoutSimilarityAndBlendOnlyTheKeyItselfIsTransparent) {
    EXPECT_EQ(alphaOf(44, 21, {44, 21}, 0, 0), 0);
    EXPECT_EQ(alphaOf(45, 21, {44, 21}, 0, 0), 255);
    EXPECT_EQ(alphaOf(44, 20, {44, 21}, 0, 0), 255);
}

TEST_P(ChromakeyTest, DistanceEqualToTheThresholdIsTransparent) {
    const float similarity = 0.02F;  // 26.01, so T is 26 = 5^2 + 1
    EXPECT_EQ(alphaOf(105, 101, {100, 100}, similarity, 0), 0);
    EXPECT_EQ(alphaOf(103, 104, {100, 100}, similarity, 0), 0);    // 25
    EXPECT_EQ(alphaOf(105, 102, {100, 100}, similarity, 0), 255);  // 29
}

TEST_P(ChromakeyTest, ThresholdIsTheSquareOfSimilarityTimes255) {
    // T is 16256 at 0.5: 112^2 + 61^2 = 16265 lies beyond, 127^2 + 11^2 = 16250 within.
    EXPECT_EQ(alphaOf(127, 11, {0, 0}, 0.5F, 0), 0);
    EXPECT_EQ(alphaOf(112, 61, {0, 0}, 0.5F, 0), 255);
}

TEST_P(ChromakeyTest, ThresholdIsFormedInDoubleFromASquareInFloat) {
    // 7 / 255 as a float is a little more than that; its square as a float is a little less, and T is 48.
    EXPECT_EQ(alphaOf(7, 0, {0, 0}, 7.0F / 255.0F, 0), 255);
    EXPECT_EQ(alphaOf(6, 3, {0, 0}, 7.0F / 255.0F, 0), 0);
    // Here the product in float would be 69^2.
    EXPECT_EQ(alphaOf(69, 0, {0, 0}, 0.270588219F, 0), 255);
}

TEST_P(ChromakeyTest, DistanceOf3000BeyondTheThresholdGives117WithABlendOfATenth) {
    // 20^2 + 51^2 = 3001, and T is 1.
    EXPECT_EQ(alphaOf(20, 51, {0, 0}, 0.004F, 0.1F), 117);
}

TEST_P(ChromakeyTest, BlendRisesWithTheSquaredDistanceRoundedDown) {
    // d = 3000 = 50^2 + 22^2 + 16 does not split into squares; 2980 / 25.5 = 116.9, 3005 / 25.5 = 117.8.
    EXPECT_EQ(alphaOf(54, 8, {0, 0}, 0, 0.1F), 116);   // 2980
    EXPECT_EQ(alphaOf(53, 14, {0, 0}, 0, 0.1F), 117);  // 3005
}

TEST_P(ChromakeyTest, BlendStartsBeyondTheThresholdAndEndsOpaque) {
    EXPECT_EQ(alphaOf(100, 100, {100, 100}, 0.1F, 0.1F), 0);
    EXPECT_EQ(alphaOf(125, 105, {100, 100}, 0.1F, 0.1F), 0);  // d = T = 650
    EXPECT_EQ(alphaOf(200, 200, {100, 100}, 0.1F, 0.1F), 255);
}

TEST_P(ChromakeyTest, TinyBlendGivesOpaqueAndNotAnOverflow) {
    for (const float blend : {1e-6F, 1e-20F, 1e-38F, std::numeric_limits<float>::denorm_min()}) {
        EXPECT_EQ(alphaOf(255, 255, {0, 0}, 0, blend), 255) << blend;
        EXPECT_EQ(alphaOf(1, 0, {0, 0}, 0, blend), 255) << blend;
        EXPECT_EQ(alphaOf(0, 0, {0, 0}, 0, blend), 0) << blend;
        EXPECT_EQ(alphaOf(0, 0, {0, 0}, 1, blend), 0) << blend;
    }
}

TEST_P(ChromakeyTest, EndlessBlendIsTransparentEverywhere) {
    EXPECT_EQ(alphaOf(255, 255, {0, 0}, 0, std::numeric_limits<float>::infinity()), 0);
    EXPECT_EQ(alphaOf(255, 255, {0, 0}, 0, std::numeric_limits<float>::max()), 0);
}

TEST_P(ChromakeyTest, NegativeBlendAndNoNumberDecideHard) {
    for (const float blend : {-1.0F, -0.0F, std::numeric_limits<float>::quiet_NaN()}) {
        EXPECT_EQ(alphaOf(10, 10, {10, 10}, 0, blend), 0) << blend;
        EXPECT_EQ(alphaOf(10, 11, {10, 10}, 0, blend), 255) << blend;
    }
}

TEST_P(ChromakeyTest, SimilarityBeyondAnIntCoversAllAndNoNumberNothing) {
    EXPECT_EQ(alphaOf(255, 255, {0, 0}, 1e9F, 0), 0);
    EXPECT_EQ(alphaOf(255, 255, {0, 0}, std::numeric_limits<float>::infinity(), 0.5F), 0);
    EXPECT_EQ(alphaOf(0, 0, {0, 0}, std::numeric_limits<float>::quiet_NaN(), 0), 0);
    EXPECT_EQ(alphaOf(0, 1, {0, 0}, std::numeric_limits<float>::quiet_NaN(), 0), 255);
}

TEST_P(ChromakeyTest, NegativeSimilarityCountsAsItsSquareDoes) {
    EXPECT_EQ(alphaOf(127, 11, {0, 0}, -0.5F, 0), 0);
    EXPECT_EQ(alphaOf(112, 61, {0, 0}, -0.5F, 0), 255);
}

TEST_P(ChromakeyTest, OddLastRowAndColumnKeepTheirAlpha) {
    Bytes u(9, 10);
    Bytes v(9, 10);
    Bytes alpha(25, 77);
    std::uint8_t* const planes[] = {nullptr, u.data(), v.data(), alpha.data()};
    const int linesizes[] = {0, 3, 3, 5};
    const std::uint8_t key[] = {0, 0};
    chromakey_yuva420p(planes, linesizes, 5, 5, key, 0, 0);
    for (std::size_t y = 0; y < 5; ++y) {
        for (std::size_t x = 0; x < 5; ++x) {
            EXPECT_EQ(alpha[5 * y + x], x < 4 && y < 4 ? 255 : 77) << x << ", " << y;
        }
    }
}

TEST_P(ChromakeyTest, PictureWithoutAWholeBlockKeepsItsAlpha) {
    Bytes chroma(4, 10);
    Bytes alpha(4, 77);
    std::uint8_t* const planes[] = {nullptr, chroma.data(), chroma.data(), alpha.data()};
    const int linesizes[] = {0, 2, 2, 4};
    const std::uint8_t key[] = {0, 0};
    chromakey_yuva420p(planes, linesizes, 4, 1, key, 0, 0);
    chromakey_yuva420p(planes, linesizes, 1, 4, key, 0, 0);
    chromakey_yuva420p(planes, linesizes, 0, 0, key, 0, 0);
    chromakey_yuva420p(planes, linesizes, -4, -4, key, 0, 0);
    EXPECT_THAT(alpha, Each(77));
}

TEST_P(ChromakeyTest, LumaIsNeitherReadNorWritten) {
    // alphaOf passes no plane 0 at all.
    EXPECT_EQ(alphaOf(44, 21, {44, 21}, 0.1F, 0.1F), 0);
}

TEST_P(ChromakeyTest, StaysWithinItsPlanesAndEqualsThePlainFormAtAllSizes) {
    std::mt19937 random(5);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int width = 0; width <= 132; ++width) {
        for (const int height : {2, 3, 6}) {
            const int columns = width / 2;
            const int rows = height / 2;
            const int padding = width % 5;
            GuardedBytes memory[3] = {GuardedBytes(2048), GuardedBytes(2048), GuardedBytes(2048)};
            const auto place = [&](GuardedBytes& block, int rowBytes, int count, int linesize) {
                return block.back(static_cast<std::size_t>((count - 1) * linesize + rowBytes));
            };
            const int chromaLinesize = columns + padding;
            const int alphaLinesize = width + padding;
            std::uint8_t* u = place(memory[0], columns, rows, chromaLinesize);
            std::uint8_t* v = place(memory[1], columns, rows, chromaLinesize);
            std::uint8_t* alpha = place(memory[2], width, height, alphaLinesize);
            const std::ptrdiff_t chromaBytes = (rows - 1) * chromaLinesize + columns;
            const std::ptrdiff_t alphaBytes = (height - 1) * alphaLinesize + width;
            std::generate_n(u, chromaBytes, [&] { return static_cast<std::uint8_t>(byte(random)); });
            std::generate_n(v, chromaBytes, [&] { return static_cast<std::uint8_t>(byte(random)); });
            std::fill_n(alpha, alphaBytes, std::uint8_t{7});
            Bytes expected(alpha, alpha + alphaBytes);
            const std::uint8_t key[] = {90, 140};
            const float blend = width % 2 == 0 ? 0.25F : 0.0F;
            for (int r = 0; r < rows; ++r) {
                for (int c = 0; c < columns; ++c) {
                    const int du = u[r * chromaLinesize + c] - 90;
                    const int dv = v[r * chromaLinesize + c] - 140;
                    const int beyond = du * du + dv * dv - 2601;  // 0.2^2 * 255^2
                    int value = beyond > 0 ? 255 : 0;
                    if (blend > 0)
                        value =
                            std::min(std::max(static_cast<int>(static_cast<float>(beyond) / 63.75F), 0), 255);
                    for (const int at : {0, 1, alphaLinesize, alphaLinesize + 1}) {
                        expected[static_cast<std::size_t>(2 * r * alphaLinesize + 2 * c + at)] =
                            static_cast<std::uint8_t>(value);
                    }
                }
            }
            std::uint8_t* const planes[] = {nullptr, u, v, alpha};
            const int linesizes[] = {0, chromaLinesize, chromaLinesize, alphaLinesize};
            chromakey_yuva420p(planes, linesizes, width, height, key, 0.2F, blend);
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), alpha)) << width << " x " << height;
        }
    }
}

TEST_P(ChromakeyTest, RowsMayLieGigabytesApart) {
    constexpr int linesize = 1100000000;
    constexpr std::size_t size = std::size_t{5} * linesize + 4096;
    void* mapping =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) GTEST_SKIP() << "there is no room for rows so far apart";
    auto* start = static_cast<std::uint8_t*>(mapping);
    std::uint8_t* const planes[] = {nullptr, start, start + 512, start + 1024};
    const int linesizes[] = {0, linesize, linesize, linesize};
    const std::uint8_t key[] = {1, 1};
    chromakey_yuva420p(planes, linesizes, 64, 6, key, 0, 0);
    for (std::ptrdiff_t y = 0; y < 6; ++y) {
        EXPECT_EQ(planes[3][y * linesize], 255) << "row " << y;
        EXPECT_EQ(planes[3][y * linesize + 63], 255) << "row " << y;
        EXPECT_EQ(planes[3][y * linesize + 64], 0) << "row " << y;
    }
    munmap(mapping, size);
}

TEST_P(ChromakeyTest, TakesNoMemory) {
    if (!test::heapIsOurs()) GTEST_SKIP() << "something else has replaced new";
    Bytes chroma(100, 3);
    Bytes alpha(400, 1);
    std::uint8_t* const planes[] = {nullptr, chroma.data(), chroma.data(), alpha.data()};
    const int linesizes[] = {0, 100, 100, 200};
    const std::uint8_t key[] = {0, 0};
    test::heap() = {};
    test::heap().recording = true;
    for (const float blend : {0.0F, 0.1F}) chromakey_yuva420p(planes, linesizes, 200, 2, key, 0, blend);
    test::heap().recording = false;
    EXPECT_EQ(test::heap().requests, 0);
}

}  // namespace
}  // namespace kvffmpeg
