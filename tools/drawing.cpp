#include "drawing.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "errors.h"
#include "kvffmpeg/draw_utils.h"
#include "kvffmpeg/image_utils.h"
#include "kvffmpeg/utils.h"
#include "picture_file.h"
#include "text_picture.h"

namespace kvffmpeg::tool {
namespace {

/// The picture in `path`, which `option` names.
Picture load(const std::string& option, const std::string& path) {
    Picture picture;
    try {
        picture = loadPicture(path);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(option + " " + path + ": " + error.what());
    }
    if (picture.empty()) throw std::runtime_error(option + " " + path + ": There is no picture in it");
    return picture;
}

/// `text` with `time` for every "{pts}".
std::string withTime(std::string text, const std::string& time) {
    const std::string place = "{pts}";
    for (std::size_t at = text.find(place); at != std::string::npos; at = text.find(place, at)) {
        text.replace(at, place.size(), time);
        at += time.size();
    }
    return text;
}

/// Puts a pixel of rgba before another one.
void joinPixel(unsigned char* below, const unsigned char* above) {
    constexpr std::uint32_t full = 255;
    const std::uint32_t share = above[3] * full;
    const std::uint32_t rest = below[3] * (full - above[3]);
    const std::uint32_t sum = share + rest;
    if (sum == 0) return;
    for (int c = 0; c < 3; ++c) {
        below[c] = static_cast<unsigned char>((above[c] * share + below[c] * rest + sum / 2) / sum);
    }
    below[3] = static_cast<unsigned char>((sum + full / 2) / full);
}

/// Puts a picture in rgba, which lies inside, before another one.
void join(Picture& below, const Picture& above, point_t position) {
    for (int y = 0; y < above.height(); ++y) {
        unsigned char* target = below.getPlanes()[0] +
                                std::ptrdiff_t{position.y + y} * below.getLinesize()[0] +
                                std::ptrdiff_t{4} * position.x;
        const unsigned char* source = above.getPlanes()[0] + std::ptrdiff_t{y} * above.getLinesize()[0];
        for (int x = 0; x < above.width(); ++x, target += 4, source += 4) joinPixel(target, source);
    }
}

}  // namespace

Drawing::Drawing(const DrawingOptions& options, Scaler::ScalingAlgorithm algorithm, AlphaRule alphaRule)
    : alphaRule_(alphaRule), algorithm_(algorithm) {
    if (options.key && !options.background) {
        throw UsageError("--key: expected --background with it, a picture file or a colour");
    }
    if (options.background && !options.key) {
        throw UsageError("--background: expected --key with it, the colour to replace");
    }
    if (options.key) key_ = parseKey(*options.key);
    for (const std::string& text : options.fills) fills_.push_back(parseFill(text));
    prepareTexts(options);
    if (options.background) loadBackground(*options.background);
    for (const std::string& text : options.overlays) loadOverlay(text);
}

void Drawing::loadBackground(const std::string& text) {
    background_ = parseBackground(text);
    if (!background_->path.empty()) backgroundPicture_ = load("--background", background_->path);
}

void Drawing::loadOverlay(const std::string& text) {
    const OverlayArgument argument = parseOverlay(text);
    const Picture loaded = load("--overlay", argument.path);
    const Picture rgba = Scaler().convertToColorspace(loaded, AV_PIX_FMT_RGBA, AVCOL_RANGE_UNSPECIFIED);
    if (rgba.empty()) {
        throw std::runtime_error("--overlay " + argument.path + ": Could not convert " +
                                 loaded.debugDescription());
    }
    overlays_.push_back({argument, rgba});
}

void Drawing::prepareTexts(const DrawingOptions& options) {
    const std::string& given = options.textStyle.given;
    if (options.texts.empty() && !given.empty()) {
        throw UsageError(given + ": expected --text with it, TEXT@X,Y");
    }
    for (const std::string& text : options.texts) texts_.push_back(parseText(text));
    if (texts_.empty()) return;
    textStyle_ = styleOf(options.textStyle);
    textRenderer_ = makeRenderer(textStyle_);
    for (std::size_t i = 0; i < texts_.size(); ++i) {
        requireUtf8(*textRenderer_, "--text \"" + options.texts[i] + "\"", texts_[i].text);
    }
}

Picture Drawing::draw(const Picture& picture, const std::string& time) {
    if (isEmpty()) return picture;
    Canvas canvas(frameScaler_, picture, key_.has_value());
    prepareFor(canvas);
    if (key_) drawKeyed(canvas);
    for (const FillArgument& fill : fills_) {
        DrawUtils::fillRectangle(canvas.picture(), canvas.onGrid(fill.area), fill.color);
    }
    for (const PlacedOverlay& overlay : preparedOverlays_) drawOverlay(canvas, overlay);
    for (const TextArgument& text : texts_) drawText(canvas, text, time);
    return canvas.result();
}

void Drawing::drawOverlay(Canvas& canvas, const PlacedOverlay& overlay) const {
    if (alphaRule_ == AlphaRule::join && canvas.picture().pixelFormat() == AV_PIX_FMT_RGBA) {
        join(canvas.picture(), overlay.picture, overlay.position);
    } else {
        DrawUtils::compose(canvas.picture(), overlay.picture, overlay.position);
    }
}

void Drawing::drawText(Canvas& canvas, const TextArgument& text, const std::string& time) const {
    const std::string written = withTime(text.text, time);
    if (alphaRule_ == AlphaRule::keep) {
        textRenderer_->drawTo(canvas.picture(), written, text.position);
        return;
    }
    const Picture layer = renderText(written, textStyle_);
    if (layer.empty()) return;
    const PlacedOverlay placed = canvas.place(
        Scaler().convertToColorspace(layer, AV_PIX_FMT_RGBA, AVCOL_RANGE_UNSPECIFIED), text.position);
    if (!placed.picture.empty()) drawOverlay(canvas, placed);
}

void Drawing::prepareFor(const Canvas& canvas) {
    const rect_size_t size = canvas.size();
    const AVPixelFormat format = canvas.picture().pixelFormat();
    const AVColorRange range = canvas.picture().colorRange();
    if (preparedSize_ == size && preparedFormat_ == format && preparedRange_ == range) return;
    if (background_) preparedBackground_ = backgroundFor(canvas);
    preparedOverlays_.clear();
    for (const Overlay& overlay : overlays_) {
        PlacedOverlay placed = canvas.place(overlay.picture, overlay.argument.position);
        if (!placed.picture.empty()) preparedOverlays_.push_back(placed);
    }
    preparedSize_ = size;
    preparedFormat_ = format;
    preparedRange_ = range;
}

Picture Drawing::backgroundFor(const Canvas& canvas) const {
    if (!backgroundPicture_.empty()) {
        Scaler scaler;
        scaler.setAlgorithm(algorithm_);
        return canvas.matching(scaler, backgroundPicture_);
    }
    const Picture& like = canvas.picture();
    Picture plain(like.size(), like.pixelFormat(), like.colorRange());
    DrawUtils::fillRectangle(plain, background_->color);
    return plain;
}

void Drawing::drawKeyed(Canvas& canvas) const {
    const Picture keyed =
        ImageUtils::chromaKeying(canvas.picture(), key_->color, key_->similarity, key_->blend);
    canvas.picture() = preparedBackground_;
    canvas.picture().makeEditable();
    DrawUtils::compose(canvas.picture(), keyed, {0, 0});
}

void Drawing::refuseToOverwriteFiles(const std::string& path) const {
    for (const Overlay& overlay : overlays_) {
        refuseToOverwrite(path, overlay.argument.path, "an overlay");
    }
    if (background_) refuseToOverwrite(path, background_->path, "the background");
    if (textRenderer_) refuseToOverwrite(path, textStyle_.font, "the font");
}

}  // namespace kvffmpeg::tool
