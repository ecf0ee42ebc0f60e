#include "mutators.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <set>
#include <string>

namespace kvffmpeg {
namespace {

using mutation::Bytes;
using mutation::Kind;
using testing::ElementsAre;

/// Values from 1 to 254, so that both 00 and FF are changes.
Bytes original(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(1 + i * 37 % 254);
    return bytes;
}

std::size_t differentBytes(const Bytes& a, const Bytes& b) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < a.size(); ++i) count += a[i] != b[i] ? 1U : 0U;
    return count;
}

std::size_t differentBits(const Bytes& a, const Bytes& b) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        for (unsigned bits = unsigned{a[i]} ^ unsigned{b[i]}; bits != 0; bits &= bits - 1) ++count;
    }
    return count;
}

class EveryMutatorTest : public testing::TestWithParam<Kind> {};

TEST_P(EveryMutatorTest, SameSeedGivesSameBytes) {
    const Bytes bytes = original(5000);
    for (std::uint64_t seed = 0; seed < 50; ++seed) {
        ASSERT_EQ(mutated(bytes, GetParam(), seed), mutated(bytes, GetParam(), seed)) << "seed " << seed;
    }
}

TEST_P(EveryMutatorTest, SeedsGiveDifferentBytes) {
    const Bytes bytes = original(5000);
    std::set<Bytes> results;
    for (std::uint64_t seed = 0; seed < 100; ++seed) results.insert(mutated(bytes, GetParam(), seed));
    EXPECT_GE(results.size(), 90U);
}

TEST_P(EveryMutatorTest, AcceptsFilesOfAnySmallSize) {
    EXPECT_THAT(mutated({}, GetParam(), 1), ElementsAre());
    for (std::size_t size = 1; size <= 40; ++size) {
        for (std::uint64_t seed = 0; seed < 50; ++seed) {
            ASSERT_LE(mutated(original(size), GetParam(), seed).size(), size) << "seed " << seed;
        }
    }
}

TEST_P(EveryMutatorTest, OnlyCutsChangeTheSize) {
    if (GetParam() == Kind::cut) return;
    for (std::uint64_t seed = 0; seed < 50; ++seed) {
        ASSERT_EQ(mutated(original(3000), GetParam(), seed).size(), 3000U) << "seed " << seed;
    }
}

std::string testName(const testing::TestParamInfo<Kind>& kind) {
    std::string name = nameOf(kind.param);
    name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
    return name;
}

INSTANTIATE_TEST_SUITE_P(Kinds, EveryMutatorTest, testing::ValuesIn(mutation::kinds), testName);

TEST(MutatorTest, CutLeavesABeginning) {
    const Bytes bytes = original(3000);
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        const Bytes cut = mutated(bytes, Kind::cut, seed);
        ASSERT_LT(cut.size(), bytes.size()) << "seed " << seed;
        ASSERT_TRUE(std::equal(cut.begin(), cut.end(), bytes.begin())) << "seed " << seed;
    }
}

TEST(MutatorTest, BitFlipsChangeOneToSixteenBits) {
    const Bytes bytes = original(3000);
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        const std::size_t count = differentBits(bytes, mutated(bytes, Kind::bitFlips, seed));
        ASSERT_GE(count, 1U) << "seed " << seed;
        ASSERT_LE(count, 16U) << "seed " << seed;
    }
}

TEST(MutatorTest, BitFlipsEndForAFileOfOneByte) {
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        ASSERT_NE(mutated({7}, Kind::bitFlips, seed), Bytes{7}) << "seed " << seed;
    }
}

TEST(MutatorTest, ByteNoiseChangesUpToOneInFiftyBytes) {
    const Bytes bytes = original(5000);
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        const std::size_t count = differentBytes(bytes, mutated(bytes, Kind::byteNoise, seed));
        ASSERT_GE(count, 1U) << "seed " << seed;
        ASSERT_LE(count, 100U) << "seed " << seed;
    }
}

TEST(MutatorTest, HeaderRunsAreOverwrittenInTheFirst512Bytes) {
    const Bytes bytes = original(3000);
    for (const auto& [kind, value] :
         {std::pair(Kind::headerZeros, 0x00), std::pair(Kind::headerOnes, 0xFF)}) {
        for (std::uint64_t seed = 0; seed < 100; ++seed) {
            const Bytes changed = mutated(bytes, kind, seed);
            const auto isValue = [v = value](std::uint8_t byte) { return byte == v; };
            const auto first = std::find_if(changed.begin(), changed.end(), isValue);
            const auto last = std::find_if_not(first, changed.end(), isValue);
            ASSERT_NE(first, last) << "seed " << seed;
            ASSERT_LE(last - changed.begin(), 512) << "seed " << seed;
            ASSERT_EQ(differentBytes(bytes, changed), static_cast<std::size_t>(last - first))
                << "seed " << seed;
        }
    }
}

TEST(MutatorTest, ExtremesChangeAtMostFourNumbersOfEightBytes) {
    const Bytes bytes = original(3000);
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        const std::size_t count = differentBytes(bytes, mutated(bytes, Kind::extremes, seed));
        ASSERT_GE(count, 1U) << "seed " << seed;
        ASSERT_LE(count, 32U) << "seed " << seed;
    }
}

TEST(MutatorTest, BlockMoveKeepsAllBytes) {
    Bytes bytes = original(3000);
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        Bytes moved = mutated(bytes, Kind::blockMove, seed);
        ASSERT_NE(moved, bytes) << "seed " << seed;
        ASSERT_TRUE(std::is_permutation(moved.begin(), moved.end(), bytes.begin())) << "seed " << seed;
    }
}

TEST(MutatorTest, KindsTakeTurns) {
    std::set<Kind> seen;
    for (std::uint32_t i = 0; i < mutation::kinds.size(); ++i) seen.insert(mutation::kindOf(i));
    EXPECT_EQ(seen.size(), mutation::kinds.size());
}

TEST(MutatorTest, SeedDependsOnSeedFileAndIndex) {
    const std::uint64_t seed = mutation::seedOf(1, "a.mp4", 5);
    EXPECT_EQ(mutation::seedOf(1, "a.mp4", 5), seed);
    EXPECT_NE(mutation::seedOf(2, "a.mp4", 5), seed);
    EXPECT_NE(mutation::seedOf(1, "b.mp4", 5), seed);
    EXPECT_NE(mutation::seedOf(1, "a.mp4", 6), seed);
}

TEST(CutLengthsTest, AreDifferentAscendingAndShorterThanTheFile) {
    for (const std::size_t size : {64U, 65U, 100U, 4096U, 300000U}) {
        const auto lengths = mutation::cutLengths(size, 64);
        ASSERT_EQ(lengths.size(), 64U) << "size " << size;
        EXPECT_EQ(lengths.front(), 0U) << "size " << size;
        EXPECT_EQ(lengths.back(), size - 1) << "size " << size;
        EXPECT_TRUE(std::is_sorted(lengths.begin(), lengths.end())) << "size " << size;
        EXPECT_EQ(std::adjacent_find(lengths.begin(), lengths.end()), lengths.end()) << "size " << size;
    }
}

TEST(CutLengthsTest, OfASmallFileAreAllThereAre) {
    EXPECT_THAT(mutation::cutLengths(3, 64), ElementsAre(0, 1, 2));
    EXPECT_THAT(mutation::cutLengths(0, 64), ElementsAre());
    EXPECT_THAT(mutation::cutLengths(10, 0), ElementsAre());
}

}  // namespace
}  // namespace kvffmpeg
