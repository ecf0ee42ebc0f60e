#include "text.h"

#include <new>
#include <stdexcept>

#include "errors.h"
#include "interruption.h"
#include "kvffmpeg/text_rendering.h"
#include "text_picture.h"

namespace kvffmpeg::tool {
namespace {

/// Without alpha there would be a plain rectangle of the font's colour.
void requireAlpha(const TextStyle& style, const PictureOutput& output) {
    if (style.background.alpha == 255 || output.canHaveAlpha()) return;
    throw UsageError(output.formatOption() +
                     " cannot be transparent: expected an opaque --background-color with it, or " +
                     (output.isStandardOutput() ? "png" : ".png"));
}

Picture renderStyled(const TextOptions& options, const PictureOutput& output) {
    const TextStyle style = styleOf(options.style);
    requireAlpha(style, output);
    output.refuseToOverwrite(style.font, "the font");
    requireUtf8(*makeRenderer(style), "TEXT \"" + options.text + "\"", options.text);
    return renderText(options.text, style);
}

Picture renderRaster(const TextOptions& options, const PictureOutput& output) {
    output.refuseToOverwrite(options.rasterFont, "the font");
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
    const PictureOutput output(options.output);
    makeFormatsKnown();
    output.requireFormat();
    const Picture picture = isRaster ? renderRaster(options, output) : renderStyled(options, output);
    if (picture.empty()) throw std::runtime_error("There is nothing to see in the text");
    throwIfInterrupted();
    output.save(picture);
    output.summarize(std::to_string(picture.width()) + "x" + std::to_string(picture.height()));
}

}  // namespace kvffmpeg::tool
