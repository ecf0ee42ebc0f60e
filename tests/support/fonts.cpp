#include "support/fonts.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace kvffmpeg::test {
namespace {

std::string existing(const std::filesystem::path& path) {
    return std::filesystem::exists(path) ? path.string() : std::string();
}

unsigned valueOf(char pixel) {
    if (pixel == ' ') return 0;
    return static_cast<unsigned>(pixel <= '9' ? pixel - '0' : pixel - 'a' + 10);
}

/// A row of pixels in hexadecimal, the leftmost in the highest bits.
std::string hexadecimal(const std::string& row, int bits) {
    std::vector<unsigned> bytes((row.size() * static_cast<std::size_t>(bits) + 7) / 8);
    std::size_t position = 0;
    for (const char pixel : row) {
        for (int bit = bits - 1; bit >= 0; --bit, ++position) {
            bytes[position / 8] |= (valueOf(pixel) >> bit & 1) << (7 - position % 8);
        }
    }
    std::string hex;
    for (const unsigned byte : bytes) {
        hex += "0123456789ABCDEF"[byte >> 4];
        hex += "0123456789ABCDEF"[byte & 15];
    }
    return hex;
}

std::size_t bigEndian(const std::vector<std::uint8_t>& bytes, std::size_t offset, int count) {
    std::size_t value = 0;
    for (int i = 0; i < count; ++i) value = value << 8 | bytes.at(offset + static_cast<std::size_t>(i));
    return value;
}

}  // namespace

std::string sansFont() {
    return existing(KVFFMPEG_TEST_FONT);
}

std::string monospacedFont() {
    return existing(std::filesystem::path(KVFFMPEG_TEST_FONT).replace_filename("DejaVuSansMono.ttf"));
}

std::string BlockFont::text() const {
    std::ostringstream out;
    out << "STARTFONT 2.1\nFONT -test-Blocks-Medium-R-Normal--" << pixelSize << "-" << pixelSize * 10
        << "-72-72-C-60-" << charset << "-1\nSIZE " << pixelSize << " 72 72";
    if (bits > 1) out << " " << bits;
    out << "\nFONTBOUNDINGBOX 8 " << ascent + descent << " 0 " << -descent
        << "\nSTARTPROPERTIES 6\nPIXEL_SIZE " << pixelSize << "\nFONT_ASCENT " << ascent << "\nFONT_DESCENT "
        << descent << "\nCHARSET_REGISTRY \"" << charset
        << "\"\nCHARSET_ENCODING \"1\"\nDEFAULT_CHAR 63\nENDPROPERTIES\nCHARS " << glyphs.size() << "\n";
    for (const BlockGlyph& glyph : glyphs) {
        const std::size_t width = glyph.rows.empty() ? 0 : glyph.rows[0].size();
        out << "STARTCHAR u" << glyph.codePoint << "\nENCODING " << glyph.codePoint
            << "\nSWIDTH 500 0\nDWIDTH " << glyph.advance << " 0\nBBX " << width << " " << glyph.rows.size()
            << " " << glyph.left << " " << glyph.bottom << "\nBITMAP\n";
        for (const std::string& row : glyph.rows) out << hexadecimal(row, bits) << "\n";
        out << "ENDCHAR\n";
    }
    out << "ENDFONT\n";
    return out.str();
}

std::string BlockFont::write(const std::string& path) const {
    std::ofstream(path, std::ios::binary) << text();
    return path;
}

BlockFont blockFont(int bits) {
    const auto block = [](std::size_t width, std::size_t height) {
        return std::vector<std::string>(height, std::string(width, '1'));
    };
    BlockFont font;
    font.bits = bits;
    font.glyphs = {{' ', 3, {}, 0, 0},
                   {'?', 7, block(5, 8), 1, 0},
                   {'A', 6, block(4, 7), 1, 0},
                   {'B', 5, block(2, 3), 0, -2},
                   {'i', 2, block(1, 7), 0, 0}};
    return font;
}

TableRange findTable(const std::vector<std::uint8_t>& font, const std::string& tag) {
    const std::size_t tables = bigEndian(font, 4, 2);
    for (std::size_t i = 0; i < tables; ++i) {
        const std::size_t entry = 12 + 16 * i;
        if (std::equal(tag.begin(), tag.end(), font.begin() + static_cast<std::ptrdiff_t>(entry))) {
            return {bigEndian(font, entry + 8, 4), bigEndian(font, entry + 12, 4), entry};
        }
    }
    throw std::runtime_error("no table " + tag);
}

void addNoise(std::vector<std::uint8_t>& bytes, std::size_t first, std::size_t length, int count,
              unsigned seed) {
    std::mt19937 random(seed);
    for (int i = 0; i < count; ++i) {
        bytes.at(first + random() % length) = static_cast<std::uint8_t>(random());
    }
}

}  // namespace kvffmpeg::test
