#include "kernels.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "support/guarded_bytes.h"

namespace kvffmpeg {
namespace {

using kernels::ChromaRows;
using kernels::KeyRule;
using kernels::Variant;
using test::GuardedBytes;
using testing::ElementsAreArray;
using testing::Values;
using testing::ValuesIn;

using Bytes = std::vector<std::uint8_t>;

std::string nameOfVariant(const testing::TestParamInfo<const Variant*>& info) {
    return info.param->name;
}

/// Rows of alpha as they occur: clear, opaque, one value, noise, and stretches of these.
enum class AlphaKind { clear, opaque, noise, stretches };

void fillAlpha(std::uint8_t* alpha, std::ptrdiff_t count, AlphaKind kind, std::mt19937& random) {
    std::uniform_int_distribution<int> byte(0, 255);
    const auto next = [&] { return static_cast<std::uint8_t>(byte(random)); };
    if (kind == AlphaKind::clear || kind == AlphaKind::opaque) {
        std::fill_n(alpha, count, static_cast<std::uint8_t>(kind == AlphaKind::clear ? 0 : 255));
    } else if (kind == AlphaKind::noise) {
        std::generate_n(alpha, count, next);
    } else {
        for (std::ptrdiff_t i = 0; i < count;) {
            const std::ptrdiff_t end = std::min<std::ptrdiff_t>(count, i + 1 + byte(random) / 2);
            const int which = byte(random) % 3;
            for (; i < end; ++i)
                alpha[i] = which == 0 ? std::uint8_t{0} : which == 1 ? std::uint8_t{255} : next();
        }
    }
}

void fillNoise(std::uint8_t* bytes, std::ptrdiff_t count, std::mt19937& random) {
    fillAlpha(bytes, count, AlphaKind::noise, random);
}

constexpr AlphaKind alphaKinds[] = {AlphaKind::clear, AlphaKind::opaque, AlphaKind::noise,
                                    AlphaKind::stretches};
constexpr std::ptrdiff_t longest = 130;
constexpr int alignments = 64;

/// `blend` for every pair of samples at one alpha, the same in every lane that occurs.
int roundedBlend(int destination, int source, int alpha) {
    return (2 * (destination * (255 - alpha) + source * alpha) + 255) / 510;
}

/// Blocks of memory for one operand, so that it can lie against either guard at any alignment.
class Operand {
public:
    Operand() : memory_(3 * 4096) {}
    /// `count` bytes that end `gap` bytes before the page behind or, if `atFront`, begin `gap` bytes behind
    /// the page before.
    std::uint8_t* place(std::ptrdiff_t count, int gap, bool atFront) {
        const auto bytes = static_cast<std::size_t>(count + gap);
        return atFront ? memory_.front() + gap : memory_.back(bytes);
    }

private:
    GuardedBytes memory_;
};

class KernelsTest : public testing::TestWithParam<const Variant*> {
protected:
    void SetUp() override {
        if (!variant().supported()) GTEST_SKIP() << "this CPU does not run " << variant().name;
    }
    static const Variant& variant() { return *GetParam(); }

    /// Calls `check` for all sizes up to 130 with operands that touch a guard, and at all alignments.
    static void forAllPlaces(const std::function<void(std::ptrdiff_t count, int gap, bool atFront)>& check) {
        for (std::ptrdiff_t count = 0; count <= longest; ++count) {
            for (int gap = 0; gap < alignments; ++gap) {
                check(count, gap, false);
                if (HasFatalFailure()) return;
            }
            check(count, 0, true);
            if (HasFatalFailure()) return;
        }
    }

    std::mt19937 random_{2024};
};

INSTANTIATE_TEST_SUITE_P(Variants, KernelsTest, ValuesIn(kernels::all().begin(), kernels::all().end()),
                         nameOfVariant);

TEST(KernelListTest, BeginsWithTheScalarVariantWhichEveryCpuRuns) {
    ASSERT_GT(kernels::all().count, 0U);
    EXPECT_EQ(*kernels::all().begin(), &kernels::scalar);
    EXPECT_TRUE(kernels::scalar.supported());
}

TEST(KernelListTest, UsesTheLastVariantThatTheCpuRuns) {
    const Variant* last = nullptr;
    for (const Variant* variant : kernels::all()) {
        if (variant->supported()) last = variant;
    }
    EXPECT_EQ(&kernels::active(), last);
}

TEST(KernelListTest, TakesAChosenVariantUntilTheChoiceIsTakenBack) {
    const Variant& before = kernels::active();
    kernels::setActive(&kernels::scalar);
    EXPECT_EQ(&kernels::active(), &kernels::scalar);
    kernels::setActive(nullptr);
    EXPECT_EQ(&kernels::active(), &before);
}

// All 256 * 256 * 256 cases of one sample.

TEST_P(KernelsTest, BlendRowRoundsToNearestForEverySampleAndAlpha) {
    Bytes sources(256);
    std::iota(sources.begin(), sources.end(), std::uint8_t{0});
    for (int alpha = 0; alpha < 256; ++alpha) {
        const Bytes alphas(256, static_cast<std::uint8_t>(alpha));
        for (int destination = 0; destination < 256; ++destination) {
            // Vectors of all widths: a long piece, and such as are left at the end of a row.
            for (const std::ptrdiff_t piece : {256, 24}) {
                Bytes blended(256, static_cast<std::uint8_t>(destination));
                for (std::ptrdiff_t i = 0; i < 256; i += piece) {
                    variant().blendRow(blended.data() + i, sources.data() + i, alphas.data() + i,
                                       std::min<std::ptrdiff_t>(piece, 256 - i));
                }
                for (std::size_t source = 0; source < 256; ++source) {
                    ASSERT_EQ(blended[source], roundedBlend(destination, static_cast<int>(source), alpha))
                        << "D " << destination << ", S " << source << ", a " << alpha;
                }
            }
        }
    }
}

TEST_P(KernelsTest, BlendChromaRowsRoundsToNearestForEverySampleAndAlpha) {
    Bytes sources(256);
    std::iota(sources.begin(), sources.end(), std::uint8_t{0});
    for (int alpha = 0; alpha < 256; ++alpha) {
        const Bytes alphas(512, static_cast<std::uint8_t>(alpha));
        for (int destination = 0; destination < 256; ++destination) {
            Bytes u(256, static_cast<std::uint8_t>(destination));
            Bytes v = u;
            ChromaRows row = {};
            row.destination[0] = u.data();
            row.destination[1] = v.data();
            row.source[0] = row.source[1] = sources.data();
            row.alpha = alphas.data();
            row.rows = 1;
            row.count = row.left = 256;
            variant().blendChromaRows(row);
            for (std::size_t source = 0; source < 256; ++source) {
                ASSERT_EQ(u[source], roundedBlend(destination, static_cast<int>(source), alpha))
                    << "D " << destination << ", S " << source << ", a " << alpha;
            }
            ASSERT_EQ(u, v);
        }
    }
}

TEST_P(KernelsTest, PackedRowsRoundToNearestForEverySampleAndAlphaAndKeepTheDestinationsAlpha) {
    for (const bool alphaFirst : {false, true}) {
        const auto blendRow = alphaFirst ? variant().blendArgbRow : variant().blendRgbaRow;
        const std::size_t alphaByte = alphaFirst ? 0 : 3;
        for (int alpha = 0; alpha < 256; ++alpha) {
            Bytes sources(256 * 4);
            for (std::size_t i = 0; i < sources.size(); ++i) {
                sources[i] = static_cast<std::uint8_t>(i % 4 == alphaByte ? alpha : static_cast<int>(i / 4));
            }
            for (int destination = 0; destination < 256; ++destination) {
                Bytes blended(256 * 4, static_cast<std::uint8_t>(destination));
                blendRow(blended.data(), sources.data(), 256);
                for (std::size_t i = 0; i < blended.size(); ++i) {
                    const int expected = i % 4 == alphaByte
                                             ? destination
                                             : roundedBlend(destination, static_cast<int>(i / 4), alpha);
                    ASSERT_EQ(blended[i], expected)
                        << "D " << destination << ", S " << i / 4 << ", a " << alpha << ", byte " << i % 4;
                }
            }
        }
    }
}

TEST_P(KernelsTest, ComposeRowRoundsDownForEverySampleAndAlpha) {
    Bytes sources(256);
    std::iota(sources.begin(), sources.end(), std::uint8_t{0});
    for (int alpha = 0; alpha < 256; ++alpha) {
        Bytes pixels(256 * 4, 77);
        for (std::size_t i = 3; i < pixels.size(); i += 4) pixels[i] = static_cast<std::uint8_t>(alpha);
        for (int destination = 0; destination < 256; ++destination) {
            Bytes blended(256, static_cast<std::uint8_t>(destination));
            variant().composeRow(blended.data(), sources.data(), pixels.data(), 256, 1);
            for (int source = 0; source < 256; ++source) {
                ASSERT_EQ(blended[static_cast<std::size_t>(source)],
                          (source * alpha + destination * (255 - alpha)) / 255)
                    << "D " << destination << ", S " << source << ", a " << alpha;
            }
        }
    }
}

// All sizes and alignments, beside pages that must not be touched, against the scalar form.

TEST_P(KernelsTest, BlendRowEqualsTheScalarFormAtAllSizesAndAlignmentsWithinItsBytes) {
    Operand destination;
    Operand source;
    Operand alpha;
    forAllPlaces([&](std::ptrdiff_t count, int gap, bool atFront) {
        // The three at different alignments, and each in turn against the guard.
        std::uint8_t* d = destination.place(count, gap, atFront);
        std::uint8_t* s = source.place(count, (gap * 5) % alignments, atFront);
        std::uint8_t* a = alpha.place(count, (gap * 11) % alignments, atFront);
        fillNoise(d, count, random_);
        fillNoise(s, count, random_);
        fillAlpha(a, count, alphaKinds[(count + gap) % 4], random_);
        Bytes expected(d, d + count);
        kernels::scalar.blendRow(expected.data(), s, a, count);
        variant().blendRow(d, s, a, count);
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), d)) << count << " samples, " << gap;
    });
}

TEST_P(KernelsTest, PackedRowsEqualTheScalarFormAtAllSizesAndAlignmentsWithinTheirBytes) {
    Operand destination;
    Operand source;
    for (const auto kernel : {&Variant::blendRgbaRow, &Variant::blendArgbRow}) {
        const int alphaByte = kernel == &Variant::blendArgbRow ? 0 : 3;
        forAllPlaces([&](std::ptrdiff_t count, int gap, bool atFront) {
            std::uint8_t* d = destination.place(4 * count, gap, atFront);
            std::uint8_t* s = source.place(4 * count, (gap * 5) % alignments, atFront);
            fillNoise(d, 4 * count, random_);
            fillNoise(s, 4 * count, random_);
            Bytes alphas(static_cast<std::size_t>(count));
            fillAlpha(alphas.data(), count, alphaKinds[(count + gap) % 4], random_);
            for (std::ptrdiff_t i = 0; i < count; ++i)
                s[4 * i + alphaByte] = alphas[static_cast<std::size_t>(i)];
            Bytes expected(d, d + 4 * count);
            (kernels::scalar.*kernel)(expected.data(), s, count);
            (variant().*kernel)(d, s, count);
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), d)) << count << " pixels, " << gap;
        });
    }
}

TEST_P(KernelsTest, BlendChromaRowsEqualsTheScalarFormAtAllSizesAndAlignmentsWithinItsBytes) {
    Operand destination[2];
    Operand source[2];
    Operand upper;
    Operand lower;
    for (const std::ptrdiff_t beyond : {0, 1, 2, 3, 40}) {  // columns of the overlay after the last blended
        for (const bool oddWidth : {false, true}) {         // the last one covers one column of alpha
            for (const bool lastRow : {false, true}) {
                forAllPlaces([&](std::ptrdiff_t count, int gap, bool atFront) {
                    if (count == 0 && beyond == 0) return;  // no column at all
                    ChromaRows row = {};
                    for (int plane = 0; plane < 2; ++plane) {
                        row.destination[plane] =
                            destination[plane].place(count, (gap * (plane + 1)) % alignments, atFront);
                        std::uint8_t* s =
                            source[plane].place(count, (gap * (plane + 5)) % alignments, atFront);
                        fillNoise(row.destination[plane], count, random_);
                        fillNoise(s, count, random_);
                        row.source[plane] = s;
                    }
                    row.count = count;
                    row.left = count + beyond;
                    const std::ptrdiff_t alphas = 2 * row.left - (oddWidth ? 1 : 0);
                    std::uint8_t* u = upper.place(alphas, (gap * 11) % alignments, atFront);
                    std::uint8_t* l = lower.place(alphas, (gap * 13) % alignments, atFront);
                    const AlphaKind kind = alphaKinds[(count + gap) % 4];
                    fillAlpha(u, alphas, kind, random_);
                    fillAlpha(l, alphas, gap % 3 == 0 ? AlphaKind::noise : kind, random_);
                    row.alpha = u;
                    // The two rows are not of one block, so that each touches a guard.
                    row.alphaLinesize = static_cast<std::ptrdiff_t>(reinterpret_cast<std::uintptr_t>(l) -
                                                                    reinterpret_cast<std::uintptr_t>(u));
                    row.rows = 1;
                    row.endsOverlay = lastRow;

                    Bytes expected[2];
                    ChromaRows reference = row;
                    for (int plane = 0; plane < 2; ++plane) {
                        expected[plane].assign(row.destination[plane], row.destination[plane] + count);
                        reference.destination[plane] = expected[plane].data();
                    }
                    kernels::scalar.blendChromaRows(reference);
                    variant().blendChromaRows(row);
                    for (int plane = 0; plane < 2; ++plane) {
                        ASSERT_TRUE(std::equal(expected[plane].begin(), expected[plane].end(),
                                               row.destination[plane]))
                            << count << " columns, " << row.left << " left, gap " << gap << ", plane "
                            << plane << (lastRow ? ", last row" : "");
                    }
                });
            }
        }
    }
}

TEST_P(KernelsTest, ComposeRowEqualsTheScalarFormAtAllSizesAndAlignmentsWithinItsBytes) {
    Operand destination;
    Operand source;
    Operand overlay;
    for (const int pixelsPerSample : {1, 2}) {
        forAllPlaces([&](std::ptrdiff_t count, int gap, bool atFront) {
            std::uint8_t* d = destination.place(count, gap, atFront);
            std::uint8_t* s = source.place(count, (gap * 5) % alignments, atFront);
            const std::ptrdiff_t pixelBytes = 4 * count * pixelsPerSample;
            std::uint8_t* pixels = overlay.place(pixelBytes, (gap * 11) % alignments, atFront);
            fillNoise(d, count, random_);
            fillNoise(s, count, random_);
            fillNoise(pixels, pixelBytes, random_);
            Bytes alphas(static_cast<std::size_t>(pixelBytes / 4));
            fillAlpha(alphas.data(), pixelBytes / 4, alphaKinds[(count + gap) % 4], random_);
            for (std::size_t i = 0; i < alphas.size(); ++i) pixels[4 * i + 3] = alphas[i];
            Bytes expected(d, d + count);
            kernels::scalar.composeRow(expected.data(), s, pixels, count, pixelsPerSample);
            variant().composeRow(d, s, pixels, count, pixelsPerSample);
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), d)) << count << " samples, " << gap;
        });
    }
}

TEST_P(KernelsTest, MapRowLooksUpEveryByteAtAllSizesAndAlignmentsWithinItsBytes) {
    Bytes table(256);
    fillNoise(table.data(), 256, random_);
    Operand operand;
    Operand entries;
    std::uint8_t* guardedTable = entries.place(256, 0, false);
    std::copy(table.begin(), table.end(), guardedTable);
    const auto check = [&](std::ptrdiff_t count, int gap, bool atFront) {
        std::uint8_t* row = operand.place(count, gap, atFront);
        fillNoise(row, count, random_);
        Bytes expected(row, row + count);
        for (std::uint8_t& byte : expected) byte = table[byte];
        variant().mapRow(row, count, guardedTable);
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), row)) << count << " bytes, " << gap;
    };
    forAllPlaces(check);
    for (const std::ptrdiff_t count : {255, 256, 257, 511, 1000}) check(count, 0, false);
}

TEST_P(KernelsTest, MapRowFindsEachEntryOfTheTable) {
    Bytes table(256);
    for (std::size_t i = 0; i < 256; ++i) table[i] = static_cast<std::uint8_t>(i * 167 + 13);
    Bytes row(256);
    std::iota(row.begin(), row.end(), std::uint8_t{0});
    variant().mapRow(row.data(), 256, table.data());
    EXPECT_THAT(row, ElementsAreArray(table));
}

std::vector<KeyRule> keyRules() {
    std::vector<KeyRule> rules;
    const float inf = std::numeric_limits<float>::infinity();
    for (const int threshold :
         {0, 1, 650, 16256, 65024, 65535, 65536, 130050, std::numeric_limits<int>::max()}) {
        rules.push_back(kernels::keyRule(44, 21, threshold, 0));
        for (const float divisor :
             {1e-42F, 1e-30F, 0.001F, 0.255F, 1.0F, 25.5F, 63.75F, 255.0F, 1e5F, 1e38F, inf}) {
            rules.push_back(kernels::keyRule(200, 99, threshold, divisor));
        }
    }
    return rules;
}

/// From the definition, in steps that the scalar variant does not share.
int keyAlpha(int u, int v, const KeyRule& rule) {
    const long distance = std::lround(std::pow(u - rule.u, 2) + std::pow(v - rule.v, 2));
    if (!rule.soft) return distance > rule.threshold ? 255 : 0;
    const float quotient = static_cast<float>(distance - rule.threshold) / rule.divisor;
    if (quotient >= 255) return 255;
    return quotient <= 0 ? 0 : static_cast<int>(std::floor(quotient));
}

TEST_P(KernelsTest, RepeatRowRepeatsThePatternAtAllSizesAndAlignmentsWithinItsBytes) {
    Operand operand;
    Operand entries;
    std::uint8_t* pattern = entries.place(kernels::patternBytes, 0, false);
    fillNoise(pattern, kernels::patternBytes, random_);
    const auto check = [&](std::ptrdiff_t count, int gap, bool atFront) {
        std::uint8_t* row = operand.place(count, gap, atFront);
        Bytes expected(static_cast<std::size_t>(count));
        for (std::size_t i = 0; i < expected.size(); ++i) expected[i] = pattern[i % kernels::patternBytes];
        variant().repeatRow(row, count, pattern);
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), row)) << count << " bytes, " << gap;
    };
    forAllPlaces(check);
    for (const std::ptrdiff_t count : {191, 192, 193, 255, 256, 257, 383, 384, 385, 1000})
        check(count, 0, false);
}

TEST(KeyRuleTest, KnowsFromWhereToWhereAlphaRises) {
    const KeyRule hard = kernels::keyRule(0, 0, 650, 0);
    EXPECT_FALSE(hard.soft);
    EXPECT_EQ(hard.clearUpTo, 650);
    EXPECT_EQ(hard.opaqueFrom, 651);
    const KeyRule soft = kernels::keyRule(0, 0, 650, 25.5F);
    EXPECT_TRUE(soft.soft);
    EXPECT_EQ(soft.clearUpTo, 650 + 25);
    EXPECT_EQ(soft.opaqueFrom, 650 + 6503);  // 255 * 25.5 is 6502.5
    const KeyRule never = kernels::keyRule(0, 0, 1000000, 0);
    EXPECT_EQ(never.clearUpTo, 2 * 255 * 255);
    EXPECT_GT(never.opaqueFrom, 2 * 255 * 255);
}

TEST_P(KernelsTest, KeyRowFollowsItsRuleForEveryChroma) {
    for (const KeyRule& rule : keyRules()) {
        Bytes u(256);
        std::iota(u.begin(), u.end(), std::uint8_t{0});
        for (int value = 0; value < 256; ++value) {
            const Bytes v(256, static_cast<std::uint8_t>(value));
            Bytes upper(512, 1);
            Bytes lower(512, 2);
            variant().keyRow(upper.data(), lower.data(), u.data(), v.data(), 256, rule);
            for (std::size_t i = 0; i < 512; ++i) {
                ASSERT_EQ(upper[i], keyAlpha(static_cast<int>(i / 2), value, rule))
                    << "U " << i / 2 << ", V " << value << ", threshold " << rule.threshold << ", divisor "
                    << (rule.soft ? rule.divisor : 0.0F);
            }
            ASSERT_EQ(upper, lower);
        }
    }
}

TEST_P(KernelsTest, KeyRowEqualsTheScalarFormAtAllSizesAndAlignmentsWithinItsBytes) {
    Operand upper;
    Operand lower;
    Operand chroma[2];
    for (const KeyRule& rule : {kernels::keyRule(44, 21, 16256, 0), kernels::keyRule(120, 130, 650, 25.5F)}) {
        forAllPlaces([&](std::ptrdiff_t count, int gap, bool atFront) {
            std::uint8_t* u = chroma[0].place(count, gap, atFront);
            std::uint8_t* v = chroma[1].place(count, (gap * 5) % alignments, atFront);
            fillNoise(u, count, random_);
            fillNoise(v, count, random_);
            std::uint8_t* a = upper.place(2 * count, (gap * 11) % alignments, atFront);
            std::uint8_t* b = lower.place(2 * count, (gap * 13) % alignments, atFront);
            Bytes expected[2] = {Bytes(static_cast<std::size_t>(2 * count)),
                                 Bytes(static_cast<std::size_t>(2 * count))};
            kernels::scalar.keyRow(expected[0].data(), expected[1].data(), u, v, count, rule);
            variant().keyRow(a, b, u, v, count, rule);
            ASSERT_TRUE(std::equal(expected[0].begin(), expected[0].end(), a))
                << count << " samples, " << gap;
            ASSERT_TRUE(std::equal(expected[1].begin(), expected[1].end(), b))
                << count << " samples, " << gap;
        });
    }
}

// The scalar form takes memory that overlaps, from the left.

TEST(ScalarKernelTest, BlendRowReadsWhatItWroteFurtherLeft) {
    Bytes row = {10, 20, 30, 40};
    const Bytes opaque(3, 255);
    kernels::scalar.blendRow(row.data() + 1, row.data(), opaque.data(), 3);
    EXPECT_THAT(row, ElementsAreArray({10, 10, 10, 10}));
}

}  // namespace
}  // namespace kvffmpeg
