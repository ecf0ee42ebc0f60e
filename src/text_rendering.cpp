#include "kvffmpeg/text_rendering.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

#include "kvffmpeg/scaler.h"
#include "kvffmpeg/utils.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace kvffmpeg {
namespace {

constexpr int cellsPerSide = 16;
constexpr int lastLoaded = 254;

/// Of a text in pixels, in 64 bits: a text may be as long as memory allows.
struct Extent {
    std::int64_t width = 0;
    std::int64_t height = 0;
    std::int64_t lineHeight = 0;
};

Extent measure(RasterFont& font, const std::string& text) {
    Extent extent;
    std::int64_t lines = 1;
    std::int64_t x = 0;
    for (const char character : text) {
        if (character == '\n') {
            ++lines;
            x = 0;
        } else if (character == '\r') {
            x = 0;
        } else {
            Picture glyph = font.getGlyphPicture(static_cast<unsigned char>(character));
            if (glyph.empty()) glyph = font.getGlyphPicture('?');
            x += glyph.width();
            extent.width = std::max(extent.width, x);
            extent.lineHeight = std::max<std::int64_t>(extent.lineHeight, glyph.height());
        }
    }
    extent.height = lines * extent.lineHeight;
    return extent;
}

/// Refuses what no picture can have before libswscale prepares for it, which takes a hundred bytes a column.
rect_size_t pictureSize(const Extent& extent, AVPixelFormat format) {
    constexpr std::int64_t limit = std::numeric_limits<std::int32_t>::max();
    if (extent.width > limit || extent.height > limit) throw std::bad_alloc();
    const rect_size_t size{static_cast<std::int32_t>(extent.width), static_cast<std::int32_t>(extent.height)};
    if (av_image_get_buffer_size(format, size.w, size.h, 1) < 0) throw std::bad_alloc();
    return size;
}

/// Empty if libswscale does not write the format.
Picture stretch(const Picture& space, rect_size_t size) {
    Scaler scaler;
    scaler.setAlgorithm(Scaler::x);
    const auto scaled = [&](const Picture& source, rect_size_t to) {
        return scaler.scale(source, to, space.pixelFormat(), AVCOL_RANGE_UNSPECIFIED);
    };
    Picture canvas = scaled(space, size);
    if (canvas.empty()) {
        // More than some 6900 times is too much for libswscale (seen in 5.1), but twice 4096 times is not.
        const auto halfway = [](std::int64_t side, std::int64_t target) {
            return static_cast<std::int32_t>(std::min(4096 * side, target));
        };
        canvas =
            scaled(scaled(space, {halfway(space.width(), size.w), halfway(space.height(), size.h)}), size);
    }
    return canvas;
}

}  // namespace

void RasterFont::load(const std::string& path) {
    glyphs_.clear();
    const Picture image = loadPicture(path);
    if (image.empty()) throw std::runtime_error("Could not load font " + path);

    const rect_size_t cell{image.width() / cellsPerSide, image.height() / cellsPerSide};
    std::map<unsigned char, Picture> glyphs;
    for (int c = 0; c <= lastLoaded; ++c) {
        const rect_t place{c % cellsPerSide * cell.w, c / cellsPerSide * cell.h, cell.w, cell.h};
        glyphs.emplace_hint(glyphs.end(), static_cast<unsigned char>(c), image.crop(place));
    }
    glyphs_ = std::move(glyphs);
    glyphWidth_ = cell.w;
    glyphHeight_ = cell.h;
}

Picture RasterFont::getGlyphPicture(unsigned char c) {
    const auto glyph = glyphs_.find(c);
    return glyph != glyphs_.end() ? glyph->second : glyphs_[' '];
}

void TextRenderer::setFont(RasterFont font) noexcept {
    font_ = std::move(font);
}

Picture TextRenderer::renderText(const std::string& text) {
    const Extent extent = measure(font_, text);
    if (extent.width == 0 || extent.height == 0) return Picture();
    const Picture space = font_.getGlyphPicture(' ');
    if (space.empty()) return Picture();

    Picture canvas = stretch(space, pictureSize(extent, space.pixelFormat()));
    if (canvas.empty()) return canvas;
    canvas.makeEditable();  // where nothing is scaled it is the font's own space

    point_t position;
    for (const char character : text) {
        if (character == '\n') {
            position = {0, position.y + static_cast<std::int32_t>(extent.lineHeight)};
        } else if (character == '\r') {
            position.x = 0;
        } else {
            const Picture glyph = font_.getGlyphPicture(static_cast<unsigned char>(character));
            if (character != ' ') canvas.bitblt(glyph, position);
            position.x += glyph.width();
        }
    }
    return canvas;
}

}  // namespace kvffmpeg
