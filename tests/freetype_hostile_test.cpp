// Fonts that are damaged or that were made to harm. Whatever they are, the renderer throws what it says or
// leaves glyphs out. Meant to be run under the sanitizers.

#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/fonts.h"
#include "support/media.h"
#include "support/temporary_folder.h"

namespace kvffmpeg {
namespace {

using testing::AnyOf;
using testing::StartsWith;

using Bytes = std::vector<std::uint8_t>;

const std::string text = "AVg?\t\xC3\xA9\n\xD0\xAF\xF0\x9F\x98\x80 end";

class FreeTypeHostileTest : public testing::Test {
protected:
    void SetUp() override {
        KVFFMPEG_REQUIRE_FONTS();
        font_ = test::readFile(test::monospacedFont());
    }

    enum class Outcome { drawn, refused };

    /// Measures and draws with the font, and checks what comes of it.
    Outcome use(const Bytes& font, int size = 24) {
        const std::string path = folder_.file("hostile.ttf");
        test::writeFile(path, font);
        return useFile(path, size);
    }

    static Outcome useFile(const std::string& path, int size) {
        try {
            FreeTypeTextRenderer renderer(path, size);
            renderer.setBackgroundColor({0, 0, 0, 0});
            const rect_size_t textSize = renderer.getTextSize(text);
            EXPECT_GE(textSize.w, 0);
            EXPECT_GE(textSize.h, 0);
            EXPECT_EQ(textSize.w % 2, 0);
            EXPECT_EQ(textSize.h % 2, 0);
            for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA}) {
                Picture picture = test::randomPicture({101, 67}, format);
                for (const point_t position : {point_t{3, 5}, point_t{-31, -17}, point_t{INT_MAX, INT_MIN}}) {
                    renderer.drawTo(picture, text, position);
                }
            }
            if (textSize.w > 0 && textSize.w < 4000 && textSize.h > 0 && textSize.h < 4000) {
                EXPECT_EQ(renderer.drawYUV(text, AVCOL_RANGE_MPEG).size(), textSize);
            }
            return Outcome::drawn;
        } catch (const std::runtime_error& error) {
            const auto names = [&](const std::string& what) { return StartsWith(what + path); };
            EXPECT_THAT(error.what(), AnyOf(names("Could not load font "),
                                            names("Could not select unicode charmap for font "),
                                            names("Could not set fontsize for font ")));
            return Outcome::refused;
        }
    }

    Bytes withoutTable(const std::string& tag) const {
        Bytes font = font_;
        const test::TableRange table = test::findTable(font, tag);
        std::fill_n(font.begin() + static_cast<std::ptrdiff_t>(table.entry), 4, std::uint8_t{'x'});
        return font;
    }

    /// The table's length in the directory becomes 0.
    Bytes withEmptyTable(const std::string& tag) const {
        Bytes font = font_;
        const test::TableRange table = test::findTable(font, tag);
        std::fill_n(font.begin() + static_cast<std::ptrdiff_t>(table.entry) + 12, 4, std::uint8_t{0});
        return font;
    }

    Bytes withTableFilled(const std::string& tag, std::uint8_t value) const {
        Bytes font = font_;
        const test::TableRange table = test::findTable(font, tag);
        std::fill_n(font.begin() + static_cast<std::ptrdiff_t>(table.offset), table.length, value);
        return font;
    }

    /// A 16-bit number of a table.
    Bytes with(const std::string& tag, std::size_t offset, unsigned value) const {
        Bytes font = font_;
        const test::TableRange table = test::findTable(font, tag);
        font.at(table.offset + offset) = static_cast<std::uint8_t>(value >> 8);
        font.at(table.offset + offset + 1) = static_cast<std::uint8_t>(value);
        return font;
    }

    test::TemporaryFolder folder_;
    Bytes font_;
};

const char* const tables[] = {"cmap", "cvt ", "fpgm", "glyf", "head", "hhea", "hmtx",
                              "loca", "maxp", "name", "OS/2", "post", "prep"};

TEST_F(FreeTypeHostileTest, SoundFontIsDrawn) {
    EXPECT_EQ(use(font_), Outcome::drawn);
}

TEST_F(FreeTypeHostileTest, FontsCutShortAreRefusedOrDrawn) {
    EXPECT_EQ(use({}), Outcome::refused);
    EXPECT_EQ(use(Bytes(font_.begin(), font_.begin() + 12)), Outcome::refused);
    for (int part = 1; part < 40; ++part) {
        SCOPED_TRACE(part);
        use(Bytes(font_.begin(), font_.begin() + static_cast<std::ptrdiff_t>(font_.size()) * part / 40));
    }
}

TEST_F(FreeTypeHostileTest, FontsWithoutATableAreRefusedOrDrawn) {
    for (const char* table : tables) {
        SCOPED_TRACE(table);
        use(withoutTable(table));
        use(withEmptyTable(table));
    }
}

TEST_F(FreeTypeHostileTest, FontWithoutCharmapAndNamesOfGlyphsIsRefused) {
    font_ = withoutTable("post");
    EXPECT_EQ(use(withoutTable("cmap")), Outcome::refused);
}

TEST_F(FreeTypeHostileTest, TablesOfOneValueAreRefusedOrDrawn) {
    for (const char* table : tables) {
        for (const int value : {0x00, 0x7F, 0x80, 0xFF}) {
            SCOPED_TRACE(testing::Message() << table << " of " << value);
            use(withTableFilled(table, static_cast<std::uint8_t>(value)));
        }
    }
}

TEST_F(FreeTypeHostileTest, NoiseInEveryTableIsRefusedOrDrawn) {
    for (const char* tag : tables) {
        const test::TableRange table = test::findTable(font_, tag);
        for (unsigned seed = 0; seed < 12; ++seed) {
            SCOPED_TRACE(testing::Message() << tag << " with seed " << seed);
            Bytes font = font_;
            const auto largest = static_cast<int>(std::min<std::size_t>(table.length, 2000));
            test::addNoise(font, table.offset, table.length, 1 + largest * static_cast<int>(seed) / 24, seed);
            use(font);
        }
    }
}

TEST_F(FreeTypeHostileTest, NoiseInTheKerningIsRefusedOrDrawn) {
    font_ = test::readFile(test::sansFont());
    const test::TableRange table = test::findTable(font_, "kern");
    for (unsigned seed = 0; seed < 24; ++seed) {
        SCOPED_TRACE(seed);
        Bytes font = font_;
        // Its header and the first pairs, and anywhere.
        const std::size_t length = seed % 2 == 0 ? 64 : table.length;
        test::addNoise(font, table.offset, std::min(length, table.length), 1 << (seed / 2), seed);
        EXPECT_EQ(use(font), Outcome::drawn);
    }
    use(withEmptyTable("kern"));
    use(withTableFilled("kern", 0xFF));
}

TEST_F(FreeTypeHostileTest, NoiseAllOverIsRefusedOrDrawn) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        SCOPED_TRACE(seed);
        Bytes font = font_;
        test::addNoise(font, 0, font.size(), 1 << (seed % 14), seed);
        use(font);
    }
}

TEST_F(FreeTypeHostileTest, NoiseInTheDirectoryIsRefusedOrDrawn) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        SCOPED_TRACE(seed);
        Bytes font = font_;
        test::addNoise(font, 0, 12 + 16 * 20, 1 + static_cast<int>(seed % 9), seed);
        use(font);
    }
}

TEST_F(FreeTypeHostileTest, HugeMetricsAreMeasuredWithoutOverflow) {
    // Ascender, descender and greatest advance.
    for (const std::size_t offset : {4U, 6U, 10U}) {
        for (const unsigned value : {0x7FFFU, 0x8000U, 0xFFFFU}) {
            SCOPED_TRACE(testing::Message() << "hhea " << offset << " of " << value);
            use(with("hhea", offset, value), 60000);
            use(with("hhea", offset, value), 24);
        }
    }
    // One unit per em makes every glyph 2000 times as large.
    for (const unsigned unitsPerEm : {0U, 1U, 16U, 0xFFFFU}) {
        SCOPED_TRACE(testing::Message() << unitsPerEm << " units per em");
        use(with("head", 18, unitsPerEm), 24);
    }
}

TEST_F(FreeTypeHostileTest, GlyphsTooLargeToRenderAreLeftOut) {
    FreeTypeTextRenderer renderer(test::monospacedFont(), 65535);
    EXPECT_EQ(renderer.getTextSize("A").w, 0);
    EXPECT_GT(renderer.getTextSize("A").h, 65535);
    EXPECT_EQ(useFile(test::monospacedFont(), 65535), Outcome::drawn);
}

/// Of a font so large that a text of 32 KiB is wider than an int holds.
class FreeTypeHugeSizeTest : public FreeTypeHostileTest {
protected:
    static FreeTypeTextRenderer makeRenderer() { return FreeTypeTextRenderer(test::monospacedFont(), 30000); }

    void SetUp() override {
        FreeTypeHostileTest::SetUp();
        if (IsSkipped()) return;
        const int tab = makeRenderer().getTextSize("\t").w;
        ASSERT_GT(tab, 65535);
        tabs_.assign(static_cast<std::size_t>(UINT_MAX / static_cast<unsigned>(tab)), '\t');
    }

    std::string tabs_;  ///< Nearly twice as wide as an int holds.
};

TEST_F(FreeTypeHugeSizeTest, WidthsAndHeightsBeyondAnIntAreCutToAnEvenOne) {
    FreeTypeTextRenderer renderer = makeRenderer();
    EXPECT_EQ(renderer.getTextSize(tabs_).w, INT_MAX - 1);
    EXPECT_EQ(renderer.getTextSize(std::string(100000, '\n')).h, INT_MAX - 1);
    renderer.setPadding(1, 1, 1, 1);
    EXPECT_EQ(renderer.getTextSize(tabs_).w, INT_MAX);
    EXPECT_THROW(renderer.drawYUV(tabs_, AVCOL_RANGE_MPEG), std::bad_alloc);
}

TEST_F(FreeTypeHugeSizeTest, GlyphsBeyondAnIntAreNotDrawn) {
    FreeTypeTextRenderer renderer = makeRenderer();
    renderer.setBackgroundColor({0, 0, 0, 0});
    Picture picture = test::randomPicture({64, 64}, AV_PIX_FMT_RGB24);
    const Bytes before = test::visibleBytes(picture);
    renderer.drawTo(picture, tabs_ + ".", {0, 0});
    EXPECT_EQ(test::visibleBytes(picture), before);
}

TEST_F(FreeTypeHugeSizeTest, GlyphsBeyondAnIntAreNotDrawnAtTheLargestEither) {
    FreeTypeTextRenderer renderer = makeRenderer();
    renderer.setBackgroundColor({0, 0, 0, 0});
    Picture picture = test::randomPicture({64, 64}, AV_PIX_FMT_RGB24);
    const Bytes before = test::visibleBytes(picture);
    // Rows that go through the full stop, which is thousands of pixels high; the picture's columns would show
    // what lies at the largest int.
    constexpr int row = 27000;
    renderer.drawTo(picture, tabs_ + ".", {-INT_MAX, -row});
    EXPECT_EQ(test::visibleBytes(picture), before);
    renderer.drawTo(picture, ".", {-renderer.getTextSize(".").w / 2, -row});
    EXPECT_NE(test::visibleBytes(picture), before) << "the rows do not go through the full stop";
}

TEST_F(FreeTypeHostileTest, BitmapFontsWithNonsenseAreRefusedOrDrawn) {
    const std::string path = folder_.file("hostile.bdf");
    for (const int bits : {1, 2, 4}) {
        const std::string sound = test::blockFont(bits).text();
        EXPECT_EQ(useFile(test::blockFont(bits).write(path), 10), Outcome::drawn);
        for (unsigned seed = 0; seed < 150; ++seed) {
            SCOPED_TRACE(testing::Message() << bits << " bits, seed " << seed);
            Bytes font(sound.begin(), sound.end());
            test::addNoise(font, 0, font.size(), 1 + static_cast<int>(seed % 5), seed);
            test::writeFile(path, font);
            useFile(path, 10);
        }
    }
}

TEST_F(FreeTypeHostileTest, BitmapGlyphsWithHugeNumbersAreRefusedOrDrawn) {
    for (const char* number : {"-1", "0", "32767", "32768", "65535", "65536", "2147483647", "-2147483648",
                               "4294967296", "99999999999999999999"}) {
        for (const char* key : {"DWIDTH ", "BBX 4 7 ", "BBX ", "FONT_ASCENT ", "FONT_DESCENT ", "PIXEL_SIZE ",
                                "ENCODING ", "CHARS ", "SIZE 10 72 72"}) {
            SCOPED_TRACE(testing::Message() << key << number);
            std::string font = test::blockFont().text();
            const std::string name = key;
            for (std::size_t at = font.find(name); at != std::string::npos; at = font.find(name, at + 1)) {
                const std::size_t first = at + name.size();
                const std::size_t last = font.find_first_of(" \n", first);
                font.replace(first, last - first, (name.back() == ' ' ? "" : " ") + std::string(number));
            }
            use(Bytes(font.begin(), font.end()), 10);
        }
    }
}

}  // namespace
}  // namespace kvffmpeg
