#include "mask_kernels.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "kernels.h"
#include "support/guarded_bytes.h"
#include "support/media.h"

namespace kvffmpeg {
namespace {

using kernels::ChromaTarget;
using kernels::Coverage;
using kernels::MaskKernels;
using kernels::Variant;
using test::GuardedBytes;
using testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;

constexpr std::ptrdiff_t longest = 130;
/// Of the colour: opaque, nearly so, translucent, nearly clear, clear.
constexpr std::uint32_t opacities[] = {kernels::opaque, kernels::opaque - 1, 40000, 259, 0};

/// What one sample becomes.
int expected(std::uint32_t sample, std::uint32_t value, std::uint32_t coverage, std::uint32_t opacity) {
    const std::uint64_t weight = std::uint64_t{coverage} * opacity;
    return static_cast<int>(((0x1010101 - weight) * sample + weight * value) >> 24);
}

/// Glyphs are clear and opaque for the most part.
void fillCoverage(std::uint8_t* bytes, std::ptrdiff_t count, std::mt19937& random) {
    for (std::ptrdiff_t i = 0; i < count;) {
        const std::ptrdiff_t end = std::min<std::ptrdiff_t>(count, i + 1 + static_cast<int>(random() % 40));
        const auto which = random() % 3;
        for (; i < end; ++i) {
            bytes[i] = which == 0 ? std::uint8_t{0} : which == 1 ? std::uint8_t{255} : std::uint8_t(random());
        }
    }
}

class MaskKernelsTest : public testing::TestWithParam<const Variant*> {
protected:
    void SetUp() override {
        if (!GetParam()->supported()) GTEST_SKIP() << "this CPU does not run " << GetParam()->name;
    }
    static const MaskKernels& masks() { return *GetParam()->masks; }

    Bytes noise(std::ptrdiff_t count) {
        Bytes bytes(static_cast<std::size_t>(count));
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(random_()); });
        return bytes;
    }

    std::mt19937 random_{7};
};

INSTANTIATE_TEST_SUITE_P(Variants, MaskKernelsTest,
                         testing::ValuesIn(kernels::all().begin(), kernels::all().end()),
                         [](const auto& test) { return std::string(test.param->name); });

TEST_P(MaskKernelsTest, BlendsWithFullCoverageToTheColourAndKeepsWhatIsClear) {
    Bytes samples{10, 20, 30};
    const Bytes mask{0, 255, 128};
    masks().blendBytes(samples.data(), 3, 200, {mask.data(), 3, 3, 1, kernels::opaque});
    EXPECT_THAT(samples, ElementsAre(10, 200, 115));
}

TEST_P(MaskKernelsTest, BlendBytesFollowsItsRuleForEverySampleValueAndCoverage) {
    Bytes mask(256);
    std::iota(mask.begin(), mask.end(), std::uint8_t{0});
    for (const std::uint32_t opacity : {kernels::opaque, 26000U}) {
        for (int value = 0; value < 256; ++value) {
            for (int sample = 0; sample < 256; ++sample) {
                Bytes samples(256, static_cast<std::uint8_t>(sample));
                masks().blendBytes(samples.data(), 256, static_cast<std::uint8_t>(value),
                                   {mask.data(), 256, 256, 1, opacity});
                for (std::size_t m = 0; m < 256; ++m) {
                    ASSERT_EQ(samples[m],
                              expected(static_cast<unsigned>(sample), static_cast<unsigned>(value),
                                       static_cast<unsigned>(m), opacity))
                        << "D " << sample << ", S " << value << ", m " << m << ", opacity " << opacity;
                }
            }
        }
    }
}

TEST_P(MaskKernelsTest, BlendPixelsFollowsItsRuleForEverySampleAndCoverageAndKeepsUnusedBytes) {
    Bytes mask(256);
    std::iota(mask.begin(), mask.end(), std::uint8_t{0});
    const std::uint8_t values[4] = {0, 77, 200, 255};
    for (const std::uint32_t opacity : opacities) {
        for (unsigned used = 0; used < 16; ++used) {
            for (unsigned sample = 0; sample < 256; sample += 3) {
                Bytes pixels(4 * 256, static_cast<std::uint8_t>(sample));
                masks().blendPixels(pixels.data(), 4 * 256, values, used,
                                    {mask.data(), 256, 256, 1, opacity});
                for (std::size_t i = 0; i < pixels.size(); ++i) {
                    const bool isUsed = (used >> i % 4 & 1) != 0;
                    const int wanted =
                        isUsed ? expected(sample, values[i % 4], static_cast<unsigned>(i / 4), opacity)
                               : static_cast<int>(sample);
                    ASSERT_EQ(pixels[i], wanted)
                        << "D " << sample << ", byte " << i << ", used " << used << ", opacity " << opacity;
                }
            }
        }
    }
}

TEST_P(MaskKernelsTest, BlendChromaTakesTheAverageOfFourPixels) {
    const Bytes mask{255, 255, 100, 0,  //
                     255, 255, 0,   3};
    Bytes u{10, 10}, v{20, 20};
    masks().blendChroma({{u.data(), v.data()}, {2, 2}, {200, 100}, false, false},
                        {mask.data(), 4, 4, 2, kernels::opaque});
    EXPECT_THAT(u, ElementsAre(200, expected(10, 200, 103 / 4, kernels::opaque)));
    EXPECT_THAT(v, ElementsAre(100, expected(20, 100, 103 / 4, kernels::opaque)));
}

TEST_P(MaskKernelsTest, BlendChromaCountsPixelsBeyondTheMaskAsClear) {
    const Bytes mask(9, 255);
    // Three by three, from the lower right pixel of the first sample on, and to the upper left of the last.
    for (const bool isShifted : {false, true}) {
        Bytes u(4, 0), v(4, 0);
        masks().blendChroma({{u.data(), v.data()}, {2, 2}, {255, 255}, isShifted, isShifted},
                            {mask.data(), 3, 3, 3, kernels::opaque});
        if (isShifted) {
            EXPECT_THAT(u, ElementsAre(63, 127, 127, 255));
        } else {
            EXPECT_THAT(u, ElementsAre(255, 127, 127, 63));
        }
        EXPECT_EQ(u, v);
    }
}

TEST_P(MaskKernelsTest, NothingHappensWithoutRowsOrColumns) {
    Bytes samples(64, 9), others(64, 9);
    const Bytes before = samples;
    const std::uint8_t values[4] = {1, 2, 3, 4};
    for (const auto& [columns, rows] : {std::pair(0, 0), std::pair(0, 3), std::pair(3, 0)}) {
        const Bytes mask(64, 255);
        const Coverage coverage{mask.data(), 8, columns, rows, kernels::opaque};
        masks().blendBytes(samples.data(), 8, 200, coverage);
        masks().blendPixels(samples.data(), 8, values, 15, coverage);
        masks().blendChroma({{samples.data(), others.data()}, {8, 8}, {1, 2}, false, false}, coverage);
        masks().blendChroma({{samples.data(), others.data()}, {8, 8}, {1, 2}, true, true}, coverage);
        EXPECT_EQ(samples, before);
        EXPECT_EQ(others, before);
    }
}

// All sizes at all alignments, with the last row against a page that must not be touched, or the first one.

TEST_P(MaskKernelsTest, BytesEqualTheScalarFormAtAllSizesAndAlignmentsWithinTheirBytes) {
    GuardedBytes sampleMemory(4096), maskMemory(4096);
    for (std::ptrdiff_t columns = 0; columns <= longest; ++columns) {
        for (std::ptrdiff_t gap = 0; gap < 32; ++gap) {
            const std::uint32_t opacity = opacities[static_cast<std::size_t>(gap) % 5];
            constexpr std::ptrdiff_t rows = 3;
            const std::ptrdiff_t linesize = columns + gap;
            const auto count = static_cast<std::size_t>(rows * linesize - gap);
            std::uint8_t* samples = gap == 31 ? sampleMemory.front() : sampleMemory.back(columns ? count : 0);
            std::uint8_t* mask = gap == 31 ? maskMemory.front() : maskMemory.back(columns ? count : 0);
            if (columns == 0) continue;
            fillCoverage(mask, static_cast<std::ptrdiff_t>(count), random_);
            const Bytes before = noise(static_cast<std::ptrdiff_t>(count));
            Bytes wanted = before;
            const auto value = static_cast<std::uint8_t>(random_());
            const Coverage coverage{mask, linesize, columns, rows, opacity};
            kernels::scalarMasks.blendBytes(wanted.data(), linesize, value, coverage);
            std::copy(before.begin(), before.end(), samples);
            masks().blendBytes(samples, linesize, value, coverage);
            ASSERT_EQ(Bytes(samples, samples + count), wanted)
                << columns << " columns, gap " << gap << ", opacity " << opacity;
            // From the bottom up.
            std::copy(before.begin(), before.end(), samples);
            const Coverage upwards{mask + 2 * linesize, -linesize, columns, rows, opacity};
            masks().blendBytes(samples + 2 * linesize, -linesize, value, upwards);
            ASSERT_EQ(Bytes(samples, samples + count), wanted) << columns << " columns, upwards";
        }
    }
}

TEST_P(MaskKernelsTest, PixelsEqualTheScalarFormAtAllSizesAndAlignmentsWithinTheirBytes) {
    GuardedBytes pixelMemory(8192), maskMemory(4096);
    for (std::ptrdiff_t columns = 1; columns <= longest; ++columns) {
        for (std::ptrdiff_t gap = 0; gap < 16; ++gap) {
            const std::uint32_t opacity = opacities[static_cast<std::size_t>(gap) % 5];
            constexpr std::ptrdiff_t rows = 2;
            const std::ptrdiff_t linesize = 4 * columns + gap;
            const std::ptrdiff_t maskLinesize = columns + gap;
            const auto count = static_cast<std::size_t>(rows * linesize - gap);
            const auto maskCount = static_cast<std::size_t>(rows * maskLinesize - gap);
            std::uint8_t* pixels = gap == 15 ? pixelMemory.front() : pixelMemory.back(count);
            std::uint8_t* mask = gap == 15 ? maskMemory.front() : maskMemory.back(maskCount);
            fillCoverage(mask, static_cast<std::ptrdiff_t>(maskCount), random_);
            const Bytes before = noise(static_cast<std::ptrdiff_t>(count));
            const Bytes values = noise(4);
            const unsigned used = gap % 3 == 0 ? 15U : static_cast<unsigned>(random_()) % 16;
            const Coverage coverage{mask, maskLinesize, columns, rows, opacity};
            Bytes wanted = before;
            kernels::scalarMasks.blendPixels(wanted.data(), linesize, values.data(), used, coverage);
            std::copy(before.begin(), before.end(), pixels);
            masks().blendPixels(pixels, linesize, values.data(), used, coverage);
            ASSERT_EQ(Bytes(pixels, pixels + count), wanted)
                << columns << " columns, gap " << gap << ", used " << used << ", opacity " << opacity;
        }
    }
}

TEST_P(MaskKernelsTest, ChromaEqualsTheScalarFormAtAllSizesAndPlacesWithinItsBytes) {
    GuardedBytes uMemory(4096), vMemory(4096), maskMemory(4096);
    for (std::ptrdiff_t columns = 1; columns <= longest; ++columns) {
        for (int place = 0; place < 40; ++place) {
            const std::uint32_t opacity = opacities[static_cast<std::size_t>(place) % 5];
            const bool startsRight = (place & 1) != 0;
            const bool startsLow = (place & 2) != 0;
            const std::ptrdiff_t rows = 1 + (place >> 2) % 4;
            const std::ptrdiff_t gap = place / 5;
            const std::ptrdiff_t maskLinesize = columns + gap;
            const std::ptrdiff_t linesize = (columns + 2) / 2 + gap;
            const std::ptrdiff_t samplesPerRow = (columns + (startsRight ? 1 : 0) + 1) / 2;
            const std::ptrdiff_t sampleRows = (rows + (startsLow ? 1 : 0) + 1) / 2;
            const auto maskCount = static_cast<std::size_t>((rows - 1) * maskLinesize + columns);
            const auto count = static_cast<std::size_t>((sampleRows - 1) * linesize + samplesPerRow);
            const bool atFront = place % 7 == 0;
            std::uint8_t* mask = atFront ? maskMemory.front() : maskMemory.back(maskCount);
            std::uint8_t* u = atFront ? uMemory.front() : uMemory.back(count);
            std::uint8_t* v = atFront ? vMemory.front() : vMemory.back(count);
            fillCoverage(mask, static_cast<std::ptrdiff_t>(maskCount), random_);
            const Bytes uBefore = noise(static_cast<std::ptrdiff_t>(count));
            const Bytes vBefore = noise(static_cast<std::ptrdiff_t>(count));
            const Bytes values = noise(2);
            const Coverage coverage{mask, maskLinesize, columns, rows, opacity};
            Bytes wantedU = uBefore, wantedV = vBefore;
            kernels::scalarMasks.blendChroma({{wantedU.data(), wantedV.data()},
                                              {linesize, linesize},
                                              {values[0], values[1]},
                                              startsRight,
                                              startsLow},
                                             coverage);
            std::copy(uBefore.begin(), uBefore.end(), u);
            std::copy(vBefore.begin(), vBefore.end(), v);
            masks().blendChroma(
                {{u, v}, {linesize, linesize}, {values[0], values[1]}, startsRight, startsLow}, coverage);
            ASSERT_EQ(Bytes(u, u + count), wantedU) << columns << " columns, place " << place;
            ASSERT_EQ(Bytes(v, v + count), wantedV) << columns << " columns, place " << place;
        }
    }
}

// Through the function that picks a kernel for each plane, in formats that take all of its ways.

class MaskVariantTest : public MaskKernelsTest {
protected:
    void TearDown() override { kernels::setActive(nullptr); }
};

INSTANTIATE_TEST_SUITE_P(DrawingVariants, MaskVariantTest,
                         testing::ValuesIn(kernels::all().begin(), kernels::all().end()),
                         [](const auto& test) { return std::string(test.param->name); });

TEST_P(MaskVariantTest, DrawsInEveryFormatWhatTheScalarFormDraws) {
    constexpr int maskSize = 37;
    Bytes mask(maskSize * maskSize);
    fillCoverage(mask.data(), maskSize * maskSize, random_);
    const auto drawn = [&](const Variant& variant, AVPixelFormat format, unsigned flags, const Color& color,
                           point_t position) {
        kernels::setActive(&variant);
        FFDrawContext context;
        EXPECT_EQ(ff_draw_init(&context, format, flags), 0);
        const FFDrawColor made = initDrawColor(context, color);
        Picture picture = test::randomPicture({53, 41}, format);
        ff_blend_mask(&context, &made, picture.getPlanes(), picture.getLinesize(), 53, 41, mask.data(),
                      maskSize, maskSize, maskSize, 3, 0, position.x, position.y);
        return test::visibleBytes(picture);
    };
    for (const AVPixelFormat format :
         {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P, AV_PIX_FMT_YUV422P, AV_PIX_FMT_YUV444P, AV_PIX_FMT_YUV410P,
          AV_PIX_FMT_NV12, AV_PIX_FMT_GRAY8, AV_PIX_FMT_YA8, AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA,
          AV_PIX_FMT_ARGB, AV_PIX_FMT_0RGB, AV_PIX_FMT_RGB0, AV_PIX_FMT_GBRP, AV_PIX_FMT_GBRAP,
          AV_PIX_FMT_YUV420P10LE, AV_PIX_FMT_GRAY10LE, AV_PIX_FMT_YA16LE}) {
        for (const unsigned flags : {0U, FF_DRAW_PROCESS_ALPHA}) {
            for (const Color& color : {Color(250, 120, 30), Color(20, 40, 250, 99)}) {
                for (const point_t position :
                     {point_t{8, 2}, point_t{3, 5}, point_t{-7, -10}, point_t{30, 21}}) {
                    ASSERT_EQ(drawn(*GetParam(), format, flags, color, position),
                              drawn(kernels::scalar, format, flags, color, position))
                        << "format " << format << ", flags " << flags << ", at " << position;
                }
            }
        }
    }
}

}  // namespace
}  // namespace kvffmpeg
