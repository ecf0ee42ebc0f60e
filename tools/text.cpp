#include "text.h"

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>

#include "console.h"
#include "errors.h"
#include "interruption.h"
#include "kvffmpeg/draw_utils.h"
#include "kvffmpeg/format_context.h"
#include "kvffmpeg/text_rendering.h"
#include "kvffmpeg/utils.h"
#include "picture_file.h"

namespace kvffmpeg::tool {
namespace {

/// Old releases of FFmpeg know no format before something is opened.
void makeFormatsKnown() {
    try {
        FormatContext("").open();
    } catch (const std::runtime_error&) {  // of course
    }
}

/// Without alpha there would be a plain rectangle of the font's colour.
void requireAlpha(const TextStyle& style, const std::string& path) {
    if (style.background.alpha == 255 || canHaveAlpha(path)) return;
    throw UsageError("--output: " + path +
                     " cannot be transparent: expected an opaque --background-color with it, or .png");
}

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

Picture render(const std::string& text, TextStyle style) {
    const Color color = style.color;
    const bool isOpaque = style.background.alpha == 255;
    const bool isFaded = style.background.alpha == 0 && color.alpha < 255;
    // On nothing, a colour with alpha would be blended with it and then be blended with that again.
    if (isFaded) style.color.alpha = 255;
    const std::unique_ptr<FreeTypeTextRenderer> renderer = makeRenderer(style);
    requireUtf8(*renderer, "TEXT \"" + text + "\"", text);
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

Picture renderStyled(const TextOptions& options) {
    const TextStyle style = styleOf(options.style);
    requireAlpha(style, options.output);
    refuseToOverwrite(options.output, style.font, "the font");
    return render(options.text, style);
}

Picture renderRaster(const TextOptions& options) {
    refuseToOverwrite(options.output, options.rasterFont, "the font");
    RasterFont font;
    try {
        font.load(options.rasterFont);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error("--raster-font " + options.rasterFont + ": " + error.what());
    }
    TextRenderer renderer;
    renderer.setFont(font);
    try {
        return renderer.renderText(options.text);
    } catch (const std::bad_alloc&) {
        throw std::runtime_error("The picture would become too large");
    }
}

}  // namespace

void saveText(const TextOptions& options) {
    const bool isRaster = !options.rasterFont.empty();
    if (isRaster && !options.style.given.empty()) {
        throw UsageError(options.style.given + " and --raster-font exclude each other");
    }
    makeFormatsKnown();
    requirePictureFormat(options.output);
    const Picture picture = isRaster ? renderRaster(options) : renderStyled(options);
    if (picture.empty()) throw std::runtime_error("There is nothing to see in the text");
    throwIfInterrupted();
    savePicture(picture, options.output);
    std::cout << printable(options.output) << ": " << picture.width() << 'x' << picture.height() << '\n';
    flushOutput();
}

}  // namespace kvffmpeg::tool
