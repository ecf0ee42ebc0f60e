#include "sheet.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "arguments.h"
#include "console.h"
#include "evenly_spaced.h"
#include "kvffmpeg/scaler.h"
#include "picture_file.h"
#include "sheet_picture.h"
#include "text_style.h"
#include "tracks.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace kvffmpeg::tool {
namespace {

/// Makes cells of frames. The first frame decides on the shape of all cells.
class Cells {
public:
    Cells(const SheetOptions& options, const Input& input, unsigned int track)
        : options_(options), input_(input) {
        scaler_.setAlgorithm(Scaler::lanczos);
        FormatContext const& context = input.context();
        pixelShape_ =
            av_guess_sample_aspect_ratio(context.getAVFormatContext(), context.trackAtIndex(track), nullptr);
    }

    SheetCell make(const Frame& frame) {
        const Picture& picture = frame.picture();
        const rect_size_t shape = shapeOf(picture);
        if (!layout_) layout_.emplace(options_.grid, options_.width, shape);
        const Picture scaled =
            scaler_.scale(picture, layout_->fitted(shape), AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
        if (scaled.empty()) throw std::runtime_error("Could not scale " + picture.debugDescription());
        return {scaled, positionText(input_, frame)};
    }

    /// Good when a cell was made.
    const SheetLayout& layout() const { return layout_.value(); }

private:
    /// The size at which the picture's pixels would be squares.
    rect_size_t shapeOf(const Picture& picture) const {
        const std::int64_t width = av_rescale(picture.width(), pixelShape_.num, pixelShape_.den);
        const bool isKnown = pixelShape_.num > 0 && pixelShape_.den > 0;
        return {isKnown && width > 0 && width <= longestSide ? static_cast<int>(width) : picture.width(),
                picture.height()};
    }

    const SheetOptions& options_;
    const Input& input_;
    AVRational pixelShape_{};
    Scaler scaler_;
    std::optional<SheetLayout> layout_;
};

std::string summaryOf(rect_size_t size, std::size_t pictures) {
    return std::to_string(size.w) + "x" + std::to_string(size.h) + ", " + std::to_string(pictures) +
           (pictures == 1 ? " picture" : " pictures");
}

}  // namespace

void saveSheet(const SheetOptions& options) {
    // Before any work: also the font, and whether the columns are not too narrow.
    const SheetLayout check(options.grid, options.width, {1, 1});
    TextStyleOptions styleOptions;
    styleOptions.font = options.font;
    const TextStyle style = styleOf(styleOptions);
    makeRenderer(style);
    const PictureOutput output(options.output);
    Input input(options.input);
    output.requireFormat();
    output.refuseToOverwrite(options.input.url, "the input");
    output.refuseToOverwrite(style.font, "the font");
    const unsigned int track = chooseTrack(input, AVMEDIA_TYPE_VIDEO, options.track);
    discardOthers(input.context(), track);

    Cells maker(options, input, track);
    const auto wanted = static_cast<std::size_t>(options.grid.w) * static_cast<std::size_t>(options.grid.h);
    const std::vector<SheetCell> cells =
        evenlySpaced(input, track, wanted, [&maker](const Frame& frame) { return maker.make(frame); });
    clearProgress();
    if (cells.empty()) throw std::runtime_error(input.name() + ": No picture was decoded");
    const Picture sheet = drawSheet(maker.layout(), cells, style.font);
    throwIfInterrupted();
    output.save(sheet);
    output.summarize(summaryOf(sheet.size(), cells.size()));
}

}  // namespace kvffmpeg::tool
