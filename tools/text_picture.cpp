#include "text_picture.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>

#include "kvffmpeg/draw_utils.h"

namespace kvffmpeg::tool {
namespace {

Picture emptyPicture(rect_size_t size, AVPixelFormat format) {
    try {
        return Picture(size, format);
    } catch (const std::bad_alloc&) {
        throw std::runtime_error("The picture would become too large");
    }
}

/// Multiplies the alpha of an rgba picture by that of a colour.
void fade(Picture& picture, std::uint32_t alpha) {
    for (int y = 0; y < picture.height(); ++y) {
        unsigned char* const row = picture.getPlanes()[0] + std::ptrdiff_t{y} * picture.getLinesize()[0];
        for (int x = 0; x < picture.width(); ++x) {
            unsigned char& value = row[std::ptrdiff_t{4} * x + 3];
            value = static_cast<unsigned char>((value * alpha + 127) / 255);
        }
    }
}

}  // namespace

Picture renderText(const std::string& text, TextStyle style) {
    const Color color = style.color;
    const bool isOpaque = style.background.alpha == 255;
    const bool isFaded = style.background.alpha == 0 && color.alpha < 255;
    // On nothing, a colour with alpha would be blended with it and then be blended with that again.
    if (isFaded) style.color.alpha = 255;
    const std::unique_ptr<FreeTypeTextRenderer> renderer = makeRenderer(style);
    const rect_size_t size = renderer->getTextSize(text);
    if (size.w <= 0 || size.h <= 0) return Picture();
    // Not 4:2:0, as `drawYUV` makes: RGB keeps the edges of glyphs sharp.
    Picture picture = emptyPicture(size, isOpaque ? AV_PIX_FMT_RGB24 : AV_PIX_FMT_RGBA);
    // Of the font's colour where nothing is, so that the edges of glyphs have no other colour in them.
    DrawUtils::fillRectangle(picture, Color(color.red, color.green, color.blue, 0));
    renderer->drawTo(picture, text, {0, 0});
    if (isFaded) fade(picture, color.alpha);
    return picture;
}

}  // namespace kvffmpeg::tool
