// The drawing functions against the filters of libavfilter that draw with the same ones, byte for byte.

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "ffmpeg_compat.h"
#include "support/filter_presence.h"
#include "support/media.h"

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::Gt;
using testing::Lt;

std::string nameOf(AVPixelFormat format) {
    return av_get_pix_fmt_name(format);
}

/// A colour as filters read it.
std::string text(const Color& color) {
    constexpr const char* digits = "0123456789abcdef";
    std::string hex = "0x";
    for (unsigned value : {color.red, color.green, color.blue, color.alpha}) {
        hex += digits[value >> 4];
        hex += digits[value & 15];
    }
    return hex;
}

/// What the filter makes of the picture; an empty picture when the installed libavfilter cannot run it.
Picture filtered(const std::string& filter, Picture picture) {
    try {
        FFmpegFilterWrapper wrapper;
        wrapper.setFilterSpec(filter);
        return wrapper.processPicture(picture);
    } catch (const std::exception&) {
        return {};
    }
}

constexpr const char* pad = "pad=32:32:8:8";
constexpr const char* drawtext = "drawtext=font=DejaVu Sans:expansion=none:text=Q";

/// Skips the test, saying so, where the filter is missing; one that is there has to run.
#define KVFFMPEG_REQUIRE_FILTER(filter, ...)                                          \
    if (filtered(filter, test::randomPicture({16, 16}, AV_PIX_FMT_RGB24)).empty()) {  \
        ASSERT_FALSE(test::hasFilter(__VA_ARGS__)) << "does not run: " << (filter);   \
        GTEST_SKIP() << "the installed libavfilter does not have what this compares"; \
    }                                                                                 \
    static_assert(true, "")

/// Whether the filters of the first releases draw on the format with bytes that they never set, or not with
/// the colour given.
bool haveNoColor(AVPixelFormat format) {
    constexpr AVPixelFormat formats[] = {AV_PIX_FMT_YA8, AV_PIX_FMT_YA16LE, AV_PIX_FMT_XYZ12LE,
                                         AV_PIX_FMT_NV20LE, AV_PIX_FMT_P016LE};
    return compat::ffmpegRelease < 5 &&
           std::find(std::begin(formats), std::end(formats), format) != std::end(formats);
}

/// The formats that the filter draws on as they are. Which those are depends on the release.
std::vector<AVPixelFormat> formatsDrawnOnBy(const std::string& filter) {
    std::vector<AVPixelFormat> formats;
    for (const AVPixFmtDescriptor* d = av_pix_fmt_desc_next(nullptr); d; d = av_pix_fmt_desc_next(d)) {
        const AVPixelFormat format = av_pix_fmt_desc_get_id(d);
        FFDrawContext context;
        if (ff_draw_init(&context, format, 0) < 0 || haveNoColor(format)) continue;
        const bool drawnOn = filtered(filter, test::randomPicture({16, 16}, format)).pixelFormat() == format;
        if (drawnOn) formats.push_back(format);
        // With FFmpeg 5 all that we draw on.
        if (compat::ffmpegRelease == 5) {
            EXPECT_TRUE(drawnOn) << av_get_pix_fmt_name(format);
        }
    }
    EXPECT_GE(formats.size(), 65U);
    return formats;
}

/// The bytes of a picture's visible samples; without those that no component uses, which the releases of
/// libavfilter treat differently.
std::vector<std::uint8_t> usedBytes(const Picture& picture) {
    std::vector<std::uint8_t> bytes = test::visibleBytes(picture);
    const AVPixFmtDescriptor& format = *av_pix_fmt_desc_get(picture.pixelFormat());
    const int step = format.comp[0].step;
    if (format.nb_components != 3 || format.comp[1].plane != 0 || step != 4) return bytes;
    std::size_t unused = 0;
    while (format.comp[0].offset == static_cast<int>(unused) ||
           format.comp[1].offset == static_cast<int>(unused) ||
           format.comp[2].offset == static_cast<int>(unused)) {
        ++unused;
    }
    for (std::size_t i = unused; i < bytes.size(); i += 4) bytes[i] = 0;
    return bytes;
}

/// The colour that libavfilter makes of `color`, read from what a filter has filled with it. Its releases
/// round differently from ours, so that positions, sizes and blending are compared with its own colours.
FFDrawColor theirColor(const FFDrawContext& context, const Color& color) {
    FFDrawColor made = initDrawColor(context, color);
    const Picture filled =
        filtered("pad=16:16:8:8:" + text(color), test::randomPicture({8, 8}, context.format));
    for (unsigned p = 0; p < context.nb_planes; ++p) {
        std::memcpy(made.comp[p].u8, filled.getPlanes()[p], static_cast<std::size_t>(context.pixelstep[p]));
    }
    return made;
}

// ---- Colours

/// Colours that the integers of the first releases and the floating point of the later ones give alike.
const std::vector<Color>& limitedColors() {
    static const std::vector<Color> colors{
        {0, 0, 0},       {255, 255, 255}, {255, 0, 0},   {0, 0, 255},     {255, 255, 0},    {255, 0, 255},
        {128, 128, 128}, {0, 128, 0},     {255, 165, 0}, {0, 0, 128},     {128, 0, 0},      {255, 225, 255},
        {64, 64, 64},    {192, 192, 192}, {18, 52, 86},  {171, 205, 239}, {255, 0, 0, 100}, {0, 0, 0, 0}};
    return colors;
}

const std::vector<Color>& fullColors() {
    static const std::vector<Color> colors{{0, 0, 0},   {255, 255, 255}, {128, 128, 128}, {255, 165, 0},
                                           {128, 0, 0}, {64, 64, 64},    {192, 192, 192}};
    return colors;
}

const std::vector<Color>& colorsOf(const FFDrawContext& context) {
    return context.full_range ? fullColors() : limitedColors();
}

/// Draws as the installed release does: with the luma range that it gives the format, if ours can.
/// @returns false when it cannot: ours draws full range on formats that are full range.
bool matchRange(FFDrawContext& context) {
    if ((context.desc->flags & AV_PIX_FMT_FLAG_RGB) != 0) return true;
    const AVComponentDescriptor& luma = context.desc->comp[0];
    const bool theirs = theirColor(context, {255, 255, 255}).comp[luma.plane].u8[luma.offset] == 255;
    if (!theirs && context.full_range) return false;
    context = initDrawContext(context.format, theirs);
    return true;
}

/// The formats of 8 bits whose colours can be compared, prepared for drawing.
std::vector<FFDrawContext> comparableContexts() {
    std::vector<FFDrawContext> contexts;
    for (AVPixelFormat format : formatsDrawnOnBy(pad)) {
        FFDrawContext context = initDrawContext(format, false);
        if (context.desc->comp[0].depth != 8) continue;
        if (matchRange(context)) contexts.push_back(context);
    }
    EXPECT_GE(contexts.size(), 20U);
    return contexts;
}

TEST(FFDrawOracleTest, ColorsOfEightBitFormatsEqualThoseOfPad) {
    KVFFMPEG_REQUIRE_FILTER(pad, "pad");
    for (const FFDrawContext& context : comparableContexts()) {
        for (const Color& color : colorsOf(context)) {
            const Picture source = test::randomPicture({8, 8}, context.format);
            const Picture theirs = filtered(pad + (":" + text(color)), source);
            Picture ours({32, 32}, context.format);
            const FFDrawColor made = initDrawColor(context, color);
            ff_fill_rectangle(&context, &made, ours.getPlanes(), ours.getLinesize(), 0, 0, 32, 32);
            ff_copy_rectangle2(&context, ours.getPlanes(), ours.getLinesize(), source.getPlanes(),
                               source.getLinesize(), 8, 8, 0, 0, 8, 8);
            ASSERT_EQ(usedBytes(ours), usedBytes(theirs)) << nameOf(context.format) << " " << text(color);
        }
    }
}

TEST(FFDrawOracleTest, ColorsOfEightBitFormatsEqualThoseOfColor) {
    // The source makes pictures of its own; the one that is pushed goes nowhere.
    const auto source = [](const Color& color, AVPixelFormat format) {
        return "[in]nullsink;color=c=" + text(color) + ":s=32x16,format=" + nameOf(format) + "[out]";
    };
    KVFFMPEG_REQUIRE_FILTER(source({0, 0, 0}, AV_PIX_FMT_YUV420P), "color");
    for (const FFDrawContext& context : comparableContexts()) {
        for (const Color& color : colorsOf(context)) {
            const Picture theirs =
                filtered(source(color, context.format), test::randomPicture({16, 16}, context.format));
            ASSERT_EQ(theirs.pixelFormat(), context.format) << nameOf(context.format);
            Picture ours({32, 16}, context.format);
            const FFDrawColor made = initDrawColor(context, color);
            ff_fill_rectangle(&context, &made, ours.getPlanes(), ours.getLinesize(), 0, 0, 32, 16);
            ASSERT_EQ(usedBytes(ours), usedBytes(theirs)) << nameOf(context.format) << " " << text(color);
        }
    }
}

// ---- Fills and copies

TEST(FFDrawOracleTest, FillsAndCopiesOfEveryFormatEqualThoseOfPad) {
    KVFFMPEG_REQUIRE_FILTER(pad, "pad");
    for (AVPixelFormat format : formatsDrawnOnBy(pad)) {
        const FFDrawContext context = initDrawContext(format, false);
        const Color color(18, 52, 86, 99);
        const Picture source = test::randomPicture({20, 12}, format);
        const Picture theirs = filtered("pad=52:40:12:8:" + text(color), source);

        Picture ours({52, 40}, format);
        const FFDrawColor made = theirColor(context, color);
        const auto fill = [&](int x, int y, int w, int h) {
            ff_fill_rectangle(&context, &made, ours.getPlanes(), ours.getLinesize(), x, y, w, h);
        };
        fill(0, 0, 52, 8);
        fill(0, 20, 52, 20);
        fill(0, 8, 12, 12);
        fill(32, 8, 20, 12);
        ff_copy_rectangle2(&context, ours.getPlanes(), ours.getLinesize(), source.getPlanes(),
                           source.getLinesize(), 12, 8, 0, 0, 20, 12);
        EXPECT_EQ(usedBytes(ours), usedBytes(theirs)) << nameOf(format);
    }
}

// ---- Masks

/// A glyph as the filter draws it: its coverage, and where it lies when drawn at (0, 0).
struct Glyph {
    std::vector<std::uint8_t> coverage;
    int width = 0, height = 0, x = 0, y = 0;

    /// One bit a pixel, of glyphs that are fully covered or not at all.
    std::vector<std::uint8_t> bits() const {
        const int linesize = (width + 7) / 8;
        std::vector<std::uint8_t> packed(static_cast<std::size_t>(linesize * height));
        for (int i = 0; i < width * height; ++i) {
            if (coverage[static_cast<std::size_t>(i)] == 0) continue;
            packed[static_cast<std::size_t>(i / width * linesize + i % width / 8)] |=
                static_cast<std::uint8_t>(0x80 >> (i % width % 8));
        }
        return packed;
    }
};

Glyph glyphOf(const std::string& options) {
    constexpr int size = 128, margin = 32;
    Picture black({size, size}, AV_PIX_FMT_RGB24);
    std::memset(black.buffer()->data(), 0, black.buffer()->size());
    const Picture drawn = filtered(std::string(drawtext) + options + ":x=32:y=32:fontcolor=white", black);
    if (drawn.empty()) return Glyph();  // the filter is not there, or refuses the options
    const auto at = [&](int x, int y) { return drawn.getPlanes()[0][y * drawn.getLinesize()[0] + 3 * x]; };
    int left = size, right = 0, top = size, bottom = 0;
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            if (at(x, y) == 0) continue;
            left = std::min(left, x);
            right = std::max(right, x + 1);
            top = std::min(top, y);
            bottom = std::max(bottom, y + 1);
        }
    }
    Glyph glyph;
    glyph.width = std::max(right - left, 0);
    glyph.height = std::max(bottom - top, 0);
    glyph.x = left - margin;
    glyph.y = top - margin;
    for (int y = top; y < bottom; ++y) {
        for (int x = left; x < right; ++x) glyph.coverage.push_back(at(x, y));
    }
    return glyph;
}

struct TextCase {
    const char* name;
    const char* options;
    int l2depth;
};

class FFDrawTextOracleTest : public testing::TestWithParam<TextCase> {};

TEST_P(FFDrawTextOracleTest, MasksBlendAsGlyphsDo) {
    const std::string options = GetParam().options;
    const bool oneBit = GetParam().l2depth == 0;
    const Glyph glyph = glyphOf(options);
    if (oneBit && glyph.width <= 0 && compat::ffmpegRelease >= 6) {
        GTEST_SKIP() << "the installed libavfilter draws no monochrome glyphs";
    }
    KVFFMPEG_REQUIRE_FILTER(drawtext + options, "drawtext", "font");
    ASSERT_GT(glyph.width, 8);
    ASSERT_GT(glyph.height, 8);
    if (oneBit) {
        EXPECT_THAT(glyph.coverage, Each(AnyOf(0, 255)));
    } else {
        EXPECT_THAT(glyph.coverage, Contains(AllOf(Gt(0), Lt(255))));
    }
    const std::vector<std::uint8_t> mask = oneBit ? glyph.bits() : glyph.coverage;

    std::mt19937 random(21);
    const auto upTo = [&](int most) { return static_cast<int>(random() % static_cast<unsigned>(most + 1)); };
    for (AVPixelFormat format : formatsDrawnOnBy(drawtext + options)) {
        const FFDrawContext context = initDrawContext(format, false);
        for (int alpha : {255, 1 + upTo(253)}) {
            const Color color(static_cast<unsigned>(upTo(255)), static_cast<unsigned>(upTo(255)),
                              static_cast<unsigned>(upTo(255)), static_cast<unsigned>(alpha));
            const int x = upTo(60) - 10, y = upTo(50) - 15;
            // Odd sizes, and glyphs across all edges.
            const Picture background = test::randomPicture({57, 43}, format, AVCOL_RANGE_UNSPECIFIED, 1,
                                                           static_cast<unsigned>(upTo(1000)));
            const Picture theirs = filtered(drawtext + options + ":x=" + std::to_string(x) +
                                                ":y=" + std::to_string(y) + ":fontcolor=" + text(color),
                                            background);
            Picture ours = background;
            ours.makeEditable();
            const FFDrawColor made = theirColor(context, color);
            ff_blend_mask(&context, &made, ours.getPlanes(), ours.getLinesize(), 57, 43, mask.data(),
                          oneBit ? (glyph.width + 7) / 8 : glyph.width, glyph.width, glyph.height,
                          GetParam().l2depth, 0, glyph.x + x, glyph.y + y);
            ASSERT_EQ(test::visibleBytes(ours), test::visibleBytes(theirs))
                << nameOf(format) << " at " << x << "," << y << " " << text(color);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Masks, FFDrawTextOracleTest,
                         testing::Values(TextCase{"EightBits", ":fontsize=26", 3},
                                         TextCase{"OneBit", ":fontsize=26:ft_load_flags=render+monochrome",
                                                  0}),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace kvffmpeg
