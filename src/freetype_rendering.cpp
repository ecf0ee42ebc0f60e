#include "kvffmpeg/freetype_rendering.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

#include "glyph_bitmap.h"
#include "kvffmpeg/draw_utils.h"
#include "kvffmpeg/ffdraw.h"
#include "utf8.h"

#include FT_GLYPH_H

namespace kvffmpeg {
namespace {

struct FreeGlyph {
    void operator()(FT_Glyph glyph) const noexcept { FT_Done_Glyph(glyph); }
};
using GlyphPtr = std::unique_ptr<FT_GlyphRec, FreeGlyph>;

struct Padding {
    int left = 0, top = 0, right = 0, bottom = 0;
};

constexpr std::int64_t leastInt = std::numeric_limits<int>::min();
constexpr std::int64_t largestInt = std::numeric_limits<int>::max();

bool isInt(std::int64_t value) noexcept {
    return value >= leastInt && value <= largestInt;
}

/// Fonts are not to be trusted. With what they say cut to an int, sums over a text stay within 64 bits.
int cutToInt(std::int64_t value) noexcept {
    return static_cast<int>(std::min(std::max(value, leastInt), largestInt));
}

int roundedUpToEven(std::int64_t size) noexcept {
    return cutToInt(std::min(size + (size & 1), largestInt - 1));
}

/// Not isprint(), which asks the locale.
bool isControl(char32_t c) noexcept {
    return c < 32 || c == 127;
}

bool hasPlanes(const Picture& picture, unsigned count) noexcept {
    return std::all_of(picture.getPlanes(), picture.getPlanes() + count,
                       [](const unsigned char* plane) { return plane != nullptr; });
}

/// Unlike `DrawUtils::fillRectangle`, with the last column and row of a picture of odd size.
void fillWhole(Picture& picture, Color color) {
    const FFDrawContext context =
        initDrawContext(picture.pixelFormat(), picture.colorRange() == AVCOL_RANGE_JPEG);
    const FFDrawColor fill = initDrawColor(context, color);
    ff_fill_rectangle(&context, &fill, picture.getPlanes(), picture.getLinesize(), 0, 0, picture.width(),
                      picture.height());
}

}  // namespace

/// A FreeType library of the renderer's own and its face.
struct FreeTypeTextRenderer::FtFace {
    FT_Library library = nullptr;
    FT_Face face = nullptr;

    FtFace() = default;
    FtFace(const FtFace&) = delete;
    FtFace& operator=(const FtFace&) = delete;
    ~FtFace() {
        if (face) FT_Done_Face(face);
        if (library) FT_Done_FreeType(library);
    }
};

struct FreeTypeTextRenderer::Glyph {
    FT_UInt index = 0;  ///< 0 when the font lacks the code point.
    GlyphPtr glyph;     ///< Owns the bitmap.
    GlyphMask mask;
    int advance = 0;
    int left = 0;  ///< From the pen to the bitmap's first column.
    int top = 0;   ///< From the base line up to its first row.
};

/// A glyph in the layout. Entries of the cache stay where they are.
struct FreeTypeTextRenderer::Character {
    point_t position;  ///< Of the bitmap's top-left pixel, relative to the text's, without padding.
    std::map<char32_t, Glyph>::const_iterator glyph;
};

struct FreeTypeTextRenderer::State {
    using GlyphEntry = std::map<char32_t, Glyph>::const_iterator;

    State() { asciiGlyphs.fill(glyphs.end()); }

    // In this order: glyphs go before the library that they are from.
    std::unique_ptr<FtFace> face;
    std::map<char32_t, Glyph> glyphs;
    /// Of the code points that most texts are made of, those entries of `glyphs` that there are.
    std::array<GlyphEntry, 128> asciiGlyphs;
    std::unordered_map<std::uint64_t, int> kernings;  ///< By both indices, the left one above.

    int tabWidth = 0;
    int lineSpacing = 0;
    Color fontColor{255, 225, 255};
    Color backgroundColor{0, 0, 0};
    Padding padding;

    // The layout of the last text, without padding.
    std::string text;
    int width = -1;  ///< -1, as the height: none.
    int height = -1;
    std::vector<Character> characters;

    void loadFace(const std::string& path, int size);
    GlyphEntry loadGlyph(char32_t c);
    GlyphEntry findOrRender(char32_t c);
    int kerning(FT_UInt left, FT_UInt right);
    void prepare(const std::string& newText);
    rect_size_t blockSize(const std::string& newText);
};

void FreeTypeTextRenderer::State::loadFace(const std::string& path, int size) {
    auto loaded = std::make_unique<FtFace>();
    if (FT_Init_FreeType(&loaded->library) != 0) {
        throw std::runtime_error("Could not initialize FreeType library");
    }
    if (FT_New_Face(loaded->library, path.c_str(), 0, &loaded->face) != 0 || !loaded->face) {
        throw std::runtime_error("Could not load font " + path);
    }
    if (FT_Select_Charmap(loaded->face, FT_ENCODING_UNICODE) != 0) {
        throw std::runtime_error("Could not select unicode charmap for font " + path);
    }
    // FreeType takes larger sizes, and as unsigned numbers also negative ones, for this one.
    constexpr int largestSize = 0xFFFF;
    if (size < 0 || size > largestSize ||
        FT_Set_Pixel_Sizes(loaded->face, 0, static_cast<FT_UInt>(size)) != 0) {
        throw std::runtime_error("Could not set fontsize for font " + path);
    }
    face = std::move(loaded);
}

/// The glyph of a code point, rendered now unless that was done before; the end if there is none.
FreeTypeTextRenderer::State::GlyphEntry FreeTypeTextRenderer::State::loadGlyph(char32_t c) {
    if (c >= asciiGlyphs.size()) return findOrRender(c);
    GlyphEntry& entry = asciiGlyphs[c];
    if (entry == glyphs.end()) entry = findOrRender(c);
    return entry;
}

FreeTypeTextRenderer::State::GlyphEntry FreeTypeTextRenderer::State::findOrRender(char32_t c) {
    const auto found = glyphs.lower_bound(c);
    if (found != glyphs.end() && found->first == c) return found;

    auto* ftFace = face->face;
    Glyph glyph;
    glyph.index = FT_Get_Char_Index(ftFace, c);
    // Of index 0 FreeType would draw a box.
    const bool loaded = (glyph.index != 0 && FT_Load_Glyph(ftFace, glyph.index, FT_LOAD_RENDER) == 0) ||
                        FT_Load_Char(ftFace, U'?', FT_LOAD_RENDER) == 0;
    FT_Glyph copy = nullptr;
    if (!loaded || FT_Get_Glyph(ftFace->glyph, &copy) != 0) return glyphs.end();
    glyph.glyph.reset(copy);
    if (copy->format != FT_GLYPH_FORMAT_BITMAP) return glyphs.end();
    FT_Bitmap& bitmap = reinterpret_cast<FT_BitmapGlyph>(copy)->bitmap;
    if (!makeDrawable(face->library, bitmap)) return glyphs.end();
    glyph.mask = maskOf(bitmap);
    glyph.advance = cutToInt(ftFace->glyph->advance.x / 64);
    glyph.left = ftFace->glyph->bitmap_left;
    glyph.top = ftFace->glyph->bitmap_top;
    return glyphs.emplace_hint(found, c, std::move(glyph));
}

/// How far the right of two glyphs moves. Pairs are kept, as FreeType searches the font for them each time.
int FreeTypeTextRenderer::State::kerning(FT_UInt left, FT_UInt right) {
    if (left == 0 || right == 0 || !FT_HAS_KERNING(face->face)) return 0;
    const auto [entry, isNew] = kernings.try_emplace(std::uint64_t{left} << 32 | right, 0);
    FT_Vector distance{};
    if (isNew && FT_Get_Kerning(face->face, left, right, FT_KERNING_DEFAULT, &distance) == 0) {
        entry->second = cutToInt(distance.x >> 6);  // down, where advances go towards zero
    }
    return entry->second;
}

void FreeTypeTextRenderer::State::prepare(const std::string& newText) {
    if (width >= 0 && height >= 0 && newText == text) return;

    const std::u32string codePoints = decodeUtf8(newText);
    std::vector<Character> laidOut;
    laidOut.reserve(codePoints.size());
    const FT_Size_Metrics& metrics = face->face->size->metrics;
    const int ascent = cutToInt(metrics.ascender / 64);
    const int descent = cutToInt(metrics.descender / 64);
    const std::int64_t lineHeight = metrics.y_ppem + (descent < 0 ? -std::int64_t{descent} : descent);

    std::int64_t newWidth = 0;
    std::int64_t newHeight = 0;
    std::int64_t penX = 0;
    FT_UInt previous = 0;
    for (const char32_t c : codePoints) {
        if (c == U'\t') {
            penX += tabWidth;
            previous = 0;
        } else if (c == U'\n') {
            newHeight += lineHeight + lineSpacing;
            newWidth = std::max(newWidth, penX);
            penX = 0;
            previous = 0;
        }
        if (isControl(c)) continue;
        const auto glyph = loadGlyph(c);
        if (glyph == glyphs.end()) continue;

        penX += kerning(previous, glyph->second.index);
        previous = glyph->second.index;
        const std::int64_t x = penX + glyph->second.left;
        const std::int64_t y = newHeight + ascent - glyph->second.top;
        // Nothing that far away can ever be seen.
        if (isInt(x) && isInt(y)) laidOut.push_back({{cutToInt(x), cutToInt(y)}, glyph});
        penX += glyph->second.advance;
    }
    if (!codePoints.empty()) {
        newWidth = std::max(newWidth, penX);
        newHeight += lineHeight;
    }

    std::string keptText = newText;
    text = std::move(keptText);
    characters = std::move(laidOut);
    width = roundedUpToEven(newWidth);
    height = roundedUpToEven(newHeight);
}

rect_size_t FreeTypeTextRenderer::State::blockSize(const std::string& newText) {
    prepare(newText);
    return {cutToInt(std::int64_t{padding.left} + width + padding.right),
            cutToInt(std::int64_t{padding.top} + height + padding.bottom)};
}

FreeTypeTextRenderer::FreeTypeTextRenderer(const std::string& fontPath, int size)
    : state_(std::make_unique<State>()) {
    state_->loadFace(fontPath, size);
    const auto space = state_->loadGlyph(U' ');
    if (space != state_->glyphs.end()) state_->tabWidth = cutToInt(std::int64_t{4} * space->second.advance);
}

FreeTypeTextRenderer::~FreeTypeTextRenderer() = default;

void FreeTypeTextRenderer::setFontColor(const Color& color) {
    state_->fontColor = color;
}

void FreeTypeTextRenderer::setBackgroundColor(const Color& color) {
    state_->backgroundColor = color;
}

void FreeTypeTextRenderer::setPadding(int left, int top, int right, int bottom) {
    state_->padding = {left, top, right, bottom};
    state_->width = state_->height = -1;
}

void FreeTypeTextRenderer::setLineSpacing(int spacing) {
    state_->lineSpacing = spacing;
    state_->width = state_->height = -1;
}

rect_size_t FreeTypeTextRenderer::getTextSize(const std::string& text) {
    return state_->blockSize(text);
}

void FreeTypeTextRenderer::drawTo(Picture& picture, const std::string& text, point_t position) {
    const rect_size_t size = state_->blockSize(text);
    if (size.w == 0 && size.h == 0) return;

    if (state_->backgroundColor.alpha != 0) {
        DrawUtils::fillRectangle(picture, {position.x, position.y, size.w, size.h}, state_->backgroundColor);
    }
    const FFDrawContext context =
        initDrawContext(picture.pixelFormat(), picture.colorRange() == AVCOL_RANGE_JPEG);
    const FFDrawColor color = initDrawColor(context, state_->fontColor);
    if (!hasPlanes(picture, context.nb_planes)) return;

    const std::int64_t originX = std::int64_t{position.x} + state_->padding.left;
    const std::int64_t originY = std::int64_t{position.y} + state_->padding.top;
    for (const Character& character : state_->characters) {
        const std::int64_t x = originX + character.position.x;
        const std::int64_t y = originY + character.position.y;
        const GlyphMask& mask = character.glyph->second.mask;
        if (!mask.firstRow || !isInt(x) || !isInt(y)) continue;
        ff_blend_mask(&context, &color, picture.getPlanes(), picture.getLinesize(), picture.width(),
                      picture.height(), mask.firstRow, mask.linesize, mask.width, mask.rows, mask.l2depth, 0,
                      static_cast<int>(x), static_cast<int>(y));
    }
}

Picture FreeTypeTextRenderer::drawYUV(const std::string& text, AVColorRange range) {
    const rect_size_t size = state_->blockSize(text);
    if (size.w == 0 && size.h == 0) return {};

    const Color& font = state_->fontColor;
    const bool hasBackground = state_->backgroundColor.alpha != 0;
    Picture picture(size, hasBackground ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_YUVA420P, range, 1);
    // Odd padding makes pictures of odd size, of which the background that is drawn with the text leaves a
    // column or row as it was.
    fillWhole(picture, hasBackground ? state_->backgroundColor : Color(font.red, font.green, font.blue, 0));
    drawTo(picture, text, {0, 0});
    return picture;
}

}  // namespace kvffmpeg
