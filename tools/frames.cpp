#include "frames.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "arguments.h"
#include "console.h"
#include "drawing.h"
#include "errors.h"
#include "file_pattern.h"
#include "kvffmpeg/scaler.h"
#include "kvffmpeg/utils.h"
#include "picture_file.h"
#include "picture_filter.h"
#include "tracks.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace kvffmpeg::tool {
namespace {

/// The side that goes with `side` in a picture of the same proportions as `source`.
int otherSide(int side, int sourceSide, int sourceOther) {
    const std::int64_t other = av_rescale(sourceOther, side, sourceSide);
    if (other > longestSide) throw std::runtime_error("--size: The pictures would become too large");
    return std::max(1, static_cast<int>(other));
}

rect_size_t targetSize(rect_size_t wanted, rect_size_t source) {
    if (wanted.w < 0) wanted.w = otherSide(wanted.h, source.h, source.w);
    if (wanted.h < 0) wanted.h = otherSide(wanted.w, source.w, source.h);
    return wanted;
}

Picture scaled(Scaler& scaler, const Picture& picture, rect_size_t wanted) {
    const rect_size_t size = targetSize(wanted, picture.size());
    Picture result = scaler.scale(picture, size);
    // Not every format can be written by libswscale; palettes cannot.
    if (result.empty()) result = scaler.scale(picture, size, AV_PIX_FMT_RGBA, AVCOL_RANGE_UNSPECIFIED);
    if (result.empty()) throw std::runtime_error("Could not scale " + picture.debugDescription());
    return result;
}

/// Saves pictures under numbered names.
class PictureFiles {
public:
    PictureFiles(const std::string& pattern, std::string inputName)
        : pattern_(pattern), inputName_(std::move(inputName)) {}

    void save(const Picture& picture) {
        const std::string path = pattern_.name(written_ + 1);
        refuseToOverwrite(path, inputName_, "the input");
        savePicture(picture, path);
        ++written_;
    }

    std::uint64_t written() const { return written_; }
    std::string nextName() const { return pattern_.name(written_ + 1); }

    /// "3 pictures: a1.png to a3.png".
    void writeSummary(std::ostream& out) const {
        if (written_ == 0) return;
        out << written_ << (written_ == 1 ? " picture: " : " pictures: ") << printable(pattern_.name(1));
        if (written_ > 1) out << " to " << printable(pattern_.name(written_));
        out << '\n';
    }

private:
    FilePattern pattern_;
    std::string inputName_;
    std::uint64_t written_ = 0;
};

/// Gives the scaler its algorithm, whose name comes from the command line.
void setAlgorithm(Scaler& scaler, const std::string& name) {
    try {
        scaler.setAlgorithm(name);
    } catch (const std::runtime_error& error) {
        throw UsageError(std::string("--algorithm: ") + error.what());
    }
}

void showPosition(const Input& input, const Frame& frame, std::uint64_t written) {
    if (!progressIsDue()) return;
    const std::string position = positionText(input, frame);
    showProgress(std::to_string(written) + " pictures" + (position.empty() ? "" : ", " + position));
}

/// Returns whether there was any picture for the filter.
bool saveAll(Input& input, unsigned int track, const FramesOptions& options, Scaler& scaler, Drawing& drawing,
             PictureFiles& files) {
    const Timestamp start = options.start.is_nil() ? Timestamp() : input.start() + options.start;
    PictureFilter filter(options.filter);
    bool hasPicture = false;
    while (files.written() < options.count) {
        const Frame frame = nextFrame(input, track);
        if (frame.empty()) break;
        // Times are the input's: what filters give back is in whatever units they leave.
        showPosition(input, frame, files.written());
        // An unknown time is the smallest of all.
        if (!start.is_nil() && frame.PTS() < start) continue;
        hasPicture = true;
        const Picture picture = filter.filter(frame);
        if (picture.empty()) continue;
        drawing.refuseToOverwriteFiles(files.nextName());
        files.save(drawing.draw(options.size ? scaled(scaler, picture, *options.size) : picture,
                                positionText(input, frame, "--:--:--.---")));
    }
    clearProgress();
    return hasPicture;
}

}  // namespace

void saveFrames(const FramesOptions& options) {
    Scaler scaler;
    setAlgorithm(scaler, options.algorithm);
    PictureFiles files(options.output, options.input.url);
    Drawing drawing(options.drawing, scaler.algorithm());
    Input input(options.input);
    requirePictureFormat(files.nextName());
    const unsigned int track = chooseTrack(input, AVMEDIA_TYPE_VIDEO, options.track);
    discardOthers(input.context(), track);
    if (options.start > Timestamp(0)) seekBefore(input, track, input.start() + options.start);
    bool hasPicture = false;
    try {
        hasPicture = saveAll(input, track, options, scaler, drawing, files);
    } catch (...) {
        clearProgress();
        files.writeSummary(std::cout);  // what was written so far stays
        std::cout.flush();
        throw;
    }
    if (files.written() == 0) {
        const bool heldBack = hasPicture && !options.filter.empty();
        throw std::runtime_error(input.name() +
                                 (heldBack ? ": No picture came out of --filter \"" + options.filter + "\""
                                           : ": No picture was written"));
    }
    files.writeSummary(std::cout);
    flushOutput();
}

}  // namespace kvffmpeg::tool
