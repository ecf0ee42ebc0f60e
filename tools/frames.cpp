#include "frames.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <utility>

#include "console.h"
#include "drawing.h"
#include "file_pattern.h"
#include "kvffmpeg/scaler.h"
#include "kvffmpeg/utils.h"
#include "picture_file.h"
#include "picture_filter.h"
#include "scaling.h"
#include "tracks.h"
#include "y4m.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg::tool {
namespace {

/// Where pictures go.
class PictureSink {
public:
    PictureSink() = default;
    virtual ~PictureSink() = default;
    PictureSink(const PictureSink&) = delete;
    PictureSink& operator=(const PictureSink&) = delete;

    void save(const Picture& picture) {
        write(picture, saved_ + 1);
        ++saved_;
    }
    std::uint64_t saved() const { return saved_; }
    /// Says what was saved, unless that is nothing.
    virtual void writeSummary(std::ostream& out) const = 0;

private:
    virtual void write(const Picture& picture, std::uint64_t number) = 0;

    std::uint64_t saved_ = 0;
};

/// Saves pictures under numbered names.
class PictureFiles : public PictureSink {
public:
    PictureFiles(FilePattern pattern, std::string inputName, const Drawing& drawing)
        : pattern_(std::move(pattern)), inputName_(std::move(inputName)), drawing_(drawing) {}

    /// "3 pictures: a1.png to a3.png".
    void writeSummary(std::ostream& out) const override {
        if (saved() == 0) return;
        out << saved() << (saved() == 1 ? " picture: " : " pictures: ") << printable(pattern_.name(1));
        if (saved() > 1) out << " to " << printable(pattern_.name(saved()));
        out << '\n';
    }

private:
    void write(const Picture& picture, std::uint64_t number) override {
        const std::string path = pattern_.name(number);
        refuseToOverwrite(path, inputName_, "the input");
        drawing_.refuseToOverwriteFiles(path);
        savePicture(picture, path);
    }

    FilePattern pattern_;
    std::string inputName_;
    const Drawing& drawing_;
};

/// Sends pictures to standard output.
class PictureStream : public PictureSink {
public:
    PictureStream(const Y4mStream::Properties& properties, Scaler::ScalingAlgorithm algorithm)
        : stream_(properties, algorithm) {}

    /// Nothing, as the pictures are where it would go.
    void writeSummary(std::ostream& /*out*/) const override {}

private:
    void write(const Picture& picture, std::uint64_t /*number*/) override { stream_.write(picture); }

    Y4mStream stream_;
};

bool is420(AVPixelFormat format) {
    const AVPixFmtDescriptor* const descriptor = av_pix_fmt_desc_get(format);
    return descriptor && descriptor->log2_chroma_w == 1 && descriptor->log2_chroma_h == 1;
}

Y4mStream::Properties streamOf(const Input& input, unsigned int track, const FramesOptions& options) {
    AVStream* const source = input.context().trackAtIndex(track);
    Y4mStream::Properties properties;
    if (const std::optional<AVRational> rate = frameRate(*source)) properties.rate = *rate;
    // Both may change the shape of pixels.
    if (options.filter.empty() && !options.size) {
        const AVRational shape =
            av_guess_sample_aspect_ratio(input.context().getAVFormatContext(), source, nullptr);
        if (shape.num > 0 && shape.den > 0) properties.pixelShape = shape;
    }
    if (is420(static_cast<AVPixelFormat>(source->codecpar->format))) {
        properties.chroma = source->codecpar->chroma_location;
    }
    return properties;
}

/// What of the work is done: of the pictures that are wanted, or of the time that they are in.
std::optional<double> shareDone(const Input& input, const Frame& frame, const FramesOptions& options,
                                std::uint64_t saved) {
    const std::optional<double> ofTime =
        shareBefore(input, frame, options.start.is_nil() ? Timestamp(0) : options.start);
    if (options.count == std::numeric_limits<std::uint64_t>::max()) return ofTime;
    return std::max(static_cast<double>(saved) / static_cast<double>(options.count), ofTime.value_or(0));
}

void show(const Progress& progress, const Input& input, const Frame& frame, const FramesOptions& options,
          std::uint64_t saved) {
    const std::string position = positionText(input, frame);
    progress.show(std::to_string(saved) + " pictures" + (position.empty() ? "" : ", " + position),
                  static_cast<double>(saved), shareDone(input, frame, options, saved));
}

/// Returns whether there was any picture for the filter.
bool saveAll(Input& input, unsigned int track, const FramesOptions& options, Scaler& scaler, Drawing& drawing,
             PictureSink& sink) {
    const Timestamp start = options.start.is_nil() ? Timestamp() : input.start() + options.start;
    PictureFilter filter(options.filter);
    const Progress progress(" pictures/s");
    bool hasPicture = false;
    while (sink.saved() < options.count) {
        const Frame frame = nextFrame(input, track);
        if (frame.empty()) break;
        // Times are the input's: what filters give back is in whatever units they leave.
        if (progressIsDue()) show(progress, input, frame, options, sink.saved());
        // An unknown time is the smallest of all.
        if (!start.is_nil() && frame.PTS() < start) continue;
        hasPicture = true;
        const Picture picture = filter.filter(frame);
        if (picture.empty()) continue;
        sink.save(drawing.draw(options.size ? scaled(scaler, picture, *options.size) : picture,
                               positionText(input, frame, "--:--:--.---")));
    }
    clearProgress();
    return hasPicture;
}

}  // namespace

void saveFrames(const FramesOptions& options) {
    Scaler scaler;
    setAlgorithm(scaler, options.algorithm);
    std::optional<FilePattern> pattern;  // without one pictures go to standard output
    if (options.output == standardStream) {
        requireNoTerminal();
    } else {
        pattern.emplace(options.output);
    }
    Drawing drawing(options.drawing, scaler.algorithm());
    Input input(options.input);
    if (pattern) requirePictureFormat(pattern->name(1));
    const unsigned int track = chooseTrack(input, AVMEDIA_TYPE_VIDEO, options.track);
    std::unique_ptr<PictureSink> sink;
    if (pattern) {
        sink = std::make_unique<PictureFiles>(*pattern, options.input.url, drawing);
    } else {
        sink = std::make_unique<PictureStream>(streamOf(input, track, options), scaler.algorithm());
    }
    discardOthers(input.context(), track);
    if (options.start > Timestamp(0)) seekBefore(input, track, input.start() + options.start);
    bool hasPicture = false;
    try {
        hasPicture = saveAll(input, track, options, scaler, drawing, *sink);
    } catch (...) {
        clearProgress();
        sink->writeSummary(std::cout);  // what was written so far stays
        std::cout.flush();
        throw;
    }
    if (sink->saved() == 0) {
        const bool heldBack = hasPicture && !options.filter.empty();
        throw std::runtime_error(input.name() +
                                 (heldBack ? ": No picture came out of --filter \"" + options.filter + "\""
                                           : ": No picture was written"));
    }
    sink->writeSummary(std::cout);
    flushOutput();
}

}  // namespace kvffmpeg::tool
