#include "kvffmpeg/freetype_rendering.h"

#include <dlfcn.h>
#include <ft2build.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/fonts.h"
#include "support/media.h"
#include "support/temporary_folder.h"

#include FT_FREETYPE_H
#include FT_GLYPH_H

// This program's own functions stand before FreeType's, to count what the library asks of it and to make it
// fail.
namespace {

struct Calls {
    int kernings = 0;
    int loads = 0;
    int libraries = 0;  ///< Made and not done.
    bool initFails = false;
    bool getGlyphFails = false;
    bool loadCharFails = false;
    int failingLoads = 0;  ///< So many of the next.
    // What FreeType says instead of the truth, in 64ths of a pixel.
    std::optional<FT_Pos> advance;
    std::optional<FT_Pos> kerning;
    std::optional<FT_Pos> ascender;
    std::optional<FT_Pos> descender;
};
Calls calls;

template <typename Function>
Function* freeType(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

FT_Error FT_Init_FreeType(FT_Library* library) {
    if (calls.initFails) return 1;
    const FT_Error error = freeType<decltype(FT_Init_FreeType)>("FT_Init_FreeType")(library);
    if (error == 0) ++calls.libraries;
    return error;
}

FT_Error FT_Done_FreeType(FT_Library library) {
    --calls.libraries;
    return freeType<decltype(FT_Done_FreeType)>("FT_Done_FreeType")(library);
}

FT_Error FT_Load_Glyph(FT_Face face, FT_UInt glyph, FT_Int32 flags) {
    ++calls.loads;
    if (calls.failingLoads > 0) {
        --calls.failingLoads;
        return 1;
    }
    const FT_Error error = freeType<decltype(FT_Load_Glyph)>("FT_Load_Glyph")(face, glyph, flags);
    if (calls.advance) face->glyph->advance.x = *calls.advance;
    return error;
}

FT_Error FT_Load_Char(FT_Face face, FT_ULong character, FT_Int32 flags) {
    if (calls.loadCharFails) return 1;
    return freeType<decltype(FT_Load_Char)>("FT_Load_Char")(face, character, flags);
}

FT_Error FT_Set_Pixel_Sizes(FT_Face face, FT_UInt width, FT_UInt height) {
    const FT_Error error = freeType<decltype(FT_Set_Pixel_Sizes)>("FT_Set_Pixel_Sizes")(face, width, height);
    if (calls.ascender) face->size->metrics.ascender = *calls.ascender;
    if (calls.descender) face->size->metrics.descender = *calls.descender;
    return error;
}

FT_Error FT_Get_Glyph(FT_GlyphSlot slot, FT_Glyph* glyph) {
    if (calls.getGlyphFails) return 1;
    return freeType<decltype(FT_Get_Glyph)>("FT_Get_Glyph")(slot, glyph);
}

FT_Error FT_Get_Kerning(FT_Face face, FT_UInt left, FT_UInt right, FT_UInt mode, FT_Vector* distance) {
    ++calls.kernings;
    const FT_Error error =
        freeType<decltype(FT_Get_Kerning)>("FT_Get_Kerning")(face, left, right, mode, distance);
    if (calls.kerning) distance->x = *calls.kerning;
    return error;
}

}  // extern "C"

namespace kvffmpeg {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

using Rows = std::vector<std::string>;

constexpr Color clear{0, 0, 0, 0};
constexpr Color white{255, 255, 255};

static_assert(!std::is_copy_constructible_v<FreeTypeTextRenderer>);
static_assert(!std::is_move_constructible_v<FreeTypeTextRenderer>);

template <typename Action>
std::string runtimeErrorOf(Action action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(no std::runtime_error)";
}

Picture blackPicture(rect_size_t size, AVPixelFormat format) {
    Picture picture(size, format);
    std::memset(picture.buffer()->data(), 0, picture.buffer()->size());
    return picture;
}

/// The first byte of each pixel: '.' is 0, '#' 255, others '+'.
Rows inkOf(const Picture& picture, int bytesPerPixel = 3) {
    Rows rows;
    for (int y = 0; y < picture.height(); ++y) {
        std::string row;
        for (int x = 0; x < picture.width(); ++x) {
            const int value = picture.getPlanes()[0][y * picture.getLinesize()[0] + x * bytesPerPixel];
            row += value == 0 ? '.' : value == 255 ? '#' : '+';
        }
        rows.push_back(row);
    }
    return rows;
}

std::vector<int> pixelAt(const Picture& picture, int x, int y, int bytesPerPixel) {
    const unsigned char* pixel = picture.getPlanes()[0] + y * picture.getLinesize()[0] + x * bytesPerPixel;
    return {pixel, pixel + bytesPerPixel};
}

std::vector<int> planeOf(const Picture& picture, int plane, bool isChroma) {
    const int width = isChroma ? (picture.width() + 1) / 2 : picture.width();
    const int height = isChroma ? (picture.height() + 1) / 2 : picture.height();
    std::vector<int> samples;
    for (int y = 0; y < height; ++y) {
        const unsigned char* row = picture.getPlanes()[plane] + y * picture.getLinesize()[plane];
        samples.insert(samples.end(), row, row + width);
    }
    return samples;
}

/// With a font of blocks, whose numbers can be worked out by hand: lines of 12, of which 8 above the base
/// line.
class FreeTypeTextRendererTest : public testing::Test {
protected:
    void SetUp() override { calls = {}; }

    std::string fontPath(const test::BlockFont& font = test::blockFont()) const {
        return font.write(folder_.file("blocks.bdf"));
    }
    FreeTypeTextRenderer renderer() const { return FreeTypeTextRenderer(fontPath(), 10); }
    /// White on black RGB.
    Picture drawn(FreeTypeTextRenderer& renderer, const std::string& text, rect_size_t size,
                  point_t position = {0, 0}) const {
        renderer.setFontColor(white);
        renderer.setBackgroundColor(clear);
        Picture picture = blackPicture(size, AV_PIX_FMT_RGB24);
        renderer.drawTo(picture, text, position);
        return picture;
    }

    test::TemporaryFolder folder_;
};

/// With DejaVu, beside what FreeType itself says of it.
class FreeTypeScalableTest : public FreeTypeTextRendererTest {
protected:
    static constexpr int size = 48;

    void SetUp() override {
        KVFFMPEG_REQUIRE_FONTS();
        ASSERT_EQ(FT_Init_FreeType(&library_), 0);
        ASSERT_EQ(FT_New_Face(library_, test::sansFont().c_str(), 0, &face_), 0);
        ASSERT_EQ(FT_Set_Pixel_Sizes(face_, 0, size), 0);
        calls = {};
    }
    void TearDown() override {
        if (face_) FT_Done_Face(face_);
        if (library_) FT_Done_FreeType(library_);
    }

    int advance(char32_t c) {
        EXPECT_EQ(FT_Load_Char(face_, c, FT_LOAD_RENDER), 0);
        return static_cast<int>(face_->glyph->advance.x / 64);
    }
    int kerning(char32_t left, char32_t right) {
        FT_Vector distance{};
        EXPECT_EQ(FT_Get_Kerning(face_, FT_Get_Char_Index(face_, left), FT_Get_Char_Index(face_, right),
                                 FT_KERNING_DEFAULT, &distance),
                  0);
        return static_cast<int>(distance.x >> 6);
    }
    static int even(int value) { return value + value % 2; }

    FT_Library library_ = nullptr;
    FT_Face face_ = nullptr;
};

// ---- Fonts that cannot be used

TEST_F(FreeTypeTextRendererTest, MissingFileThrows) {
    const std::string path = folder_.file("missing.ttf");
    EXPECT_EQ(runtimeErrorOf([&] { FreeTypeTextRenderer(path, 20); }), "Could not load font " + path);
    EXPECT_EQ(calls.libraries, 0);
}

TEST_F(FreeTypeTextRendererTest, FileThatIsNoFontThrows) {
    const std::string path = folder_.file("text.ttf");
    test::writeFile(path, {'n', 'o', ' ', 'f', 'o', 'n', 't'});
    EXPECT_EQ(runtimeErrorOf([&] { FreeTypeTextRenderer(path, 20); }), "Could not load font " + path);
    EXPECT_EQ(calls.libraries, 0);
}

TEST_F(FreeTypeTextRendererTest, FolderThrows) {
    const std::string path = folder_.path();
    EXPECT_EQ(runtimeErrorOf([&] { FreeTypeTextRenderer(path, 20); }), "Could not load font " + path);
}

TEST_F(FreeTypeTextRendererTest, FontWithoutUnicodeCharmapThrows) {
    test::BlockFont font = test::blockFont();
    font.charset = "BLOCKS";
    const std::string path = fontPath(font);
    EXPECT_EQ(runtimeErrorOf([&] { FreeTypeTextRenderer(path, 10); }),
              "Could not select unicode charmap for font " + path);
    EXPECT_EQ(calls.libraries, 0);
}

TEST_F(FreeTypeTextRendererTest, SizeThatABitmapFontLacksThrows) {
    const std::string path = fontPath();
    EXPECT_EQ(runtimeErrorOf([&] { FreeTypeTextRenderer(path, 30); }),
              "Could not set fontsize for font " + path);
    EXPECT_EQ(calls.libraries, 0);
}

TEST_F(FreeTypeScalableTest, NegativeSizesThrow) {
    for (const int negative : {-1, -48, INT_MIN}) {
        EXPECT_EQ(runtimeErrorOf([&] { FreeTypeTextRenderer(test::sansFont(), negative); }),
                  "Could not set fontsize for font " + test::sansFont())
            << negative;
    }
    EXPECT_EQ(calls.libraries, 0);
}

TEST_F(FreeTypeScalableTest, SizesThatFreeTypeCannotStoreThrow) {
    for (const int huge : {65536, 1000000, INT_MAX}) {
        EXPECT_EQ(runtimeErrorOf([&] { FreeTypeTextRenderer(test::sansFont(), huge); }),
                  "Could not set fontsize for font " + test::sansFont())
            << huge;
    }
}

TEST_F(FreeTypeScalableTest, SizeZeroCountsAsOnePixel) {
    FreeTypeTextRenderer zero(test::sansFont(), 0);
    FreeTypeTextRenderer one(test::sansFont(), 1);
    EXPECT_EQ(zero.getTextSize("word"), one.getTextSize("word"));
}

TEST_F(FreeTypeTextRendererTest, FailureToInitializeFreeTypeThrows) {
    const std::string path = fontPath();
    calls.initFails = true;
    EXPECT_EQ(runtimeErrorOf([&] { FreeTypeTextRenderer(path, 10); }),
              "Could not initialize FreeType library");
}

TEST_F(FreeTypeTextRendererTest, EachRendererHasAFreeTypeLibraryOfItsOwn) {
    {
        FreeTypeTextRenderer first = renderer();
        FreeTypeTextRenderer second = renderer();
        EXPECT_EQ(calls.libraries, 2);
    }
    EXPECT_EQ(calls.libraries, 0);
}

// ---- Sizes

TEST_F(FreeTypeTextRendererTest, EmptyTextHasNoSize) {
    EXPECT_EQ(renderer().getTextSize(""), (rect_size_t{0, 0}));
}

TEST_F(FreeTypeTextRendererTest, EmptyTextHasTheSizeOfThePadding) {
    FreeTypeTextRenderer text = renderer();
    text.setPadding(1, 2, 4, 8);
    EXPECT_EQ(text.getTextSize(""), (rect_size_t{5, 10}));
}

TEST_F(FreeTypeTextRendererTest, PaddingIsAddedAfterRounding) {
    FreeTypeTextRenderer text = renderer();
    text.setPadding(1, 2, 4, 8);
    EXPECT_EQ(text.getTextSize("B"), (rect_size_t{6 + 5, 12 + 10}));
}

TEST_F(FreeTypeTextRendererTest, WidthOfSevenIsEight) {
    EXPECT_EQ(renderer().getTextSize("?"), (rect_size_t{8, 12}));
}

TEST_F(FreeTypeTextRendererTest, AdvancesAddUp) {
    EXPECT_EQ(renderer().getTextSize("AB i"), (rect_size_t{6 + 5 + 3 + 2, 12}));
}

TEST_F(FreeTypeTextRendererTest, TwoLinesAreTwoLineHeightsAndTheSpacing) {
    FreeTypeTextRenderer text = renderer();
    EXPECT_EQ(text.getTextSize("A\nB"), (rect_size_t{6, 24}));
    text.setLineSpacing(4);
    EXPECT_EQ(text.getTextSize("A\nB"), (rect_size_t{6, 28}));
    text.setLineSpacing(3);
    EXPECT_EQ(text.getTextSize("A\nB"), (rect_size_t{6, 28})) << "27, rounded up";
}

TEST_F(FreeTypeTextRendererTest, HeightIsRoundedOnceForAllLines) {
    FreeTypeTextRenderer text = renderer();
    text.setLineSpacing(1);
    EXPECT_EQ(text.getTextSize("A\nA\nA\nA\nA"), (rect_size_t{6, 5 * 12 + 4}));
}

TEST_F(FreeTypeTextRendererTest, LongestLineGivesTheWidth) {
    FreeTypeTextRenderer text = renderer();
    EXPECT_EQ(text.getTextSize("AAA\nA").w, 18);
    EXPECT_EQ(text.getTextSize("A\nAAA").w, 18);
    EXPECT_EQ(text.getTextSize("A\nAAA\nA").w, 18);
}

TEST_F(FreeTypeTextRendererTest, TrailingLineFeedAddsALine) {
    FreeTypeTextRenderer text = renderer();
    EXPECT_EQ(text.getTextSize("A\n"), (rect_size_t{6, 24}));
    EXPECT_EQ(text.getTextSize("\n"), (rect_size_t{0, 24}));
}

TEST_F(FreeTypeTextRendererTest, NegativeLineSpacingMovesLinesTogether) {
    FreeTypeTextRenderer text = renderer();
    text.setLineSpacing(-5);
    EXPECT_EQ(text.getTextSize("A\nA"), (rect_size_t{6, 20}));
    text.setLineSpacing(-100);
    EXPECT_EQ(text.getTextSize("A\nA"), (rect_size_t{6, -76}));
}

TEST_F(FreeTypeTextRendererTest, SingleTabIsFourSpacesWide) {
    EXPECT_EQ(renderer().getTextSize("\t"), (rect_size_t{12, 12}));
}

TEST_F(FreeTypeTextRendererTest, TabsAreAsWideWhereverTheyStand) {
    EXPECT_EQ(renderer().getTextSize("A\tA\t\t").w, 6 + 12 + 6 + 24);
}

TEST_F(FreeTypeTextRendererTest, TabIsFourQuestionMarksWideWithoutASpace) {
    test::BlockFont font = test::blockFont();
    font.glyphs.erase(font.glyphs.begin());
    EXPECT_EQ(FreeTypeTextRenderer(fontPath(font), 10).getTextSize("\t").w, 28);
}

TEST_F(FreeTypeTextRendererTest, TabHasNoWidthWhenTheSpaceCannotBeLoaded) {
    const std::string path = fontPath();
    calls.getGlyphFails = true;
    FreeTypeTextRenderer text(path, 10);
    calls.getGlyphFails = false;
    EXPECT_EQ(text.getTextSize("\t"), (rect_size_t{0, 12}));
    EXPECT_EQ(text.getTextSize(" \t").w, 4) << "the width is fixed by then";
}

TEST_F(FreeTypeTextRendererTest, CarriageReturnMovesNothing) {
    FreeTypeTextRenderer text = renderer();
    EXPECT_EQ(text.getTextSize("A\rA"), (rect_size_t{12, 12}));
    EXPECT_EQ(inkOf(drawn(text, "A\r\nA", {6, 24})), inkOf(drawn(text, "A\nA", {6, 24})));
}

TEST_F(FreeTypeTextRendererTest, OtherControlCharactersAreIgnored) {
    FreeTypeTextRenderer text = renderer();
    for (int c = 0; c < 128; ++c) {
        if (c == '\t' || c == '\n' || (c >= 32 && c < 127)) continue;
        EXPECT_EQ(text.getTextSize(std::string{'A', static_cast<char>(c), 'A'}), (rect_size_t{12, 12})) << c;
    }
    EXPECT_EQ(text.getTextSize("\r"), (rect_size_t{0, 12})) << "still a line";
}

TEST_F(FreeTypeTextRendererTest, CodePointsFrom128OnAreGlyphsWhateverTheyAre) {
    // U+0085 is a control character.
    EXPECT_EQ(renderer().getTextSize("A\xC2\x85").w, 6 + 7 + 1);
}

TEST_F(FreeTypeTextRendererTest, MissingGlyphsTakeTheAdvanceOfTheQuestionMark) {
    EXPECT_EQ(renderer().getTextSize("\xD0\xAF\xD0\xAF"), (rect_size_t{14, 12}));
}

TEST_F(FreeTypeTextRendererTest, GlyphsThatCannotBeCopiedAreLeftOut) {
    FreeTypeTextRenderer text = renderer();
    calls.getGlyphFails = true;
    EXPECT_EQ(text.getTextSize("AB"), (rect_size_t{0, 12}));
    calls.getGlyphFails = false;
    EXPECT_EQ(text.getTextSize("BA"), (rect_size_t{12, 12})) << "and tried again";
}

TEST_F(FreeTypeTextRendererTest, GlyphThatCannotBeLoadedTakesTheAdvanceOfTheQuestionMark) {
    FreeTypeTextRenderer text = renderer();
    calls.failingLoads = 1;
    EXPECT_EQ(text.getTextSize("A"), (rect_size_t{8, 12}));
    EXPECT_EQ(text.getTextSize("AA"), (rect_size_t{14, 12})) << "and keeps it";
    EXPECT_EQ(inkOf(drawn(text, "A", {8, 12})), inkOf(drawn(text, "?", {8, 12})));
}

TEST_F(FreeTypeTextRendererTest, GlyphsAreLeftOutWhereTheQuestionMarkCannotBeLoadedEither) {
    FreeTypeTextRenderer text = renderer();
    calls.loadCharFails = true;
    EXPECT_EQ(text.getTextSize("A\xD0\xAFi"), (rect_size_t{8, 12}));
    calls.loadCharFails = false;
    EXPECT_EQ(text.getTextSize("Ai\xD0\xAF"), (rect_size_t{16, 12})) << "and tried again";
}

TEST_F(FreeTypeTextRendererTest, MissingGlyphOfFontWithoutQuestionMarkIsItsSignForMissingGlyphs) {
    test::BlockFont font = test::blockFont();
    // Of bitmap fonts like this FreeType takes the first glyph for the sign, here that of "A".
    font.glyphs.erase(std::remove_if(font.glyphs.begin(), font.glyphs.end(),
                                     [](const test::BlockGlyph& glyph) { return glyph.codePoint < 'A'; }),
                      font.glyphs.end());
    FreeTypeTextRenderer text(fontPath(font), 10);
    EXPECT_EQ(text.getTextSize("\xD0\xAF"), (rect_size_t{6, 12}));
    EXPECT_EQ(inkOf(drawn(text, "\xD0\xAF", {6, 12})), inkOf(drawn(text, "A", {6, 12})));
}

TEST_F(FreeTypeTextRendererTest, ByteOrderMarkIsACharacterLikeAnyOther) {
    EXPECT_EQ(renderer().getTextSize("\xEF\xBB\xBF"), renderer().getTextSize("?"));
}

TEST_F(FreeTypeTextRendererTest, AdvancesAreDividedTowardsZero) {
    FreeTypeTextRenderer text = renderer();
    calls.advance = 5 * 64 + 63;
    EXPECT_EQ(text.getTextSize("AA").w, 10);
    calls.advance = -100;
    // "i" is a column at the pen, "B" lies below the base line.
    EXPECT_EQ(inkOf(drawn(text, "Bi", {4, 12}, {2, 0}))[1], ".#..");
}

TEST_F(FreeTypeTextRendererTest, AscenderAndDescenderAreDividedTowardsZero) {
    calls.descender = -127;
    EXPECT_EQ(renderer().getTextSize("\n").h, 2 * (10 + 1));
    calls.ascender = -100;
    FreeTypeTextRenderer text = renderer();
    EXPECT_EQ(inkOf(drawn(text, "i", {1, 12}, {0, 8})),
              (Rows{"#", "#", "#", "#", "#", "#", "#", ".", ".", ".", ".", "."}));
}

TEST_F(FreeTypeTextRendererTest, DescenderAboveTheBaseLineCountsAsOneBelow) {
    calls.descender = 3 * 64;
    EXPECT_EQ(renderer().getTextSize("\n").h, 2 * (10 + 3));
}

TEST_F(FreeTypeTextRendererTest, HugePaddingIsCutToWhatAnIntHolds) {
    FreeTypeTextRenderer text = renderer();
    text.setPadding(INT_MAX, INT_MIN, INT_MAX, INT_MIN);
    EXPECT_EQ(text.getTextSize("A"), (rect_size_t{INT_MAX, INT_MIN}));
    EXPECT_THROW(text.drawYUV("A", AVCOL_RANGE_MPEG), std::bad_alloc);
}

TEST_F(FreeTypeTextRendererTest, HugeLineSpacingIsCutToAnEvenInt) {
    FreeTypeTextRenderer text = renderer();
    text.setLineSpacing(INT_MAX);
    EXPECT_EQ(text.getTextSize("A\n\nA").h, INT_MAX - 1);
    EXPECT_EQ(inkOf(drawn(text, "A\n\nA", {6, 12}))[1], ".####.") << "the lines in reach are drawn";
}

TEST_F(FreeTypeTextRendererTest, MillionCharactersAreLaidOut) {
    EXPECT_EQ(renderer().getTextSize(std::string(1000000, 'A')), (rect_size_t{6000000, 12}));
}

// ---- Kerning and metrics of a scalable font

TEST_F(FreeTypeScalableTest, LineHeightIsTheSizeAndTheDescent) {
    const int descent = std::abs(static_cast<int>(face_->size->metrics.descender / 64));
    ASSERT_GT(descent, 0);
    FreeTypeTextRenderer text(test::sansFont(), size);
    EXPECT_EQ(text.getTextSize("x").h, even(size + descent));
    EXPECT_EQ(text.getTextSize("x\nx\nx").h, even(3 * (size + descent)));
}

TEST_F(FreeTypeScalableTest, PairsAreKerned) {
    ASSERT_LT(kerning('A', 'V'), 0);
    FreeTypeTextRenderer text(test::sansFont(), size);
    EXPECT_EQ(text.getTextSize("AV").w, even(advance('A') + kerning('A', 'V') + advance('V')));
    EXPECT_EQ(text.getTextSize("AVA").w,
              even(2 * advance('A') + kerning('A', 'V') + kerning('V', 'A') + advance('V')));
}

TEST_F(FreeTypeScalableTest, PairsAreKernedInTheirOrder) {
    ASSERT_NE(kerning('T', 'o'), kerning('o', 'T'));
    FreeTypeTextRenderer text(test::sansFont(), size);
    EXPECT_EQ(text.getTextSize("To").w, even(advance('T') + kerning('T', 'o') + advance('o')));
    EXPECT_EQ(text.getTextSize("oT").w, even(advance('o') + kerning('o', 'T') + advance('T')));
}

TEST_F(FreeTypeScalableTest, PairsWithOneGlyphInCommonAreKernedByThemselves) {
    ASSERT_NE(kerning('A', 'V'), kerning('l', 'V'));
    ASSERT_NE(kerning('A', 'V'), kerning('A', 'l'));
    FreeTypeTextRenderer text(test::sansFont(), size);
    EXPECT_EQ(text.getTextSize("AVlV").w,
              even(advance('A') + kerning('A', 'V') + advance('V') + kerning('V', 'l') + advance('l') +
                   kerning('l', 'V') + advance('V')));
    EXPECT_EQ(text.getTextSize("Al").w, even(advance('A') + kerning('A', 'l') + advance('l')));
}

TEST_F(FreeTypeScalableTest, KerningMovesTheGlyph) {
    ASSERT_LT(kerning('A', 'V'), 0);
    FreeTypeTextRenderer text(test::sansFont(), size);
    Picture apart = drawn(text, "A", {100, 60});
    text.drawTo(apart, "V", {advance('A') + kerning('A', 'V'), 0});
    EXPECT_EQ(test::visibleBytes(drawn(text, "AV", {100, 60})), test::visibleBytes(apart));
}

TEST_F(FreeTypeScalableTest, KerningIsRoundedDown) {
    const int unkerned = 5 * advance('A') + 4 * advance('V');
    FreeTypeTextRenderer pulled(test::sansFont(), size);
    calls.kerning = -1;
    EXPECT_EQ(pulled.getTextSize("AVAVAVAVA").w, even(unkerned - 8));
    FreeTypeTextRenderer pushed(test::sansFont(), size);
    calls.kerning = 127;
    EXPECT_EQ(pushed.getTextSize("AVAVAVAVA").w, even(unkerned + 8));
}

TEST_F(FreeTypeScalableTest, GlyphThatCannotBeLoadedIsKernedAsItself) {
    const int expected = advance('?') + kerning('A', 'V') + advance('V');
    ASSERT_NE(kerning('A', 'V'), kerning('?', 'V'));
    FreeTypeTextRenderer text(test::sansFont(), size);
    calls.failingLoads = 1;
    EXPECT_EQ(text.getTextSize("AV").w, even(expected));
}

TEST_F(FreeTypeScalableTest, IgnoredCharactersDoNotBreakAPair) {
    FreeTypeTextRenderer text(test::sansFont(), size);
    EXPECT_EQ(text.getTextSize("A\r\x01V"), text.getTextSize("AV"));
}

TEST_F(FreeTypeScalableTest, TabBreaksAPair) {
    FreeTypeTextRenderer text(test::sansFont(), size);
    EXPECT_EQ(text.getTextSize("A\tV").w, even(advance('A') + 4 * advance(' ') + advance('V')));
}

TEST_F(FreeTypeScalableTest, LineFeedBreaksAPair) {
    ASSERT_NE(kerning('A', 'V'), 0);
    FreeTypeTextRenderer text(test::sansFont(), size);
    EXPECT_EQ(text.getTextSize("A\nV").w, even(std::max(advance('A'), advance('V'))));
    EXPECT_EQ(calls.kernings, 1) << "only this test's own";
}

TEST_F(FreeTypeScalableTest, MissingGlyphBreaksAPair) {
    FreeTypeTextRenderer text(test::sansFont(), size);
    // A private code point, drawn as a question mark that is not kerned.
    EXPECT_EQ(text.getTextSize("A\xF4\x80\x80\x80V").w, even(advance('A') + advance('?') + advance('V')));
    EXPECT_EQ(calls.kernings, 0);
}

TEST_F(FreeTypeScalableTest, MissingGlyphIsDrawnAsTheQuestionMark) {
    FreeTypeTextRenderer text(test::sansFont(), size);
    EXPECT_EQ(inkOf(drawn(text, "\xF4\x80\x80\x80", {60, 60})), inkOf(drawn(text, "?", {60, 60})));
}

TEST_F(FreeTypeScalableTest, LettersOfOtherScriptsHaveTheirOwnAdvances) {
    FreeTypeTextRenderer text(test::sansFont(), size);
    EXPECT_EQ(text.getTextSize("\xD0\xAF").w, even(advance(U'\u042F')));
    EXPECT_EQ(text.getTextSize("\xCE\xA9").w, even(advance(U'\u03A9')));
    EXPECT_NE(inkOf(drawn(text, "\xD0\xAF", {60, 60})), inkOf(drawn(text, "?", {60, 60})));
}

// ---- What is kept

/// Counts layouts by a glyph that FreeType does not give: each layout of "A" asks for it again.
class FreeTypeLayoutTest : public FreeTypeTextRendererTest {
protected:
    void SetUp() override {
        FreeTypeTextRendererTest::SetUp();
        text_ = std::make_unique<FreeTypeTextRenderer>(fontPath(), 10);
        text_->setBackgroundColor(clear);
        calls.getGlyphFails = true;
        calls.loads = 0;
    }
    static int layouts() { return calls.loads; }

    std::unique_ptr<FreeTypeTextRenderer> text_;
};

TEST_F(FreeTypeLayoutTest, SameTextIsLaidOutOnce) {
    text_->getTextSize("A ");
    EXPECT_EQ(layouts(), 1);
    text_->getTextSize("A ");
    Picture picture = blackPicture({8, 8}, AV_PIX_FMT_RGB24);
    text_->drawTo(picture, "A ", {0, 0});
    text_->drawYUV("A ", AVCOL_RANGE_MPEG);
    EXPECT_EQ(layouts(), 1);
}

TEST_F(FreeTypeLayoutTest, AnotherTextIsLaidOutAnew) {
    text_->getTextSize("A");
    text_->getTextSize("AA");
    text_->getTextSize("A");
    EXPECT_EQ(layouts(), 1 + 2 + 1);
}

TEST_F(FreeTypeLayoutTest, LineSpacingAndPaddingInvalidateTheLayout) {
    text_->getTextSize("A");
    text_->setLineSpacing(0);
    text_->getTextSize("A");
    EXPECT_EQ(layouts(), 2);
    text_->setPadding(0, 0, 0, 0);
    text_->getTextSize("A");
    EXPECT_EQ(layouts(), 3);
}

TEST_F(FreeTypeLayoutTest, NegativeHeightsAreLaidOutEachTime) {
    text_->setLineSpacing(-100);
    const rect_size_t first = text_->getTextSize("A\n");
    EXPECT_EQ(first.h, -76);
    EXPECT_EQ(text_->getTextSize("A\n"), first);
    EXPECT_EQ(layouts(), 2);
}

TEST_F(FreeTypeLayoutTest, ColoursKeepTheLayout) {
    text_->getTextSize("A ");
    text_->setFontColor(white);
    text_->setBackgroundColor({1, 2, 3});
    text_->drawYUV("A ", AVCOL_RANGE_MPEG);
    EXPECT_EQ(layouts(), 1);
}

TEST_F(FreeTypeLayoutTest, InvalidTextDoesNotBringBackAnInvalidatedLayout) {
    text_->getTextSize("A ");
    text_->setPadding(1, 2, 3, 4);
    EXPECT_THROW(text_->getTextSize("A\xC3"), std::range_error);
    EXPECT_EQ(text_->getTextSize("A "), (rect_size_t{4 + 4, 12 + 6}));
    EXPECT_EQ(layouts(), 2);
}

TEST_F(FreeTypeLayoutTest, InvalidTextKeepsTheLastLayout) {
    const rect_size_t before = text_->getTextSize("A ");
    EXPECT_THROW(text_->getTextSize("A\xC3"), std::range_error);
    EXPECT_EQ(text_->getTextSize("A "), before);
    EXPECT_EQ(layouts(), 1);
}

TEST_F(FreeTypeScalableTest, PairsAreLookedUpOnce) {
    FreeTypeTextRenderer text(test::sansFont(), size);
    const rect_size_t first = text.getTextSize("AVAVA");
    EXPECT_EQ(calls.kernings, 2);
    text.getTextSize("A");
    EXPECT_EQ(text.getTextSize("AVAVA"), first);
    EXPECT_EQ(calls.kernings, 2);
}

TEST_F(FreeTypeScalableTest, GlyphsAreRenderedOncePerCodePoint) {
    FreeTypeTextRenderer text(test::sansFont(), size);
    EXPECT_EQ(calls.loads, 1) << "the space";
    text.getTextSize("AV A");
    text.getTextSize("VAVA V");
    EXPECT_EQ(calls.loads, 3);
}

// ---- Texts that are not UTF-8

TEST_F(FreeTypeTextRendererTest, InvalidTextThrowsOnEveryCall) {
    FreeTypeTextRenderer text = renderer();
    Picture picture = blackPicture({8, 8}, AV_PIX_FMT_RGB24);
    const auto throwsRangeError = ThrowsMessage<std::range_error>(StrEq("wstring_convert::from_bytes"));
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT([&] { text.getTextSize("A\xFF"); }, throwsRangeError);
        EXPECT_THAT([&] { text.drawTo(picture, "A\xFF", {0, 0}); }, throwsRangeError);
        EXPECT_THAT([&] { text.drawYUV("A\xFF", AVCOL_RANGE_MPEG); }, throwsRangeError);
    }
    EXPECT_THAT(planeOf(picture, 0, false), Each(0));
}

TEST_F(FreeTypeTextRendererTest, InvalidFirstTextLeavesTheRendererUsable) {
    FreeTypeTextRenderer text = renderer();
    EXPECT_THROW(text.getTextSize("\xED\xA0\x80"), std::range_error);
    EXPECT_EQ(text.getTextSize("A"), (rect_size_t{6, 12}));
    EXPECT_EQ(text.getTextSize(""), (rect_size_t{0, 0}));
}

// ---- Drawing

TEST_F(FreeTypeTextRendererTest, GlyphsHangFromTheAscentLine) {
    FreeTypeTextRenderer text = renderer();
    EXPECT_EQ(inkOf(drawn(text, "AB\ni", {14, 22})),
              (Rows{"..............", ".####.........", ".####.........", ".####.........", ".####.........",
                    ".####.........", ".####.........", ".####.##......", "......##......", "......##......",
                    "..............", "..............", "..............", "#.............", "#.............",
                    "#.............", "#.............", "#.............", "#.............", "#.............",
                    "..............", ".............."}));
}

TEST_F(FreeTypeTextRendererTest, PositionAndPaddingMoveTheGlyphs) {
    FreeTypeTextRenderer text = renderer();
    text.setPadding(2, 1, 9, 9);
    EXPECT_EQ(inkOf(drawn(text, "i", {6, 11}, {1, 2})),
              (Rows{"......", "......", "......", "......", "...#..", "...#..", "...#..", "...#..", "...#..",
                    "...#..", "...#.."}));
}

TEST_F(FreeTypeTextRendererTest, WhatLiesOutsideIsLeftOut) {
    FreeTypeTextRenderer text = renderer();
    EXPECT_EQ(inkOf(drawn(text, "A", {4, 3}, {-3, -6})), (Rows{"##..", "##..", "...."}));
    EXPECT_EQ(inkOf(drawn(text, "A", {4, 3}, {2, 1})), (Rows{"....", "....", "...#"}));
}

TEST_F(FreeTypeTextRendererTest, PositionsFarAwayDrawNothing) {
    FreeTypeTextRenderer text = renderer();
    for (const int x : {INT_MIN, -1000000, 1000000, INT_MAX}) {
        for (const int y : {INT_MIN, 0, INT_MAX}) {
            EXPECT_THAT(planeOf(drawn(text, "AB\ti\nA?", {8, 8}, {x, y}), 0, false), Each(0))
                << x << "," << y;
        }
    }
}

TEST_F(FreeTypeTextRendererTest, PositionsAndPaddingBeyondAnIntDrawNothing) {
    FreeTypeTextRenderer text = renderer();
    text.setPadding(INT_MAX, INT_MAX, 0, 0);
    EXPECT_THAT(planeOf(drawn(text, "A\nA", {8, 8}, {INT_MAX, INT_MAX}), 0, false), Each(0));
    text.setPadding(INT_MIN, INT_MIN, 0, 0);
    EXPECT_THAT(planeOf(drawn(text, "A\nA", {8, 8}, {INT_MIN, INT_MIN}), 0, false), Each(0));
    // Padding and position may make up for each other, but for the pixel that they differ by.
    EXPECT_EQ(inkOf(drawn(text, "A", {6, 2}, {INT_MAX, INT_MAX}))[0], "####..");
}

TEST_F(FreeTypeTextRendererTest, BackgroundsFarAwayAreNotDrawn) {
    FreeTypeTextRenderer text = renderer();
    text.setBackgroundColor(white);
    text.setPadding(1, 1, INT_MAX, INT_MAX);
    for (const int x : {INT_MIN, 1000000, INT_MAX}) {
        for (const int y : {INT_MIN, 0, INT_MAX}) {
            Picture picture = blackPicture({8, 8}, AV_PIX_FMT_RGB24);
            text.drawTo(picture, "A", {x, y});
            EXPECT_THAT(planeOf(picture, 0, false), Each(0)) << x << "," << y;
        }
    }
}

TEST_F(FreeTypeTextRendererTest, TabMovesWhatFollows) {
    FreeTypeTextRenderer text = renderer();
    EXPECT_EQ(inkOf(drawn(text, "i\ti", {16, 12}))[1], "#.............#.");
}

TEST_F(FreeTypeTextRendererTest, TextCutToNothingByItsPaddingIsNotDrawn) {
    FreeTypeTextRenderer text = renderer();
    text.setPadding(0, 0, -6, -12);
    EXPECT_EQ(text.getTextSize("A"), (rect_size_t{0, 0}));
    EXPECT_THAT(planeOf(drawn(text, "A", {8, 12}), 0, false), Each(0));
    EXPECT_EQ(text.drawYUV("A", AVCOL_RANGE_MPEG).size(), (rect_size_t{0, 0}));
}

TEST_F(FreeTypeTextRendererTest, DefaultColoursAreLightMagentaOnBlack) {
    FreeTypeTextRenderer text = renderer();
    Picture picture = blackPicture({8, 14}, AV_PIX_FMT_RGBA);
    std::memset(picture.buffer()->data(), 9, picture.buffer()->size());
    text.drawTo(picture, "A", {0, 0});
    EXPECT_THAT(pixelAt(picture, 1, 1, 4), ElementsAre(255, 225, 255, 255));
    EXPECT_THAT(pixelAt(picture, 0, 0, 4), ElementsAre(0, 0, 0, 255));
    EXPECT_THAT(pixelAt(picture, 6, 0, 4), ElementsAre(9, 9, 9, 9)) << "beside the block";
}

TEST_F(FreeTypeTextRendererTest, BackgroundReplacesTheWholeBlock) {
    FreeTypeTextRenderer text = renderer();
    text.setPadding(1, 1, 1, 1);
    text.setBackgroundColor({10, 20, 30, 40});
    text.setFontColor({0, 0, 0, 0});
    Picture picture = blackPicture({12, 16}, AV_PIX_FMT_RGBA);
    text.drawTo(picture, "A", {2, 1});
    for (int y = 0; y < 16; ++y) {
        for (int x = 0; x < 12; ++x) {
            const bool isInside = x >= 2 && x < 2 + 8 && y >= 1 && y < 1 + 14;
            EXPECT_EQ(pixelAt(picture, x, y, 4),
                      isInside ? (std::vector<int>{10, 20, 30, 40}) : (std::vector<int>{0, 0, 0, 0}))
                << x << "," << y;
        }
    }
}

TEST_F(FreeTypeTextRendererTest, EmptyTextWithPaddingIsBackground) {
    FreeTypeTextRenderer text = renderer();
    text.setPadding(2, 1, 1, 1);
    text.setBackgroundColor(white);
    Picture picture = blackPicture({4, 3}, AV_PIX_FMT_RGB24);
    text.drawTo(picture, "", {0, 0});
    EXPECT_EQ(inkOf(picture), (Rows{"###.", "###.", "...."}));
}

TEST_F(FreeTypeTextRendererTest, TranslucentFontColourIsBlended) {
    FreeTypeTextRenderer text = renderer();
    text.setFontColor({255, 255, 255, 128});
    text.setBackgroundColor(clear);
    Picture picture = blackPicture({6, 12}, AV_PIX_FMT_RGB24);
    text.drawTo(picture, "A", {0, 0});
    EXPECT_THAT(pixelAt(picture, 1, 1, 3), Each(128));
}

TEST_F(FreeTypeTextRendererTest, ColoursArePaintedInThePicturesRange) {
    FreeTypeTextRenderer text = renderer();
    text.setFontColor(white);
    text.setBackgroundColor(clear);
    for (const auto& [range, luma] : {std::pair(AVCOL_RANGE_MPEG, 235), std::pair(AVCOL_RANGE_JPEG, 255),
                                      std::pair(AVCOL_RANGE_UNSPECIFIED, 235)}) {
        Picture picture({6, 12}, AV_PIX_FMT_YUV420P, range);
        std::memset(picture.buffer()->data(), 0, picture.buffer()->size());
        text.drawTo(picture, "A", {0, 0});
        EXPECT_EQ(picture.getPlanes()[0][picture.getLinesize()[0] + 1], luma) << range;
    }
}

TEST_F(FreeTypeTextRendererTest, BitsOfEveryDepthAreDrawn) {
    const auto lumaOf = [&](int bits, const std::string& row) {
        test::BlockFont font = test::blockFont(bits);
        font.glyphs.push_back({'x', 6, {row}, 0, 0});
        FreeTypeTextRenderer text(fontPath(font), 10);
        std::vector<int> values;
        const Picture picture = drawn(text, "x", {6, 12});
        for (std::size_t x = 0; x < row.size(); ++x) {
            values.push_back(pixelAt(picture, static_cast<int>(x), 7, 3)[0]);
        }
        return values;
    };
    EXPECT_THAT(lumaOf(1, "1 11 1"), ElementsAre(255, 0, 255, 255, 0, 255));
    EXPECT_THAT(lumaOf(2, "1 2 3"), ElementsAre(85, 0, 170, 0, 255));
    EXPECT_THAT(lumaOf(4, "1 8f"), ElementsAre(17, 0, 136, 255));
}

TEST_F(FreeTypeTextRendererTest, TextWithoutSizeDrawsNothingWhateverThePicture) {
    FreeTypeTextRenderer text = renderer();
    Picture empty;
    EXPECT_NO_THROW(text.drawTo(empty, "", {0, 0}));
    Picture palette = blackPicture({8, 8}, AV_PIX_FMT_PAL8);
    const Picture shared = palette;
    EXPECT_NO_THROW(text.drawTo(palette, "", {0, 0}));
    EXPECT_EQ(test::visibleBytes(palette), test::visibleBytes(shared));
}

TEST_F(FreeTypeTextRendererTest, BackgroundOnSharedPictureThrowsAndChangesNothing) {
    FreeTypeTextRenderer text = renderer();
    Picture picture = blackPicture({8, 14}, AV_PIX_FMT_RGB24);
    const Picture shared = picture;
    text.setBackgroundColor(white);
    EXPECT_EQ(runtimeErrorOf([&] {
                  text.drawTo(picture, "A", {0, 0});
              }),
              "fillRectangle: Picture must be editable");
    EXPECT_THAT(test::visibleBytes(shared), Each(0));
}

TEST_F(FreeTypeTextRendererTest, TextWithHeightOnlyAsksForAnEditablePicture) {
    FreeTypeTextRenderer text = renderer();
    Picture picture = blackPicture({8, 14}, AV_PIX_FMT_RGB24);
    const Picture shared = picture;
    EXPECT_EQ(runtimeErrorOf([&] {
                  text.drawTo(picture, "\n", {0, 0});
              }),
              "fillRectangle: Picture must be editable");
}

TEST_F(FreeTypeTextRendererTest, WithoutBackgroundSharedPicturesAreDrawnOn) {
    FreeTypeTextRenderer text = renderer();
    text.setBackgroundColor(clear);
    Picture picture = blackPicture({8, 14}, AV_PIX_FMT_RGB24);
    const Picture shared = picture;
    text.drawTo(picture, "A", {0, 0});
    EXPECT_THAT(pixelAt(shared, 1, 1, 3), ElementsAre(255, 225, 255));
}

TEST_F(FreeTypeTextRendererTest, FormatsThatAreNotDrawnOnThrow) {
    FreeTypeTextRenderer text = renderer();
    for (const Color background : {clear, white}) {
        text.setBackgroundColor(background);
        for (const point_t position : {point_t{0, 0}, point_t{100, 100}}) {
            Picture picture = blackPicture({8, 8}, AV_PIX_FMT_RGB565LE);
            EXPECT_EQ(runtimeErrorOf([&] { text.drawTo(picture, "A", position); }),
                      "Drawing is not supported for rgb565le");
            EXPECT_THAT(test::visibleBytes(picture), Each(0));
        }
    }
}

TEST_F(FreeTypeTextRendererTest, EmptyPictureHasNoFormatToDrawOn) {
    FreeTypeTextRenderer text = renderer();
    text.setBackgroundColor(clear);
    Picture empty;
    EXPECT_EQ(runtimeErrorOf([&] {
                  text.drawTo(empty, "A", {0, 0});
              }),
              "Drawing is not supported for (pix fmt unknown)");
}

TEST_F(FreeTypeTextRendererTest, PictureWithoutPixelsIsLeftAlone) {
    FreeTypeTextRenderer text = renderer();
    text.setBackgroundColor(clear);
    Picture picture = blackPicture({8, 14}, AV_PIX_FMT_YUV420P);
    picture.setData(nullptr);
    text.drawTo(picture, "A", {0, 0});
    EXPECT_TRUE(picture.empty());
}

// ---- Pictures of text

TEST_F(FreeTypeTextRendererTest, PictureOfEmptyTextIsEmpty) {
    const Picture picture = renderer().drawYUV("", AVCOL_RANGE_JPEG);
    EXPECT_TRUE(picture.empty());
    EXPECT_EQ(picture.size(), (rect_size_t{0, 0}));
    EXPECT_EQ(picture.pixelFormat(), AV_PIX_FMT_NONE);
}

TEST_F(FreeTypeTextRendererTest, PictureOfTextWithHeightOnlyThrows) {
    EXPECT_THROW(renderer().drawYUV("\n", AVCOL_RANGE_MPEG), std::bad_alloc);
}

TEST_F(FreeTypeTextRendererTest, PictureWithBackgroundIsOpaqueYuv) {
    FreeTypeTextRenderer text = renderer();
    text.setFontColor(white);
    text.setBackgroundColor({0, 0, 0});
    const Picture picture = text.drawYUV("i", AVCOL_RANGE_MPEG);
    EXPECT_EQ(picture.size(), (rect_size_t{2, 12}));
    EXPECT_EQ(picture.pixelFormat(), AV_PIX_FMT_YUV420P);
    EXPECT_EQ(picture.colorRange(), AVCOL_RANGE_MPEG);
    EXPECT_EQ(picture.alignment(), 1);
    EXPECT_TRUE(picture.editable());
    EXPECT_THAT(planeOf(picture, 0, false), ElementsAre(16, 16, 235, 16, 235, 16, 235, 16, 235, 16, 235, 16,
                                                        235, 16, 235, 16, 16, 16, 16, 16, 16, 16, 16, 16));
    EXPECT_THAT(planeOf(picture, 1, true), Each(128));
}

TEST_F(FreeTypeTextRendererTest, PictureWithoutBackgroundHasTheGlyphsInItsAlpha) {
    FreeTypeTextRenderer text = renderer();
    text.setFontColor({255, 0, 0});
    text.setBackgroundColor(clear);
    const Picture picture = text.drawYUV("i", AVCOL_RANGE_UNSPECIFIED);
    EXPECT_EQ(picture.pixelFormat(), AV_PIX_FMT_YUVA420P);
    EXPECT_EQ(picture.colorRange(), AVCOL_RANGE_UNSPECIFIED);
    EXPECT_THAT(planeOf(picture, 0, false), Each(81));
    EXPECT_THAT(planeOf(picture, 1, true), Each(90));
    EXPECT_THAT(planeOf(picture, 2, true), Each(240));
    EXPECT_THAT(planeOf(picture, 3, false), ElementsAre(0, 0, 255, 0, 255, 0, 255, 0, 255, 0, 255, 0, 255, 0,
                                                        255, 0, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(FreeTypeTextRendererTest, PictureOfTranslucentTextIsAsTranslucent) {
    FreeTypeTextRenderer text = renderer();
    text.setFontColor({255, 255, 255, 100});
    text.setBackgroundColor(clear);
    const Picture picture = text.drawYUV("i", AVCOL_RANGE_JPEG);
    EXPECT_THAT(planeOf(picture, 0, false), Each(255));
    // 100 of 255 of the colour's own alpha, as every other component.
    EXPECT_EQ(planeOf(picture, 3, false)[2], 39);
}

TEST_F(FreeTypeTextRendererTest, OddPaddingLeavesNoPixelWithoutColour) {
    FreeTypeTextRenderer text = renderer();
    text.setPadding(1, 0, 2, 1);
    text.setFontColor(white);
    text.setBackgroundColor(white);
    const Picture opaque = text.drawYUV("A", AVCOL_RANGE_JPEG);
    EXPECT_EQ(opaque.size(), (rect_size_t{9, 13}));
    EXPECT_THAT(planeOf(opaque, 0, false), Each(255));
    EXPECT_THAT(planeOf(opaque, 1, true), Each(128));
    EXPECT_THAT(planeOf(opaque, 2, true), Each(128));
    text.setBackgroundColor(clear);
    const Picture transparent = text.drawYUV(" ", AVCOL_RANGE_JPEG);
    EXPECT_EQ(transparent.size(), (rect_size_t{7, 13}));
    EXPECT_THAT(planeOf(transparent, 0, false), Each(255));
    EXPECT_THAT(planeOf(transparent, 1, true), Each(128));
    EXPECT_THAT(planeOf(transparent, 3, false), Each(0));
}

TEST_F(FreeTypeScalableTest, PictureWithoutBackgroundIsAsOpaqueAsTheGlyphsCoverIt) {
    FreeTypeTextRenderer text(test::sansFont(), size);
    text.setBackgroundColor(clear);
    const Picture picture = text.drawYUV("g", AVCOL_RANGE_MPEG);
    const Picture reference = drawn(text, "g", picture.size());
    ASSERT_EQ(FT_Load_Char(face_, 'g', FT_LOAD_RENDER), 0);
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x) {
            ASSERT_EQ(picture.getPlanes()[3][y * picture.getLinesize()[3] + x],
                      pixelAt(reference, x, y, 3)[0])
                << x << "," << y;
        }
    }
}

}  // namespace
}  // namespace kvffmpeg
