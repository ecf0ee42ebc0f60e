#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kvffmpeg::test {

/// The path of DejaVu Sans, with kerning and most of Europe's letters; empty where it is not installed.
std::string sansFont();
/// The path of DejaVu Sans Mono, whose letters are all equally wide; empty where it is not installed.
std::string monospacedFont();

/// A glyph of a bitmap font, its rows of pixels from the top: ' ', '1', '2' ... 'f' are values of as many
/// bits as the font has. `left` and `bottom` are where its lower left pixel lies, from the pen and up from
/// the base line.
struct BlockGlyph {
    unsigned codePoint = 0;
    int advance = 0;
    std::vector<std::string> rows;
    int left = 0;
    int bottom = 0;
};

/// A bitmap font in the text format of X11 (BDF).
struct BlockFont {
    int bits = 1;  ///< Of a pixel: 1, 2 or 4; 8 with values of two digits is not written.
    int pixelSize = 10;
    int ascent = 8;
    int descent = 2;
    std::string charset = "ISO10646";
    std::vector<BlockGlyph> glyphs;

    std::string text() const;
    /// Writes it and returns the path.
    std::string write(const std::string& path) const;
};

/// 10 pixels high, lines 12 pixels: "A" is a block of 4 x 7 and advances 6, "B" of 2 x 3 below the base line
/// and advances 5, the space advances 3, "?" is one of 5 x 8 and advances 7, "i" is a column and advances 2.
BlockFont blockFont(int bits = 1);

/// Where a table lies in a TrueType font. @throws std::runtime_error when the font lacks it.
struct TableRange {
    std::size_t offset = 0;
    std::size_t length = 0;
    std::size_t entry = 0;  ///< Of the table's own record in the directory.
};
TableRange findTable(const std::vector<std::uint8_t>& font, const std::string& tag);

/// Overwrites `count` bytes at random places of the range with random values.
void addNoise(std::vector<std::uint8_t>& bytes, std::size_t first, std::size_t length, int count,
              unsigned seed);

}  // namespace kvffmpeg::test

/// Skips the test, saying so, where the font is missing.
#define KVFFMPEG_REQUIRE_FONTS()                                                                     \
    if (kvffmpeg::test::sansFont().empty() || kvffmpeg::test::monospacedFont().empty()) {            \
        GTEST_SKIP() << "DejaVuSans.ttf and DejaVuSansMono.ttf were not found (KVFFMPEG_TEST_FONT)"; \
    }                                                                                                \
    static_assert(true, "")
