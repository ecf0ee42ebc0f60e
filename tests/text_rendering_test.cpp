#include "kvffmpeg/text_rendering.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "kvffmpeg/scaler.h"
#include "kvffmpeg/utils.h"
#include "support/media.h"
#include "support/temporary_folder.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg {
namespace {

using testing::StrEq;
using testing::ThrowsMessage;

/// Where two pictures differ first, with what is there; empty where they do not. Every byte counts; empty
/// pictures differ from all.
std::string difference(const Picture& actual, const Picture& expected) {
    if (actual.empty() || expected.empty() || actual.size() != expected.size() ||
        actual.pixelFormat() != expected.pixelFormat()) {
        return actual.debugDescription() + " for " + expected.debugDescription();
    }
    const std::vector<std::uint8_t> bytes = test::visibleBytes(actual);
    const std::vector<std::uint8_t> wanted = test::visibleBytes(expected);
    const auto [at, wantedAt] = std::mismatch(bytes.begin(), bytes.end(), wanted.begin(), wanted.end());
    if (at == bytes.end()) return {};
    return "byte " + std::to_string(at - bytes.begin()) + " of " + actual.debugDescription() + " is " +
           std::to_string(*at) + " for " + std::to_string(*wantedAt);
}

unsigned char* rowOf(const Picture& picture, std::ptrdiff_t y) {
    return picture.getPlanes()[0] + y * picture.getLinesize()[0];
}

/// The cell of byte `c` in a font image, found without the class that is tested.
Picture cellOf(const Picture& image, unsigned char c) {
    const int w = image.width() / 16;
    const int h = image.height() / 16;
    return image.crop({c % 16 * w, c / 16 * h, w, h});
}

/// Where libswscale does not stretch that far, in two steps.
Picture stretched(const Picture& space, rect_size_t size) {
    Scaler scaler;
    scaler.setAlgorithm(Scaler::x);
    const AVPixelFormat format = space.pixelFormat();
    Picture picture = scaler.scale(space, size, format, AVCOL_RANGE_UNSPECIFIED);
    if (!picture.empty()) return picture;
    const rect_size_t halfway{std::min(4096 * space.width(), size.w),
                              std::min(4096 * space.height(), size.h)};
    return scaler.scale(scaler.scale(space, halfway, format, AVCOL_RANGE_UNSPECIFIED), size, format,
                        AVCOL_RANGE_UNSPECIFIED);
}

/// What a text looks like in a packed format, pixel by pixel: the last glyph that covers a pixel wins.
Picture drawnPixelByPixel(const Picture& image, const std::string& text) {
    const int w = image.width() / 16;
    const int h = image.height() / 16;
    const auto byteOf = [](char c) { return static_cast<unsigned char>(c); };
    int columns = 0;
    int lines = 1;
    int column = 0;
    for (const char c : text) {
        if (c == '\n') ++lines;
        column = c == '\n' || c == '\r' ? 0 : column + 1;
        columns = std::max(columns, column);
    }
    Picture picture = stretched(cellOf(image, ' '), {columns * w, lines * h});
    picture.makeEditable();
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(image.pixelFormat());
    const auto pixelBytes = static_cast<std::size_t>(format->comp[0].step);
    const auto pixelOf = [&](const Picture& of, int x, int y) {
        return rowOf(of, y) + static_cast<std::ptrdiff_t>(x) * static_cast<std::ptrdiff_t>(pixelBytes);
    };
    column = 0;
    int line = 0;
    for (const char c : text) {
        if (c == '\n') ++line;
        if (c == '\n' || c == '\r') {
            column = 0;
            continue;
        }
        if (c != ' ') {
            const int cell = byteOf(c) == 255 ? ' ' : byteOf(c);
            const int left = column * w / 2 * 2;
            const int top = line * h / 2 * 2;
            for (int y = 0; y < h; ++y) {
                for (int x = 0; x < w; ++x) {
                    std::memcpy(pixelOf(picture, left + x, top + y),
                                pixelOf(image, cell % 16 * w + x, cell / 16 * h + y), pixelBytes);
                }
            }
        }
        ++column;
    }
    return picture;
}

std::map<unsigned char, std::vector<std::uint8_t>> glyphBytes(const RasterFont& font) {
    std::map<unsigned char, std::vector<std::uint8_t>> bytes;
    for (const auto& [c, glyph] : font.glyphs()) {
        if (glyph.width() > 0 && glyph.height() > 0) bytes[c] = test::visibleBytes(glyph);
    }
    return bytes;
}

class FontTest : public testing::Test {
protected:
    /// Saves pseudo-random pixels as PNG, which keeps them; every cell has its own.
    Picture makeFont(rect_size_t size, AVPixelFormat format = AV_PIX_FMT_RGB24) {
        Picture image = test::randomPicture(size, format);
        saveFont(image);
        return image;
    }
    void saveFont(const Picture& image) {
        savePicture(image, path_, AV_CODEC_ID_PNG);
        font_.load(path_);
        ASSERT_EQ(difference(loadPicture(path_), image), "");
        renderer_.setFont(font_);
    }
    /// The same in planar 4:2:0, which no lossless picture file has.
    Picture makeYuvFont(rect_size_t size) {
        Picture image = test::randomPicture(size, AV_PIX_FMT_YUV420P);
        const std::string path = folder_.file("font.y4m");
        const std::vector<std::uint8_t> bytes = test::visibleBytes(image);
        std::ofstream(path, std::ios::binary)
            << "YUV4MPEG2 W" << size.w << " H" << size.h << " F1:1 Ip A1:1 C420jpeg\nFRAME\n"
            << std::string(bytes.begin(), bytes.end());
        font_.load(path);
        renderer_.setFont(font_);
        return image;
    }
    /// A picture whose cells have one colour each: all bytes of cell c are c.
    static Picture plainCells(rect_size_t cell, AVPixelFormat format) {
        Picture image({16 * cell.w, 16 * cell.h}, format);
        const auto pixelBytes = static_cast<std::ptrdiff_t>(av_pix_fmt_desc_get(format)->comp[0].step);
        for (int y = 0; y < image.height(); ++y) {
            unsigned char* pixel = rowOf(image, y);
            for (int x = 0; x < image.width(); ++x) {
                const int c = y / cell.h * 16 + x / cell.w;
                pixel = std::fill_n(pixel, pixelBytes, static_cast<unsigned char>(c));
            }
        }
        return image;
    }

    test::TemporaryFolder folder_;
    std::string path_ = folder_.file("font.png");
    RasterFont font_;
    TextRenderer renderer_;
    std::mt19937 random_{6};  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same numbers each time
};

using RasterFontTest = FontTest;
using TextRendererTest = FontTest;

// --- RasterFont -------------------------------------------------------------------------------------------

TEST_F(RasterFontTest, NewFontIs8x8WithoutGlyphs) {
    const RasterFont font;
    EXPECT_EQ(font.glyphWidth(), 8);
    EXPECT_EQ(font.glyphHeight(), 8);
    EXPECT_TRUE(font.glyphs().empty());
}

TEST_F(RasterFontTest, ImageOf128x128Gives8x8Glyphs) {
    makeFont({128, 128});
    EXPECT_EQ(font_.glyphWidth(), 8);
    EXPECT_EQ(font_.glyphHeight(), 8);
    EXPECT_EQ(font_.getGlyphPicture('A').size(), (rect_size_t{8, 8}));
}

TEST_F(RasterFontTest, ImageOf130x130Gives8x8GlyphsWithoutTheRemainder) {
    const Picture image = makeFont({130, 130});
    EXPECT_EQ(font_.glyphWidth(), 8);
    EXPECT_EQ(font_.glyphHeight(), 8);
    EXPECT_EQ(difference(font_.getGlyphPicture(254), image.crop({112, 120, 8, 8})), "");
}

TEST_F(RasterFontTest, GlyphsNeedNotBeSquare) {
    const Picture image = makeFont({160, 384});
    EXPECT_EQ(font_.glyphWidth(), 10);
    EXPECT_EQ(font_.glyphHeight(), 24);
    EXPECT_EQ(difference(font_.getGlyphPicture('A'), image.crop({10, 96, 10, 24})), "");
}

TEST_F(RasterFontTest, LoadsBytes0To254) {
    makeFont({128, 128});
    ASSERT_EQ(font_.glyphs().size(), 255U);
    EXPECT_EQ(font_.glyphs().begin()->first, 0);
    EXPECT_EQ(font_.glyphs().rbegin()->first, 254);
}

TEST_F(RasterFontTest, EveryGlyphIsItsCell) {
    const Picture image = makeFont({128, 160});
    for (int c = 0; c <= 254; ++c) {
        const auto byte = static_cast<unsigned char>(c);
        EXPECT_EQ(difference(font_.getGlyphPicture(byte), cellOf(image, byte)), "") << "byte " << c;
    }
}

TEST_F(RasterFontTest, Byte255IsTheSpace) {
    const Picture image = makeFont({128, 128});
    EXPECT_EQ(difference(font_.getGlyphPicture(255), cellOf(image, ' ')), "");
    EXPECT_EQ(font_.glyphs().count(255), 0U);
}

TEST_F(RasterFontTest, GlyphOfFontWithoutGlyphsIsEmptyAndBecomesTheSpace) {
    EXPECT_TRUE(font_.getGlyphPicture('A').empty());
    ASSERT_EQ(font_.glyphs().size(), 1U);
    EXPECT_EQ(font_.glyphs().begin()->first, ' ');
    EXPECT_TRUE(font_.glyphs().begin()->second.empty());
}

TEST_F(RasterFontTest, GlyphOfLoadedFontAddsNone) {
    makeFont({128, 128});
    font_.getGlyphPicture(255);
    EXPECT_EQ(font_.glyphs().size(), 255U);
}

TEST_F(RasterFontTest, GlyphsShareThePixelsOfTheImage) {
    makeFont({128, 128});
    EXPECT_EQ(font_.getGlyphPicture('A').buffer(), font_.getGlyphPicture('B').buffer());
    EXPECT_FALSE(font_.getGlyphPicture('A').editable());
}

TEST_F(RasterFontTest, GlyphsKeepFormatAndAlpha) {
    const Picture image = makeFont({128, 128}, AV_PIX_FMT_RGBA);
    EXPECT_EQ(font_.getGlyphPicture('A').pixelFormat(), AV_PIX_FMT_RGBA);
    EXPECT_EQ(difference(font_.getGlyphPicture('A'), cellOf(image, 'A')), "");
}

TEST_F(RasterFontTest, OddCellsOfSubsampledFormatsAreCutToEvenSizes) {
    const Picture image = makeYuvFont({144, 144});
    EXPECT_EQ(font_.glyphWidth(), 9);
    EXPECT_EQ(font_.glyphHeight(), 9);
    EXPECT_EQ(font_.getGlyphPicture('A').size(), (rect_size_t{8, 8}));
    EXPECT_EQ(difference(font_.getGlyphPicture('A'), image.crop({8, 36, 8, 8})), "");
}

TEST_F(RasterFontTest, MissingFileThrowsWhatLoadingPicturesThrows) {
    EXPECT_THAT([&] { font_.load(folder_.file("missing.png")); },
                ThrowsMessage<std::runtime_error>(StrEq("can't open input file")));
}

TEST_F(RasterFontTest, FileThatDoesNotDecodeThrowsWithItsPath) {
    makeFont({128, 128});
    std::vector<std::uint8_t> bytes = test::readFile(path_);
    std::fill(bytes.begin() + 16, bytes.begin() + 24, std::uint8_t{0});  // the size, in the header
    const std::string path = folder_.file("broken.png");
    test::writeFile(path, bytes);
    EXPECT_THAT([&] { font_.load(path); },
                ThrowsMessage<std::runtime_error>(StrEq("Could not load font " + path)));
}

TEST_F(RasterFontTest, FileWithoutAPictureThrowsWithItsPath) {
    const std::string path = folder_.file("sound.wav");
    test::runFFmpeg("-f lavfi -i sine=duration=0.1 " + path);
    EXPECT_THAT([&] { font_.load(path); },
                ThrowsMessage<std::runtime_error>(StrEq("Could not load font " + path)));
}

TEST_F(RasterFontTest, FailedLoadLeavesNoGlyphsAndTheSize) {
    makeFont({160, 384});
    std::vector<std::uint8_t> bytes = test::readFile(path_);
    std::fill(bytes.begin() + 16, bytes.begin() + 24, std::uint8_t{0});
    test::writeFile(folder_.file("broken.png"), bytes);
    for (const char* name : {"missing.png", "broken.png"}) {
        RasterFont font = font_;
        EXPECT_THROW(font.load(folder_.file(name)), std::runtime_error) << name;
        EXPECT_TRUE(font.glyphs().empty()) << name;
        EXPECT_EQ(font.glyphWidth(), 10) << name;
        EXPECT_EQ(font.glyphHeight(), 24) << name;
    }
}

TEST_F(RasterFontTest, LoadReplacesWhatWasLoadedBefore) {
    makeFont({160, 384});
    const Picture image = makeFont({64, 128}, AV_PIX_FMT_RGBA);
    EXPECT_EQ(font_.glyphWidth(), 4);
    EXPECT_EQ(font_.glyphHeight(), 8);
    EXPECT_EQ(font_.glyphs().size(), 255U);
    EXPECT_EQ(difference(font_.getGlyphPicture('A'), cellOf(image, 'A')), "");
}

TEST_F(RasterFontTest, LoadTakesAwayTheEmptySpaceOfAFontWithoutGlyphs) {
    font_.getGlyphPicture('A');
    const Picture image = makeFont({128, 128});
    EXPECT_EQ(difference(font_.getGlyphPicture(255), cellOf(image, ' ')), "");
}

TEST_F(RasterFontTest, CopiesShareGlyphsButAreIndependent) {
    const Picture image = makeFont({128, 128});
    RasterFont copy = font_;
    EXPECT_EQ(copy.getGlyphPicture('A').buffer(), font_.getGlyphPicture('A').buffer());
    EXPECT_THROW(font_.load(folder_.file("missing.png")), std::runtime_error);
    EXPECT_EQ(difference(copy.getGlyphPicture('A'), cellOf(image, 'A')), "");
    EXPECT_TRUE(std::is_copy_assignable_v<RasterFont>);
}

TEST_F(RasterFontTest, CellsOfImagesBelow16PixelsHaveNoArea) {
    for (const rect_size_t size : {rect_size_t{1, 1}, {15, 15}, {15, 64}, {64, 15}}) {
        makeFont(size);
        EXPECT_EQ(font_.glyphs().size(), 255U) << size;
        EXPECT_EQ(font_.glyphWidth(), size.w / 16) << size;
        EXPECT_EQ(font_.glyphHeight(), size.h / 16) << size;
        EXPECT_EQ(font_.getGlyphPicture('A').size(), (rect_size_t{size.w / 16, size.h / 16})) << size;
    }
}

// --- TextRenderer: sizes ----------------------------------------------------------------------------------

TEST_F(TextRendererTest, HasAnEmptyFontAtFirst) {
    EXPECT_EQ(renderer_.font().glyphWidth(), 8);
    EXPECT_TRUE(renderer_.font().glyphs().empty());
}

TEST_F(TextRendererTest, EmptyTextIsAnEmptyPicture) {
    makeFont({128, 128});
    EXPECT_TRUE(renderer_.renderText("").empty());
}

TEST_F(TextRendererTest, LineBreaksAloneAreAnEmptyPicture) {
    makeFont({128, 128});
    for (const char* text : {"\n", "\n\n\n", "\r", "\r\n\r\n"}) {
        EXPECT_TRUE(renderer_.renderText(text).empty()) << testing::PrintToString(text);
    }
}

TEST_F(TextRendererTest, FontThatWasNeverLoadedGivesAnEmptyPicture) {
    EXPECT_TRUE(renderer_.renderText("Text\nof lines").empty());
    EXPECT_TRUE(renderer_.renderText(" ").empty());
}

TEST_F(TextRendererTest, FontThatFailedToLoadGivesAnEmptyPicture) {
    makeFont({128, 128});
    EXPECT_THROW(font_.load(folder_.file("missing.png")), std::runtime_error);
    renderer_.setFont(font_);
    EXPECT_TRUE(renderer_.renderText("Text").empty());
}

TEST_F(TextRendererTest, TrailingLineFeedAddsALine) {
    const Picture image = makeFont({128, 128});
    const Picture picture = renderer_.renderText("A\n");
    ASSERT_EQ(picture.size(), (rect_size_t{8, 16}));
    EXPECT_EQ(difference(picture.crop({0, 0, 8, 8}), cellOf(image, 'A')), "");
    EXPECT_EQ(
        difference(picture.crop({0, 8, 8, 8}), stretched(cellOf(image, ' '), {8, 16}).crop({0, 8, 8, 8})),
        "");
}

TEST_F(TextRendererTest, LeadingLineFeedAddsALine) {
    const Picture image = makeFont({128, 128});
    const Picture picture = renderer_.renderText("\nA");
    ASSERT_EQ(picture.size(), (rect_size_t{8, 16}));
    EXPECT_EQ(difference(picture.crop({0, 8, 8, 8}), cellOf(image, 'A')), "");
}

TEST_F(TextRendererTest, CarriageReturnAndLineFeedAreOneLineBreak) {
    makeFont({128, 128});
    EXPECT_EQ(difference(renderer_.renderText("AB\r\nC"), renderer_.renderText("AB\nC")), "");
}

TEST_F(TextRendererTest, WidestLineDeterminesTheWidth) {
    makeFont({128, 128});
    EXPECT_EQ(renderer_.renderText("A\nABC\nAB").size(), (rect_size_t{24, 24}));
    EXPECT_EQ(renderer_.renderText("ABCD\rAB").size(), (rect_size_t{32, 8}));
    EXPECT_EQ(renderer_.renderText("AB\rABCD").size(), (rect_size_t{32, 8}));
}

TEST_F(TextRendererTest, FontWithCellsWithoutAreaGivesAnEmptyPicture) {
    for (const rect_size_t size : {rect_size_t{1, 1}, {15, 15}, {15, 64}, {64, 15}}) {
        makeFont(size);
        EXPECT_TRUE(renderer_.renderText("A").empty()) << size;
        EXPECT_TRUE(renderer_.renderText("Text\n of lines\xff").empty()) << size;
    }
}

// --- TextRenderer: pixels ---------------------------------------------------------------------------------

TEST_F(TextRendererTest, LinesStartAtTheLeft) {
    const Picture image = makeFont({128, 128});
    const Picture picture = renderer_.renderText("AB\nC");
    ASSERT_EQ(picture.size(), (rect_size_t{16, 16}));
    EXPECT_EQ(difference(picture.crop({0, 0, 8, 8}), cellOf(image, 'A')), "");
    EXPECT_EQ(difference(picture.crop({8, 0, 8, 8}), cellOf(image, 'B')), "");
    EXPECT_EQ(difference(picture.crop({0, 8, 8, 8}), cellOf(image, 'C')), "");
    EXPECT_EQ(
        difference(picture.crop({8, 8, 8, 8}), stretched(cellOf(image, ' '), {16, 16}).crop({8, 8, 8, 8})),
        "");
}

TEST_F(TextRendererTest, CarriageReturnDrawsOverTheLine) {
    const Picture image = makeFont({128, 128});
    const Picture picture = renderer_.renderText("AB\rC");
    ASSERT_EQ(picture.size(), (rect_size_t{16, 8}));
    EXPECT_EQ(difference(picture.crop({0, 0, 8, 8}), cellOf(image, 'C')), "");
    EXPECT_EQ(difference(picture.crop({8, 0, 8, 8}), cellOf(image, 'B')), "");
}

TEST_F(TextRendererTest, SpaceAfterCarriageReturnLeavesWhatIsThere) {
    const Picture image = makeFont({128, 128});
    const Picture picture = renderer_.renderText("AB\r C");
    EXPECT_EQ(difference(picture.crop({0, 0, 8, 8}), cellOf(image, 'A')), "");
    EXPECT_EQ(difference(picture.crop({8, 0, 8, 8}), cellOf(image, 'C')), "");
}

TEST_F(TextRendererTest, BackgroundIsTheStretchedSpace) {
    const Picture image = makeFont({128, 128});
    EXPECT_EQ(difference(renderer_.renderText("   \n "), stretched(cellOf(image, ' '), {24, 16})), "");
}

TEST_F(TextRendererTest, BackgroundHasThePlainColourOfTheSpace) {
    saveFont(plainCells({8, 8}, AV_PIX_FMT_RGBA));
    const Picture picture = renderer_.renderText("A B\n");
    ASSERT_EQ(picture.size(), (rect_size_t{24, 16}));
    const std::vector<std::uint8_t> space = test::visibleBytes(picture.crop({8, 0, 8, 8}));
    const std::vector<std::uint8_t> line = test::visibleBytes(picture.crop({0, 8, 24, 8}));
    EXPECT_THAT(space, testing::Each(std::uint8_t{' '}));
    EXPECT_THAT(line, testing::Each(std::uint8_t{' '}));
    EXPECT_THAT(test::visibleBytes(picture.crop({0, 0, 8, 8})), testing::Each(std::uint8_t{'A'}));
}

TEST_F(TextRendererTest, SpaceLeavesTheBackgroundAsItIs) {
    const Picture image = makeFont({128, 128});
    EXPECT_EQ(difference(renderer_.renderText("A B").crop({8, 0, 8, 8}),
                         stretched(cellOf(image, ' '), {24, 8}).crop({8, 0, 8, 8})),
              "");
}

TEST_F(TextRendererTest, Byte255DrawsTheCellOfTheSpace) {
    const Picture image = makeFont({128, 128});
    const Picture picture = renderer_.renderText("A\xff");
    ASSERT_EQ(picture.size(), (rect_size_t{16, 8}));
    EXPECT_EQ(difference(picture.crop({8, 0, 8, 8}), cellOf(image, ' ')), "");
}

TEST_F(TextRendererTest, EveryByteButLineBreaksAndSpaceDrawsItsCell) {
    const Picture image = makeFont({128, 128});
    for (int c = 0; c <= 254; ++c) {
        if (c == '\n' || c == '\r' || c == ' ') continue;
        const Picture picture = renderer_.renderText(std::string(2, static_cast<char>(c)));
        ASSERT_EQ(picture.size(), (rect_size_t{16, 8})) << "byte " << c;
        for (const int x : {0, 8}) {
            EXPECT_EQ(difference(picture.crop({x, 0, 8, 8}), cellOf(image, static_cast<unsigned char>(c))),
                      "")
                << "byte " << c << " at " << x;
        }
    }
}

TEST_F(TextRendererTest, RandomTextsAreWhatTheyArePixelByPixel) {
    struct Font {
        rect_size_t cell;
        AVPixelFormat format = AV_PIX_FMT_NONE;
    };
    for (const Font& shape : {Font{{8, 8}, AV_PIX_FMT_RGB24},
                              {{12, 24}, AV_PIX_FMT_RGBA},
                              {{9, 7}, AV_PIX_FMT_RGB24},
                              {{1, 1}, AV_PIX_FMT_RGBA},
                              {{3, 5}, AV_PIX_FMT_GRAY8},
                              {{6, 6}, AV_PIX_FMT_RGB48BE},
                              {{5, 4}, AV_PIX_FMT_YA8}}) {
        const Picture image = makeFont({16 * shape.cell.w, 16 * shape.cell.h}, shape.format);
        for (int i = 0; i < 20; ++i) {
            std::string text(1, 'A');
            for (auto length = random_() % 60; length > 0; --length) {
                constexpr char often[] = {'\n', '\r', ' ', '\xff'};
                text += random_() % 4 == 0 ? often[random_() % 4] : static_cast<char>(random_());
            }
            EXPECT_EQ(difference(renderer_.renderText(text), drawnPixelByPixel(image, text)), "")
                << av_get_pix_fmt_name(shape.format) << ", cells of " << shape.cell << ", "
                << testing::PrintToString(text);
        }
    }
}

TEST_F(TextRendererTest, GlyphsOfOddWidthLandOnTheEvenColumnToTheLeft) {
    const Picture image = makeFont({144, 144});
    const Picture picture = renderer_.renderText("ABC");
    ASSERT_EQ(picture.size(), (rect_size_t{27, 9}));
    EXPECT_EQ(difference(picture.crop({0, 0, 8, 9}), cellOf(image, 'A').crop({0, 0, 8, 9})), "");
    EXPECT_EQ(difference(picture.crop({8, 0, 9, 9}), cellOf(image, 'B')), "");
    EXPECT_EQ(
        difference(picture.crop({17, 0, 1, 9}), stretched(cellOf(image, ' '), {27, 9}).crop({17, 0, 1, 9})),
        "");
    EXPECT_EQ(difference(picture.crop({18, 0, 9, 9}), cellOf(image, 'C')), "");
}

TEST_F(TextRendererTest, LinesOfOddHeightLandOnTheEvenRowAbove) {
    const Picture image = makeFont({144, 144});
    const Picture picture = renderer_.renderText("A\nB");
    ASSERT_EQ(picture.size(), (rect_size_t{9, 18}));
    EXPECT_EQ(difference(picture.crop({0, 0, 9, 8}), cellOf(image, 'A').crop({0, 0, 9, 8})), "");
    EXPECT_EQ(difference(picture.crop({0, 8, 9, 9}), cellOf(image, 'B')), "");
    EXPECT_EQ(
        difference(picture.crop({0, 17, 9, 1}), stretched(cellOf(image, ' '), {9, 18}).crop({0, 17, 9, 1})),
        "");
}

TEST_F(TextRendererTest, SubsampledFontsAreDrawnInTheirFormat) {
    const Picture image = makeYuvFont({128, 128});
    const Picture picture = renderer_.renderText("AB\nC");
    ASSERT_EQ(picture.size(), (rect_size_t{16, 16}));
    EXPECT_EQ(picture.pixelFormat(), AV_PIX_FMT_YUV420P);
    EXPECT_EQ(difference(picture.crop({0, 0, 8, 8}), cellOf(image, 'A')), "");
    EXPECT_EQ(difference(picture.crop({8, 0, 8, 8}), cellOf(image, 'B')), "");
    EXPECT_EQ(difference(picture.crop({0, 8, 8, 8}), cellOf(image, 'C')), "");
}

TEST_F(TextRendererTest, SubsampledGlyphsLandOnMultiplesOfFour) {
    const Picture image = makeYuvFont({160, 160});
    const Picture picture = renderer_.renderText("AB");
    ASSERT_EQ(picture.size(), (rect_size_t{20, 10}));
    EXPECT_EQ(difference(picture.crop({8, 0, 10, 10}), cellOf(image, 'B')), "");
}

TEST_F(TextRendererTest, SubsampledGlyphsOfOddCellsAdvanceByTheirEvenWidth) {
    const Picture image = makeYuvFont({144, 144});
    const Picture picture = renderer_.renderText("AB\nC");
    ASSERT_EQ(picture.size(), (rect_size_t{16, 16}));
    EXPECT_EQ(difference(picture.crop({8, 0, 8, 8}), font_.getGlyphPicture('B')), "");
    EXPECT_EQ(difference(picture.crop({0, 8, 8, 8}), font_.getGlyphPicture('C')), "");
}

TEST_F(TextRendererTest, JpegFontsAreDrawnInTheirFormat) {
    const std::string path = folder_.file("font.jpg");
    savePicture(test::randomPicture({128, 128}, AV_PIX_FMT_YUVJ420P), path);
    font_.load(path);
    renderer_.setFont(font_);
    const Picture image = loadPicture(path);
    const Picture picture = renderer_.renderText("AB");
    ASSERT_EQ(picture.size(), (rect_size_t{16, 8}));
    EXPECT_EQ(picture.pixelFormat(), image.pixelFormat());
    EXPECT_EQ(difference(picture.crop({8, 0, 8, 8}), cellOf(image, 'B')), "");
}

TEST_F(TextRendererTest, AlphaIsCopiedNotBlended) {
    const Picture image = makeFont({128, 128}, AV_PIX_FMT_RGBA);
    EXPECT_EQ(difference(renderer_.renderText("A ").crop({0, 0, 8, 8}), cellOf(image, 'A')), "");
}

TEST_F(TextRendererTest, RangeOfTheResultIsUnspecified) {
    makeFont({128, 128});
    EXPECT_EQ(renderer_.renderText("A").colorRange(), AVCOL_RANGE_UNSPECIFIED);
    EXPECT_EQ(renderer_.renderText("AB").colorRange(), AVCOL_RANGE_UNSPECIFIED);
}

// --- TextRenderer: the font's pixels stay -----------------------------------------------------------------

TEST_F(TextRendererTest, RenderingTwiceChangesNoGlyph) {
    for (const bool yuv : {false, true}) {
        if (yuv) {
            makeYuvFont({128, 128});
        } else {
            makeFont({128, 128});
        }
        const auto before = glyphBytes(font_);
        ASSERT_EQ(before.size(), 255U);
        for (const char* text : {"A", "A", " ", "A\rB", "AB\nC"}) {
            const Picture first = renderer_.renderText(text);
            EXPECT_EQ(difference(renderer_.renderText(text), first), "") << testing::PrintToString(text);
        }
        EXPECT_EQ(glyphBytes(font_), before) << "yuv " << yuv;
        EXPECT_EQ(glyphBytes(renderer_.font()), before) << "yuv " << yuv;
    }
}

TEST_F(TextRendererTest, TextOfOneCharacterIsItsCell) {
    const Picture image = makeYuvFont({128, 128});
    EXPECT_EQ(difference(renderer_.renderText("A"), cellOf(image, 'A')), "");
    EXPECT_EQ(difference(renderer_.renderText(" "), cellOf(image, ' ')), "");
}

TEST_F(TextRendererTest, ResultsAreEditable) {
    makeYuvFont({128, 128});
    for (const char* text : {" ", "A", "AB\nC"}) {
        EXPECT_TRUE(renderer_.renderText(text).editable()) << testing::PrintToString(text);
    }
}

TEST_F(TextRendererTest, WritingToASpaceLeavesTheFontAlone) {
    const Picture image = makeYuvFont({128, 128});
    Picture picture = renderer_.renderText(" ");
    std::fill_n(picture.getPlanes()[0], 8, static_cast<unsigned char>(~*picture.getPlanes()[0]));
    EXPECT_EQ(difference(font_.getGlyphPicture(' '), cellOf(image, ' ')), "");
}

TEST_F(TextRendererTest, SetFontTakesACopy) {
    const Picture image = makeFont({128, 128});
    EXPECT_THROW(font_.load(folder_.file("missing.png")), std::runtime_error);
    EXPECT_EQ(renderer_.font().glyphs().size(), 255U);
    EXPECT_EQ(difference(renderer_.renderText("AB"), drawnPixelByPixel(image, "AB")), "");
}

TEST_F(TextRendererTest, SetFontReplacesSizeAndGlyphs) {
    makeFont({128, 128});
    const Picture image = makeFont({192, 384}, AV_PIX_FMT_RGBA);
    EXPECT_EQ(renderer_.font().glyphWidth(), 12);
    EXPECT_EQ(renderer_.font().glyphHeight(), 24);
    EXPECT_EQ(difference(renderer_.renderText("AB"), drawnPixelByPixel(image, "AB")), "");
}

TEST_F(TextRendererTest, CopiesAreIndependent) {
    const Picture image = makeFont({128, 128});
    TextRenderer copy = renderer_;
    renderer_.setFont(RasterFont());
    EXPECT_TRUE(renderer_.renderText("A").empty());
    EXPECT_EQ(difference(copy.renderText("A"), cellOf(image, 'A')), "");
}

// --- TextRenderer: formats that do not suit, sizes that do not fit ----------------------------------------

/// A PNG file with a palette whose entry i is i, i, i and whose indices are pseudo-random.
Picture palettePicture(rect_size_t size) {
    Picture image = test::randomPicture(size, AV_PIX_FMT_PAL8);
    for (std::uint32_t i = 0; i < 256; ++i) {
        const std::uint32_t entry = 0xff000000U + i * 0x010101U;
        std::memcpy(image.getPlanes()[1] + std::size_t{4} * i, &entry, 4);
    }
    return image;
}

TEST_F(TextRendererTest, PaletteFontGivesAnEmptyPicture) {
    saveFont(palettePicture({128, 128}));
    ASSERT_EQ(font_.getGlyphPicture('A').pixelFormat(), AV_PIX_FMT_PAL8);
    EXPECT_TRUE(renderer_.renderText("AB").empty());
    EXPECT_TRUE(renderer_.renderText("A\n").empty());
    EXPECT_TRUE(renderer_.renderText("  ").empty());
}

TEST_F(TextRendererTest, PaletteFontGivesOneCharacterWhereNothingIsConverted) {
    const Picture image = palettePicture({128, 128});
    saveFont(image);
    const Picture picture = renderer_.renderText("A");
    if (font_.getGlyphPicture(' ').colorRange() == AVCOL_RANGE_UNSPECIFIED) {
        EXPECT_EQ(difference(picture, cellOf(image, 'A')), "");
    } else {
        EXPECT_TRUE(picture.empty()) << picture;  // a range that the decoder set is to be taken away
    }
    EXPECT_EQ(difference(font_.getGlyphPicture(' '), cellOf(image, ' ')), "");
}

TEST_F(TextRendererTest, MonochromeFontsOfAnySizeStayInMemory) {
    for (const int side : {1, 15, 16, 31, 128, 130, 256}) {
        savePicture(test::randomPicture({side, side}, AV_PIX_FMT_MONOBLACK), path_, AV_CODEC_ID_PNG);
        font_.load(path_);
        ASSERT_EQ(font_.glyphs().size(), 255U) << side;
        renderer_.setFont(font_);
        std::string text;
        for (int c = 255; c >= 0; --c) text += static_cast<char>(c);
        const Picture picture = renderer_.renderText(text);
        const int cell = side / 16;
        // From 255 down to 14 it is 242 glyphs to the carriage return; a line feed follows.
        if (cell == 0 || font_.getGlyphPicture('?').empty() || font_.getGlyphPicture(' ').empty()) {
            EXPECT_TRUE(picture.empty()) << side << ": " << picture;
        } else {
            EXPECT_EQ(picture.size(), (rect_size_t{242 * cell, 2 * cell})) << side;
        }
    }
}

TEST_F(TextRendererTest, FontsOfFormatsThatDoNotSuitStayInMemory) {
    const std::string path = folder_.file("font.nut");
    std::string text;
    for (int c = 255; c >= 0; --c) text += static_cast<char>(c);
    for (const AVPixelFormat format : {AV_PIX_FMT_YUVA420P, AV_PIX_FMT_YUYV422, AV_PIX_FMT_NV12,
                                       AV_PIX_FMT_YUV410P, AV_PIX_FMT_RGB444LE, AV_PIX_FMT_YUVA444P16LE}) {
        for (const char* size : {"130x146", "31x17"}) {
            SCOPED_TRACE(std::string(av_get_pix_fmt_name(format)) + " " + size);
            test::runFFmpeg("-f lavfi -i testsrc2=size=" + std::string(size) + " -frames:v 1 -pix_fmt " +
                            av_get_pix_fmt_name(format) + " -c:v rawvideo " + path);
            font_.load(path);
            EXPECT_EQ(font_.glyphs().size(), 255U);
            EXPECT_EQ(font_.getGlyphPicture(' ').pixelFormat(), format);
            renderer_.setFont(font_);
            for (const std::string& some : {text, std::string("\xfe"), std::string(" \n\xfe\xfd")}) {
                const Picture picture = renderer_.renderText(some);
                EXPECT_TRUE(picture.empty() || (picture.pixelFormat() == format && picture.editable()))
                    << picture;
            }
        }
    }
}

/// A monochrome font of 8x8 cells, in which the last cells lie beyond the memory and so are empty.
class EmptyGlyphTest : public FontTest {
protected:
    static constexpr char emptyGlyph = '\xf5';

    void SetUp() override {
        savePicture(test::randomPicture({128, 128}, AV_PIX_FMT_MONOBLACK), path_, AV_CODEC_ID_PNG);
        font_.load(path_);
        renderer_.setFont(font_);
        ASSERT_TRUE(font_.getGlyphPicture(static_cast<unsigned char>(emptyGlyph)).empty());
        ASSERT_EQ(font_.getGlyphPicture('?').size(), (rect_size_t{8, 8}));
        ASSERT_EQ(font_.getGlyphPicture('A').size(), (rect_size_t{8, 8}));
    }
    Picture background(rect_size_t size) { return stretched(font_.getGlyphPicture(' '), size); }
};

TEST_F(EmptyGlyphTest, IsMeasuredAsAQuestionMark) {
    EXPECT_EQ(renderer_.renderText({emptyGlyph}).size(), (rect_size_t{8, 8}));
    EXPECT_EQ(renderer_.renderText({'A', emptyGlyph, emptyGlyph, '\n', emptyGlyph}).size(),
              (rect_size_t{24, 16}));
}

TEST_F(EmptyGlyphTest, DrawsNothing) {
    EXPECT_EQ(difference(renderer_.renderText({emptyGlyph, emptyGlyph}), background({16, 8})), "");
}

TEST_F(EmptyGlyphTest, DoesNotAdvanceWhatFollows) {
    const Picture picture = renderer_.renderText({emptyGlyph, 'A'});
    const Picture glyph = font_.getGlyphPicture('A');
    const Picture behind = background({16, 8});
    ASSERT_EQ(picture.size(), (rect_size_t{16, 8}));
    for (int y = 0; y < 8; ++y) {
        const unsigned char* row = rowOf(picture, y);
        EXPECT_EQ(row[0], rowOf(glyph, y)[0]) << "row " << y;
        EXPECT_EQ(row[1], rowOf(behind, y)[1]) << "row " << y;
    }
}

TEST_F(TextRendererTest, MillionCharactersInLinesAreDrawn) {
    const Picture image = makeFont({32, 32});
    std::string text;
    for (int i = 0; i < 1000000; ++i) {
        if (i % 1000 == 0 && i > 0) text += '\n';
        text += static_cast<char>('A' + i % 59);
    }
    EXPECT_EQ(difference(renderer_.renderText(text), drawnPixelByPixel(image, text)), "");
}

TEST_F(TextRendererTest, MillionCharactersInALineAreDrawnWhereTheyFit) {
    const Picture image = makeFont({16, 16});
    std::string text;
    for (int i = 0; i < 1000000; ++i) text += static_cast<char>('A' + i % 59);
    EXPECT_EQ(difference(renderer_.renderText(text), drawnPixelByPixel(image, text)), "");
}

TEST_F(TextRendererTest, BackgroundOfLongLinesHasThePlainColourOfTheSpace) {
    saveFont(plainCells({8, 8}, AV_PIX_FMT_RGB24));
    for (const std::string& text : {std::string(4096, ' '), std::string(4097, ' '), std::string(6898, ' '),
                                    std::string(6899, ' '), std::string(20000, ' ')}) {
        const Picture picture = renderer_.renderText(text);
        ASSERT_EQ(picture.size(), (rect_size_t{8 * static_cast<int>(text.size()), 8}));
        const std::vector<std::uint8_t> bytes = test::visibleBytes(picture);
        EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == ' '; }))
            << picture;
    }
}

TEST_F(TextRendererTest, TenThousandLinesAreDrawn) {
    const Picture image = makeFont({128, 128});
    const std::string text = std::string(9999, '\n') + "A";
    EXPECT_EQ(difference(renderer_.renderText(text), drawnPixelByPixel(image, text)), "");
}

TEST_F(TextRendererTest, LongestLineOf8x8GlyphsIsDrawn) {
    const Picture image = makeFont({128, 128});
    const std::string text(240000, 'A');
    const Picture picture = renderer_.renderText(text);
    ASSERT_EQ(picture.size(), (rect_size_t{1920000, 8}));
    EXPECT_EQ(difference(picture.crop({1919992, 0, 8, 8}), cellOf(image, 'A')), "");
}

TEST_F(TextRendererTest, TextTooLargeForAPictureThrows) {
    makeFont({128, 128});
    const auto before = glyphBytes(font_);
    EXPECT_THROW(renderer_.renderText(std::string(1000000, 'A')), std::bad_alloc);
    EXPECT_THROW(renderer_.renderText(std::string(1000000, ' ')), std::bad_alloc);
    EXPECT_THROW(renderer_.renderText("A" + std::string(1000000, '\n')), std::bad_alloc);
    EXPECT_EQ(glyphBytes(renderer_.font()), before);
    EXPECT_EQ(renderer_.renderText("AB").size(), (rect_size_t{16, 8}));
}

TEST_F(TextRendererTest, SizesBeyond32BitsThrow) {
    makeFont({16 * 16384, 16}, AV_PIX_FMT_GRAY8);
    EXPECT_THROW(renderer_.renderText(std::string(131072, 'A')), std::bad_alloc);  // 2^31
    EXPECT_THROW(renderer_.renderText(std::string(262145, 'A')), std::bad_alloc);  // 2^32 and one glyph
    makeFont({16, 16 * 16384}, AV_PIX_FMT_GRAY8);
    EXPECT_THROW(renderer_.renderText("A" + std::string(131071, '\n')), std::bad_alloc);
    EXPECT_THROW(renderer_.renderText("A" + std::string(262144, '\n')), std::bad_alloc);
}

// --- The font of the examples -----------------------------------------------------------------------------

TEST_F(TextRendererTest, FontOfTheExamplesHasTheCharactersOfIso8859) {
    font_.load(test::exampleMedia("raster_font.png"));
    ASSERT_EQ(font_.glyphWidth(), 12);
    ASSERT_EQ(font_.glyphHeight(), 24);
    const std::vector<std::uint8_t> blank = test::visibleBytes(font_.getGlyphPicture(' '));
    for (int c = 0; c <= 254; ++c) {
        const bool isBlank = c <= 32 || (c >= 127 && c <= 160);
        const auto pixels = test::visibleBytes(font_.getGlyphPicture(static_cast<unsigned char>(c)));
        EXPECT_EQ(pixels == blank, isBlank) << "byte " << c;
    }
}

}  // namespace
}  // namespace kvffmpeg
