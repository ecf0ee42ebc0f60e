// Text against libavfilter's drawtext, which draws glyphs of the same library with the same arithmetic, byte
// for byte.

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "ffmpeg_compat.h"
#include "support/filter_presence.h"
#include "support/fonts.h"
#include "support/media.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg {
namespace {

constexpr Color clear{0, 0, 0, 0};
constexpr rect_size_t canvas{200, 96};

std::string hexadecimal(const Color& color) {
    std::string hex = "0x";
    for (const unsigned value : {color.red, color.green, color.blue, color.alpha}) {
        hex += "0123456789abcdef"[value >> 4];
        hex += "0123456789abcdef"[value & 15];
    }
    return hex;
}

struct Text {
    const char* text;
    int size;
    bool isMonospaced;
};

void PrintTo(const Text& text, std::ostream* out) {
    *out << '"' << text.text << "\" at " << text.size;
}

std::string fontOf(const Text& text) {
    return text.isMonospaced ? test::monospacedFont() : test::sansFont();
}

/// What the filter makes of the picture; empty when the installed libavfilter cannot run it.
Picture drawnByFilter(const Text& text, const Color& color, point_t position, Picture picture) {
    try {
        FFmpegFilterWrapper filter;
        filter.setFilterSpec("drawtext=expansion=none:fontfile=" + fontOf(text) + ":text='" + text.text +
                             "':fontsize=" + std::to_string(text.size) + ":fontcolor=" + hexadecimal(color) +
                             ":x=" + std::to_string(position.x) + ":y=" + std::to_string(position.y));
        return filter.processPicture(picture);
    } catch (const std::exception&) {
        return {};
    }
}

Picture drawnByUs(const Text& text, const Color& color, point_t position, const Picture& picture) {
    FreeTypeTextRenderer renderer(fontOf(text), text.size);
    renderer.setFontColor(color);
    renderer.setBackgroundColor(clear);
    Picture drawn = picture;
    drawn.makeEditable();
    renderer.drawTo(drawn, text.text, position);
    return drawn;
}

/// The rows of an RGB picture from the first that is not black on.
struct Ink {
    int firstRow = 0;
    std::vector<std::uint8_t> rows;
};

Ink inkOf(const Picture& picture) {
    const std::vector<std::uint8_t> bytes = test::visibleBytes(picture);
    const auto rowBytes = static_cast<std::ptrdiff_t>(3) * picture.width();
    const auto first = std::find_if(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; });
    const auto row = (first - bytes.begin()) / rowBytes;
    Ink ink;
    ink.firstRow = static_cast<int>(row);
    ink.rows.assign(bytes.begin() + row * rowBytes, bytes.end());
    return ink;
}

Picture blackPicture() {
    Picture black(canvas, AV_PIX_FMT_RGB24);
    std::memset(black.buffer()->data(), 0, black.buffer()->size());
    return black;
}

/// How much further up the filter has to draw: it takes the highest glyph's top for y, we take the ascent.
/// White on black also shows whether the two lay the text out alike.
class FreeTypeOracleTest : public testing::TestWithParam<Text> {
protected:
    void SetUp() override {
        KVFFMPEG_REQUIRE_FONTS();
        const point_t place{20, 20};
        const Picture theirs = drawnByFilter(GetParam(), {255, 255, 255}, place, blackPicture());
        if (theirs.empty()) {
            ASSERT_FALSE(test::hasFilter("drawtext")) << "drawtext does not run";
            GTEST_SKIP() << "the installed libavfilter has no drawtext";
        }
        const Ink their = inkOf(theirs);
        const Ink our = inkOf(drawnByUs(GetParam(), {255, 255, 255}, place, blackPicture()));
        down_ = our.firstRow - their.firstRow;
        const std::size_t common = std::min(our.rows.size(), their.rows.size());
        const bool isAlike = std::equal(
            our.rows.begin(), our.rows.begin() + static_cast<std::ptrdiff_t>(common), their.rows.begin());
        // Since FFmpeg 6.1 the filter places glyphs at fractions of pixels.
        if (!isAlike && compat::ffmpegRelease >= 6) {
            GTEST_SKIP() << "the installed libavfilter lays this text out in another way";
        }
        ASSERT_TRUE(isAlike);
        ASSERT_FALSE(our.rows.empty());
    }

    void expectEqualDrawing(AVPixelFormat format, const Color& color, point_t position) const {
        const Picture picture = test::randomPicture(canvas, format);
        const Picture ours = drawnByUs(GetParam(), color, position, picture);
        const Picture theirs = drawnByFilter(GetParam(), color, {position.x, position.y + down_}, picture);
        ASSERT_EQ(theirs.pixelFormat(), format) << av_get_pix_fmt_name(format);
        EXPECT_NE(test::visibleBytes(ours), test::visibleBytes(picture));
        EXPECT_TRUE(test::visibleBytes(ours) == test::visibleBytes(theirs))
            << av_get_pix_fmt_name(format) << " " << hexadecimal(color) << " at " << position;
    }

    int down_ = 0;
};

/// Colours that all releases turn into the same samples.
const std::vector<Color> colors{{255, 255, 255}, {0, 0, 0},     {255, 225, 255},     {255, 0, 0},
                                {18, 52, 86},    {255, 165, 0}, {171, 205, 239, 90}, {255, 255, 0, 200}};
constexpr point_t positions[] = {{10, 8}, {7, 5}, {-9, -6}, {90, 51}};

/// libavfilter does since FFmpeg 7.1.
bool drawsFullRangeOnGray() {
    return compat::ffmpegRelease >= 7;
}

TEST_P(FreeTypeOracleTest, EqualsDrawtextInYuv) {
    for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P}) {
        for (const Color& color : colors) {
            for (const point_t position : positions) expectEqualDrawing(format, color, position);
        }
    }
}

TEST_P(FreeTypeOracleTest, EqualsDrawtextInRgb) {
    for (const AVPixelFormat format : {AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA, AV_PIX_FMT_ARGB}) {
        for (const Color& color : colors) {
            for (const point_t position : positions) expectEqualDrawing(format, color, position);
        }
    }
}

TEST_P(FreeTypeOracleTest, EqualsDrawtextInGray) {
    if (drawsFullRangeOnGray()) {
        GTEST_SKIP() << "the installed libavfilter draws gray in another range";
    }
    for (const Color& color : colors) {
        for (const point_t position : positions) expectEqualDrawing(AV_PIX_FMT_GRAY8, color, position);
    }
}

TEST_P(FreeTypeOracleTest, EqualsDrawtextInTenBits) {
    // Of black alone all releases make the same samples.
    for (const Color& color : {Color(0, 0, 0), Color(0, 0, 0, 77)}) {
        for (const point_t position : positions) {
            if (!drawsFullRangeOnGray()) expectEqualDrawing(AV_PIX_FMT_GRAY10LE, color, position);
            expectEqualDrawing(AV_PIX_FMT_GBRP10LE, color, position);
        }
    }
}

TEST_P(FreeTypeOracleTest, EqualsDrawtextInTenBitsOfYuvButForTheGrayOfItsChroma) {
    // Which is 512, or 514 in later releases.
    constexpr int grayDifference = 2;
    for (const point_t position : positions) {
        const Picture picture = test::randomPicture(canvas, AV_PIX_FMT_YUV420P10LE);
        const Picture ours = drawnByUs(GetParam(), {0, 0, 0}, position, picture);
        const Picture theirs =
            drawnByFilter(GetParam(), {0, 0, 0}, {position.x, position.y + down_}, picture);
        const std::vector<std::uint8_t> our = test::visibleBytes(ours);
        const std::vector<std::uint8_t> their = test::visibleBytes(theirs);
        ASSERT_EQ(our.size(), their.size());
        const std::size_t lumaBytes = std::size_t{2} * canvas.w * canvas.h;
        for (std::size_t i = 0; i < our.size(); i += 2) {
            const int difference = our[i] + 256 * our[i + 1] - their[i] - 256 * their[i + 1];
            ASSERT_LE(std::abs(difference), i < lumaBytes ? 0 : grayDifference)
                << "byte " << i << " at " << position;
        }
    }
}

// Where the two lay text out alike: single glyphs, and lines without kerning.
INSTANTIATE_TEST_SUITE_P(Texts, FreeTypeOracleTest,
                         testing::Values(Text{"Q", 48, false}, Text{"g", 23, false},
                                         Text{"\xD0\xAF", 40, false}, Text{"\xCE\xA9", 31, false},
                                         Text{"Sphinx gjpy", 24, true}, Text{"0123456789 @#", 16, true}),
                         [](const auto& test) { return "Text" + std::to_string(test.index); });

}  // namespace
}  // namespace kvffmpeg
