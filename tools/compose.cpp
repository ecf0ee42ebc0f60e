#include "compose.h"

#include <cstddef>
#include <new>
#include <stdexcept>

#include "arguments.h"
#include "errors.h"
#include "interruption.h"
#include "kvffmpeg/draw_utils.h"
#include "kvffmpeg/scaler.h"
#include "scaling.h"
#include "tracks.h"

namespace kvffmpeg::tool {
namespace {

/// What is wrong with the command line and can be told without a file.
void check(const ComposeOptions& options) {
    const bool hasBackground = !options.background.url.empty();
    if (!hasBackground && !options.size) {
        throw UsageError("expected a BACKGROUND picture, or --size for a canvas without one");
    }
    if (!hasBackground && !options.background.format.empty()) {
        throw UsageError("--format: expected a BACKGROUND picture with it");
    }
    if (hasBackground && options.color) {
        throw UsageError("--color: expected no BACKGROUND picture with it, only --size");
    }
}

Picture makeCanvas(rect_size_t size, Color color) {
    try {
        Picture canvas(size, AV_PIX_FMT_RGBA);
        DrawUtils::fillRectangle(canvas, color);
        return canvas;
    } catch (const std::bad_alloc&) {
        throw std::runtime_error("--size: The picture would become too large");
    }
}

Picture loadBackground(const ComposeOptions& options, Scaler& scaler, const PictureOutput& output) {
    Input input(options.background);
    output.requireFormat();
    output.refuseToOverwrite(options.background.url, "the background");
    const Frame frame = nextFrame(input, chooseTrack(input, AVMEDIA_TYPE_VIDEO, std::nullopt));
    if (frame.empty()) throw std::runtime_error(input.name() + ": No picture was decoded");
    // First, so that chroma of half the size is as large as the rest before it is scaled.
    const Picture rgba =
        scaler.convertToColorspace(frame.picture(), AV_PIX_FMT_RGBA, AVCOL_RANGE_UNSPECIFIED);
    if (rgba.empty()) {
        throw std::runtime_error(input.name() + ": Could not convert " + frame.picture().debugDescription());
    }
    return options.size ? scaled(scaler, rgba, parseSize(*options.size)) : rgba;
}

bool isOpaque(const Picture& rgba) {
    for (int y = 0; y < rgba.height(); ++y) {
        const unsigned char* const row = rgba.getPlanes()[0] + std::ptrdiff_t{y} * rgba.getLinesize()[0];
        for (int x = 0; x < rgba.width(); ++x) {
            if (row[std::ptrdiff_t{4} * x + 3] != 255) return false;
        }
    }
    return true;
}

}  // namespace

void savePictureOfPictures(const ComposeOptions& options) {
    check(options);
    Scaler scaler;
    setAlgorithm(scaler, options.algorithm);
    const PictureOutput output(options.output);
    Picture picture;
    // Before any work: whether these can be understood.
    if (options.background.url.empty()) {
        const Color transparent(0, 0, 0, 0);
        picture = makeCanvas(parseExactSize(*options.size),
                             options.color ? parseColor("--color", *options.color) : transparent);
        makeFormatsKnown();
        output.requireFormat();
    } else if (options.size) {
        parseSize(*options.size);
    }
    Drawing drawing(options.drawing, scaler.algorithm(), AlphaRule::join);
    if (!output.isStandardOutput()) drawing.refuseToOverwriteFiles(output.path());
    if (picture.empty()) picture = loadBackground(options, scaler, output);
    // A picture has no time: its place in texts stays as it is.
    const Picture composed = drawing.draw(picture, "{pts}");
    if (!output.canHaveAlpha() && !isOpaque(composed)) {
        throw UsageError(output.formatOption() +
                         " cannot be transparent, as the picture is: expected an opaque " +
                         (options.background.url.empty() ? "--color" : "--fill below all else") +
                         " with it, or " + (output.isStandardOutput() ? "png" : ".png"));
    }
    throwIfInterrupted();
    output.save(composed);
    output.summarize(std::to_string(composed.width()) + "x" + std::to_string(composed.height()));
}

}  // namespace kvffmpeg::tool
