#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "canvas.h"
#include "kvffmpeg/freetype_rendering.h"
#include "kvffmpeg/picture.h"
#include "kvffmpeg/scaler.h"
#include "text_style.h"

namespace kvffmpeg::tool {

/// What to draw, as it stands on the command line.
struct DrawingOptions {
    std::optional<std::string> key;
    std::optional<std::string> background;
    std::vector<std::string> fills;
    std::vector<std::string> overlays;
    std::vector<std::string> texts;
    TextStyleOptions textStyle;
};

/// What becomes of the alpha of pictures that are drawn on in rgba.
enum class AlphaRule {
    keep,  ///< It stays but under fills and texts, as in video, whose alpha has a meaning of its own.
    join,  ///< Overlays and texts add theirs to it, as one picture before another does.
};

/// Draws on pictures: keys them over a background, then fills rectangles, then puts overlays onto them, then
/// writes texts, each in the order of the command line.
class Drawing {
public:
    /// Loads what is drawn. `algorithm` scales the background.
    /// @throws UsageError for texts that cannot be understood, and for a key without a background and the
    /// other way round, as for a style of texts without a text; std::runtime_error for a file without a
    /// picture, and for a font that cannot be used or found.
    Drawing(const DrawingOptions& options, Scaler::ScalingAlgorithm algorithm,
            AlphaRule alphaRule = AlphaRule::keep);

    /// The picture with all that is drawn on it; the picture itself when that is nothing. `time` stands for
    /// "{pts}" in texts.
    /// @throws std::runtime_error for a picture in a format that cannot be converted.
    Picture draw(const Picture& picture, const std::string& time);

    /// @throws std::runtime_error when `path` is a file that was loaded.
    void refuseToOverwriteFiles(const std::string& path) const;

private:
    struct Overlay {
        OverlayArgument argument;
        Picture picture;  ///< rgba.
    };

    bool isEmpty() const noexcept { return !key_ && fills_.empty() && overlays_.empty() && texts_.empty(); }
    void loadBackground(const std::string& text);
    void loadOverlay(const std::string& text);
    void prepareTexts(const DrawingOptions& options);
    /// Makes what fits the canvas, unless the last one was like it.
    void prepareFor(const Canvas& canvas);
    Picture backgroundFor(const Canvas& canvas) const;
    void drawKeyed(Canvas& canvas) const;
    void drawOverlay(Canvas& canvas, const PlacedOverlay& overlay) const;
    void drawText(Canvas& canvas, const TextArgument& text, const std::string& time) const;

    std::optional<KeyArgument> key_;
    std::optional<BackgroundArgument> background_;
    Picture backgroundPicture_;
    std::vector<FillArgument> fills_;
    std::vector<Overlay> overlays_;
    std::vector<TextArgument> texts_;
    TextStyle textStyle_;
    std::unique_ptr<FreeTypeTextRenderer> textRenderer_;  ///< Null without texts.
    AlphaRule alphaRule_;

    Scaler frameScaler_;
    Scaler::ScalingAlgorithm algorithm_;

    // For pictures of this size whose canvas has this format and range.
    rect_size_t preparedSize_;
    AVPixelFormat preparedFormat_ = AV_PIX_FMT_NONE;
    AVColorRange preparedRange_ = AVCOL_RANGE_UNSPECIFIED;
    Picture preparedBackground_;
    std::vector<PlacedOverlay> preparedOverlays_;
};

}  // namespace kvffmpeg::tool
