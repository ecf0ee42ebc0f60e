#include "kvffmpeg/filtering.h"

#include <cstdint>
#include <stdexcept>
#include <utility>

#include "ffmpeg_compat.h"
#include "ffmpeg_ptr.h"
#include "simd_planes.h"
#include "text_format.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

namespace kvffmpeg {
namespace {

constexpr Timebase microseconds{1, 1000000};
constexpr std::uintptr_t planeAlignment = 64;

using GraphPtr = std::unique_ptr<AVFilterGraph, FreeWith<avfilter_graph_free>>;
using InOutPtr = std::unique_ptr<AVFilterInOut, FreeWith<avfilter_inout_free>>;

[[noreturn]] void fail(const char* text) {
    throw std::runtime_error(text);
}

const char* mediaName(AVMediaType type) {
    const char* name = av_get_media_type_string(type);
    return name ? name : "unknown";
}

std::string videoSource(const Picture& picture) {
    const std::string size = formatText("video_size=%dx%d:pix_fmt=", picture.width(), picture.height());
    const char* format = av_get_pix_fmt_name(picture.pixelFormat());
    // Without a name nothing follows, and the source refuses the arguments.
    return format ? size + format + ":time_base=1/1:pixel_aspect=1/1" : size;
}

std::string audioSource(const AudioBuffer& buffer) {
    return formatText("time_base=1/1000000:sample_rate=%d:sample_fmt=%d:channel_layout=0x%x",
                      buffer.sampleRate(), static_cast<int>(buffer.sampleFormat()), buffer.channelLayout());
}

/// An end of the graph that the specification leaves free, under a name that the specification may use.
InOutPtr freeEnd(const char* name, AVFilterContext* filter) {
    InOutPtr end(avfilter_inout_alloc());
    if (end) end->name = av_strdup(name);
    if (!end || !end->name) fail("Out of memory");
    end->filter_ctx = filter;
    end->pad_idx = 0;
    end->next = nullptr;
    return end;
}

bool hasAlignedPlanes(const AVFrame& frame, int planes) {
    for (int p = 0; p < planes; ++p) {
        if (reinterpret_cast<std::uintptr_t>(frame.extended_data[p]) % planeAlignment != 0) return false;
    }
    return true;
}

/// A frame with the same samples in planes that filters written for vectors can take: some crash on others.
FramePtr withAlignedPlanes(FramePtr frame, int channels) {
    const auto format = static_cast<AVSampleFormat>(frame->format);
    const int planes = av_sample_fmt_is_planar(format) != 0 ? channels : 1;
    if (frame->nb_samples == 0 || hasAlignedPlanes(*frame, planes)) return frame;
    FramePtr aligned = makeFrame();
    aligned->format = frame->format;
    aligned->nb_samples = frame->nb_samples;
    aligned->sample_rate = frame->sample_rate;
    compat::setChannelLayout(*aligned, compat::channelLayout(*frame));
    if (av_frame_get_buffer(aligned.get(), 0) < 0 || av_frame_copy_props(aligned.get(), frame.get()) < 0) {
        throw std::bad_alloc();
    }
    av_samples_copy(aligned->extended_data, frame->extended_data, 0, 0, frame->nb_samples, channels, format);
    return aligned;
}

}  // namespace

struct FFmpegFilterWrapper::State {
    GraphPtr graph;                     // owns the two filters
    AVFilterContext* source = nullptr;  // these two are good while `configured`
    AVFilterContext* sink = nullptr;
    bool configured =
        false;  // false with a graph: building it has failed, and libavfilter may have freed its filters
    std::string spec;
    AVPixelFormat pixelFormat = AV_PIX_FMT_NONE;  // what the graph was built for
    rect_size_t size;
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;  // of the first graph that could be built, for good

    void destroyGraph() noexcept {
        graph.reset();
        configured = false;
    }

    void build(const std::string& sourceArguments, AVMediaType mediaType) {
        compat::registerAll();
        const bool video = mediaType == AVMEDIA_TYPE_VIDEO;
        graph.reset(avfilter_graph_alloc());
        if (!graph) fail("Out of memory");
        const AVFilter* sourceFilter = avfilter_get_by_name(video ? "buffer" : "abuffer");
        const AVFilter* sinkFilter = avfilter_get_by_name(video ? "buffersink" : "abuffersink");
        if (!sourceFilter || !sinkFilter) fail("Filtering source or sink element not found");
        if (avfilter_graph_create_filter(&source, sourceFilter, "in", sourceArguments.c_str(), nullptr,
                                         graph.get()) < 0) {
            fail("Cannot create buffer source");
        }
        if (avfilter_graph_create_filter(&sink, sinkFilter, "out", nullptr, nullptr, graph.get()) < 0) {
            fail("Cannot create buffer sink");
        }
        InOutPtr outputs = freeEnd("in", source);
        InOutPtr inputs = freeEnd("out", sink);
        // Takes both lists and gives back what is left of them.
        AVFilterInOut* openInputs = inputs.release();
        AVFilterInOut* openOutputs = outputs.release();
        const int parsed =
            avfilter_graph_parse_ptr(graph.get(), spec.c_str(), &openInputs, &openOutputs, nullptr);
        inputs.reset(openInputs);
        outputs.reset(openOutputs);
        if (parsed < 0) fail("Cannot parse filter spec");
        if (avfilter_graph_config(graph.get(), nullptr) < 0) fail("Cannot configure filter");
        configured = true;
        type = mediaType;
    }

    /// Pushes one frame and takes one, which stays blank when there is none.
    FramePtr run(AVFrame& input) const {
        if (!configured) fail("Picture filtering failed");
        if (av_buffersrc_add_frame_flags(source, &input, AV_BUFFERSRC_FLAG_KEEP_REF) < 0) {
            fail("Picture filtering failed");
        }
        FramePtr output = makeFrame();
        (void)av_buffersink_get_frame(sink, output.get());
        return output;
    }
};

namespace {

/// Gives `result` the time of the graph's output unless the input had none.
void setTime(Frame& result, const AVFrame& output, Timestamp input) {
    if (!input.is_nil()) result.setPTS(Timestamp(output.pts).rescale(input.timeBase()));
}

}  // namespace

FFmpegFilterWrapper::FFmpegFilterWrapper() : state_(std::make_unique<State>()) {}
FFmpegFilterWrapper::~FFmpegFilterWrapper() = default;

void FFmpegFilterWrapper::setFilterSpec(std::string spec) {
    if (spec == state_->spec) return;
    state_->destroyGraph();
    state_->spec = std::move(spec);
}

Frame FFmpegFilterWrapper::processFrame(Frame& frame) {
    if (!frame.picture().empty()) return processVideoFrame(frame);
    if (!frame.audioBuffer().empty()) return processAudioFrame(frame);
    return frame;
}

Frame FFmpegFilterWrapper::processVideoFrame(Frame& frame) {
    if (state_->type != AVMEDIA_TYPE_UNKNOWN && state_->type != AVMEDIA_TYPE_VIDEO) {
        throw std::runtime_error(std::string("Filter is initialized for processing ") +
                                 mediaName(state_->type));
    }
    if (state_->spec.empty() || frame.picture().empty()) return frame;
    Picture& picture = frame.picture();
    if (picture.pixelFormat() != state_->pixelFormat || picture.size() != state_->size)
        state_->destroyGraph();
    if (!state_->graph) {
        state_->pixelFormat = picture.pixelFormat();
        state_->size = picture.size();
        state_->build(videoSource(picture), AVMEDIA_TYPE_VIDEO);
    }
    picture.makeEditable();
    FramePtr input = makeFrame();
    picture.fillAVFrame(input.get());
    input->pts = frame.PTS().rescale(microseconds).value();
    input = withPadding(std::move(input), picture);
    const FramePtr output = state_->run(*input);
    Frame result;
    result.setPicture(Picture(output.get()));
    setTime(result, *output, frame.PTS());
    return result;
}

Frame FFmpegFilterWrapper::processAudioFrame(Frame& frame) {
    if (state_->type != AVMEDIA_TYPE_UNKNOWN && state_->type != AVMEDIA_TYPE_AUDIO) {
        throw std::runtime_error(std::string("Filter is initialized for processing") +
                                 mediaName(state_->type));
    }
    if (state_->spec.empty() || frame.audioBuffer().empty()) return frame;
    const AudioBuffer& buffer = frame.audioBuffer();
    if (!state_->graph) state_->build(audioSource(buffer), AVMEDIA_TYPE_AUDIO);
    FramePtr input = makeFrame();
    buffer.fillAVFrame(input.get());
    input->pts = frame.PTS().rescale(microseconds).value();
    input = withAlignedPlanes(std::move(input), buffer.numberOfChannels());
    const FramePtr output = state_->run(*input);
    AudioBuffer filtered;
    filtered.loadAVFrame(output.get());
    Frame result;
    result.setAudioBuffer(std::move(filtered));
    setTime(result, *output, frame.PTS());
    return result;
}

Picture FFmpegFilterWrapper::processPicture(Picture& picture) {
    Frame frame;
    frame.setPicture(picture);
    return std::move(processFrame(frame).picture());
}

AudioBuffer FFmpegFilterWrapper::processAudioBuffer(AudioBuffer& buffer) {
    Frame frame;
    frame.setAudioBuffer(buffer);
    return std::move(processFrame(frame).audioBuffer());
}

}  // namespace kvffmpeg
