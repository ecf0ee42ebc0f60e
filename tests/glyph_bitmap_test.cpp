#include "glyph_bitmap.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include FT_BITMAP_H

namespace kvffmpeg {
namespace {

using testing::ElementsAre;

/// A bitmap in memory of FreeType's, as glyphs have.
class GlyphBitmapTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(FT_Init_FreeType(&library_), 0); }
    void TearDown() override {
        FT_Bitmap_Done(library_, &bitmap_);
        FT_Done_FreeType(library_);
    }

    void make(FT_Pixel_Mode mode, unsigned width, unsigned rows, int pitch,
              std::initializer_list<std::uint8_t> bytes) {
        // In FreeType's memory, as glyphs have it, since that is where FreeType frees it.
        FT_Bitmap_Init(&bitmap_);
        FT_Bitmap block;
        FT_Bitmap_Init(&block);
        own_.assign(bytes);
        block.pixel_mode = FT_PIXEL_MODE_GRAY;
        block.width = static_cast<unsigned>(own_.size());
        block.rows = block.width == 0 ? 0 : 1;
        block.pitch = static_cast<int>(own_.size());
        block.buffer = own_.data();
        ASSERT_EQ(FT_Bitmap_Copy(library_, &block, &bitmap_), 0);
        bitmap_.pixel_mode = static_cast<unsigned char>(mode);
        bitmap_.width = width;
        bitmap_.rows = rows;
        bitmap_.pitch = pitch;
        bitmap_.num_grays = 256;
    }

    /// The bytes that a mask of 8 bits points to, from its first row down.
    std::vector<int> values() const {
        const GlyphMask mask = maskOf(bitmap_);
        EXPECT_EQ(mask.l2depth, 3);
        std::vector<int> result;
        for (int y = 0; y < mask.rows; ++y) {
            for (int x = 0; x < mask.width; ++x) result.push_back(mask.firstRow[y * mask.linesize + x]);
        }
        return result;
    }

    FT_Library library_ = nullptr;
    FT_Bitmap bitmap_ = {};
    std::vector<std::uint8_t> own_;
};

TEST_F(GlyphBitmapTest, EightBitsStayAsTheyAre) {
    make(FT_PIXEL_MODE_GRAY, 2, 2, 3, {1, 2, 9, 3, 255, 9});
    ASSERT_TRUE(makeDrawable(library_, bitmap_));
    EXPECT_THAT(values(), ElementsAre(1, 2, 3, 255));
    EXPECT_EQ(maskOf(bitmap_).linesize, 3);
}

TEST_F(GlyphBitmapTest, OneBitStaysAsItIs) {
    make(FT_PIXEL_MODE_MONO, 9, 1, 2, {0xA5, 0x80});
    ASSERT_TRUE(makeDrawable(library_, bitmap_));
    const GlyphMask mask = maskOf(bitmap_);
    EXPECT_EQ(mask.l2depth, 0);
    EXPECT_EQ(mask.width, 9);
    EXPECT_EQ(mask.firstRow[0], 0xA5);
}

TEST_F(GlyphBitmapTest, TwoBitsBecomeEightBitsUpTo255) {
    make(FT_PIXEL_MODE_GRAY2, 5, 1, 2, {0x1B, 0xC0});
    ASSERT_TRUE(makeDrawable(library_, bitmap_));
    EXPECT_THAT(values(), ElementsAre(0, 85, 170, 255, 255));
}

TEST_F(GlyphBitmapTest, FourBitsBecomeEightBitsUpTo255) {
    make(FT_PIXEL_MODE_GRAY4, 3, 2, 2, {0x01, 0x80, 0xF7, 0xE0});
    ASSERT_TRUE(makeDrawable(library_, bitmap_));
    EXPECT_THAT(values(), ElementsAre(0, 17, 136, 255, 119, 238));
}

TEST_F(GlyphBitmapTest, ColoursAreAsOpaqueAsTheyAreDark) {
    // Blue, green, red and alpha: clear, opaque black, opaque white.
    make(FT_PIXEL_MODE_BGRA, 3, 1, 12, {0, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255, 255});
    ASSERT_TRUE(makeDrawable(library_, bitmap_));
    EXPECT_THAT(values(), ElementsAre(0, 255, 0));
    EXPECT_EQ(maskOf(bitmap_).width, 3);
}

TEST_F(GlyphBitmapTest, RowsThatAreStoredBottomUpBeginAtTheLast) {
    make(FT_PIXEL_MODE_GRAY, 2, 3, -2, {5, 6, 3, 4, 1, 2});
    ASSERT_TRUE(makeDrawable(library_, bitmap_));
    EXPECT_LT(maskOf(bitmap_).linesize, 0);
    EXPECT_THAT(values(), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(GlyphBitmapTest, BottomUpRowsOfFewBitsAreConvertedTopFirst) {
    make(FT_PIXEL_MODE_GRAY4, 2, 2, -1, {0x34, 0x12});
    ASSERT_TRUE(makeDrawable(library_, bitmap_));
    EXPECT_THAT(values(), ElementsAre(17, 34, 51, 68));
}

TEST_F(GlyphBitmapTest, EmptyBitmapsAreDrawnAsNothing) {
    make(FT_PIXEL_MODE_GRAY, 0, 0, 0, {});
    ASSERT_TRUE(makeDrawable(library_, bitmap_));
    EXPECT_EQ(maskOf(bitmap_).firstRow, nullptr);
    make(FT_PIXEL_MODE_GRAY2, 0, 0, 0, {});
    ASSERT_TRUE(makeDrawable(library_, bitmap_));
    EXPECT_EQ(maskOf(bitmap_).firstRow, nullptr);
}

TEST_F(GlyphBitmapTest, SubpixelsAndUnknownModesAreRefused) {
    for (const int mode : {int{FT_PIXEL_MODE_NONE}, int{FT_PIXEL_MODE_LCD}, int{FT_PIXEL_MODE_LCD_V}, 99}) {
        FT_Bitmap bitmap{};
        bitmap.pixel_mode = static_cast<unsigned char>(mode);
        EXPECT_FALSE(makeDrawable(library_, bitmap)) << mode;
    }
}

TEST_F(GlyphBitmapTest, BitmapsThatDoNotFitTogetherAreRefused) {
    std::uint8_t bytes[64] = {};
    FT_Bitmap bitmap{};
    const auto set = [&](FT_Pixel_Mode mode, unsigned width, unsigned rows, int pitch, std::uint8_t* buffer) {
        bitmap.pixel_mode = static_cast<unsigned char>(mode);
        bitmap.width = width;
        bitmap.rows = rows;
        bitmap.pitch = pitch;
        bitmap.buffer = buffer;
    };
    set(FT_PIXEL_MODE_GRAY, 5, 2, 4, bytes);
    EXPECT_FALSE(makeDrawable(library_, bitmap)) << "rows longer than the pitch";
    set(FT_PIXEL_MODE_GRAY, 5, 2, -4, bytes);
    EXPECT_FALSE(makeDrawable(library_, bitmap)) << "rows longer than the negative pitch";
    set(FT_PIXEL_MODE_MONO, 17, 2, 2, bytes);
    EXPECT_FALSE(makeDrawable(library_, bitmap)) << "rows of bits longer than the pitch";
    set(FT_PIXEL_MODE_GRAY2, 17, 2, 4, bytes);
    EXPECT_FALSE(makeDrawable(library_, bitmap)) << "rows of two bits a pixel longer than the pitch";
    set(FT_PIXEL_MODE_GRAY4, 64, 2, 2, bytes);
    EXPECT_FALSE(makeDrawable(library_, bitmap)) << "rows of four bits a pixel longer than the pitch";
    set(FT_PIXEL_MODE_BGRA, 2, 2, 7, bytes);
    EXPECT_FALSE(makeDrawable(library_, bitmap)) << "rows of colours longer than the pitch";
    for (const FT_Pixel_Mode mode : {FT_PIXEL_MODE_GRAY2, FT_PIXEL_MODE_GRAY4, FT_PIXEL_MODE_BGRA}) {
        set(mode, 5, 2, 32, nullptr);
        EXPECT_FALSE(makeDrawable(library_, bitmap)) << "no samples, mode " << mode;
    }
    set(FT_PIXEL_MODE_GRAY, 5, 2, 5, nullptr);
    EXPECT_FALSE(makeDrawable(library_, bitmap)) << "no samples";
    set(FT_PIXEL_MODE_GRAY, UINT_MAX, 1, INT_MAX, bytes);
    EXPECT_FALSE(makeDrawable(library_, bitmap)) << "wider than an int holds";
    set(FT_PIXEL_MODE_GRAY, 1, UINT_MAX, 1, bytes);
    EXPECT_FALSE(makeDrawable(library_, bitmap)) << "higher than an int holds";
}

}  // namespace
}  // namespace kvffmpeg
