#pragma once

#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "canvas.h"
#include "kvffmpeg/picture.h"
#include "kvffmpeg/scaler.h"

namespace kvffmpeg::tool {

/// What to draw, as it stands on the command line.
struct DrawingOptions {
    std::optional<std::string> key;
    std::optional<std::string> background;
    std::vector<std::string> fills;
    std::vector<std::string> overlays;
};

/// Draws on pictures: keys them over a background, then fills rectangles, then puts overlays onto them, each
/// in the order of the command line.
class Drawing {
public:
    /// Loads what is drawn. `algorithm` scales the background.
    /// @throws UsageError for texts that cannot be understood, and for a key without a background and the
    /// other way round; std::runtime_error for a file without a picture.
    Drawing(const DrawingOptions& options, Scaler::ScalingAlgorithm algorithm);

    /// The picture with all that is drawn on it; the picture itself when that is nothing.
    /// @throws std::runtime_error for a picture in a format that cannot be converted.
    Picture draw(const Picture& picture);

    /// @throws std::runtime_error when `path` is a file that was loaded.
    void refuseToOverwriteFiles(const std::string& path) const;

private:
    struct Overlay {
        OverlayArgument argument;
        Picture picture;  ///< rgba.
    };

    bool isEmpty() const noexcept { return !key_ && fills_.empty() && overlays_.empty(); }
    void loadBackground(const std::string& text);
    void loadOverlay(const std::string& text);
    /// Makes what fits the canvas, unless the last one was like it.
    void prepareFor(const Canvas& canvas);
    Picture backgroundFor(const Canvas& canvas) const;
    void drawKeyed(Canvas& canvas) const;

    std::optional<KeyArgument> key_;
    std::optional<BackgroundArgument> background_;
    Picture backgroundPicture_;
    std::vector<FillArgument> fills_;
    std::vector<Overlay> overlays_;

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
