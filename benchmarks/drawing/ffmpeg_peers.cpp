#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "ffmpeg_compat.h"
#include "ffmpeg_ptr.h"
#include "peers.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace drawing {
namespace {

void check(int result, const char* what) {
    if (result < 0) throw std::runtime_error(std::string("libavfilter: ") + what);
}

kvffmpeg::FramePtr reference(const Image& image, std::int64_t time) {
    kvffmpeg::FramePtr frame = kvffmpeg::makeFrame();
    frame->buf[0] = kvffmpeg::compat::createBuffer(
        image.plane(0), image.bytes(), [](void*, std::uint8_t*) {}, nullptr);
    std::copy_n(image.planes(), 4, frame->data);
    std::copy_n(image.linesizes(), 4, frame->linesize);
    frame->width = image.width();
    frame->height = image.height();
    frame->format = image.format();
    frame->pts = time;
    return frame;
}

class OverlayGraph {
public:
    OverlayGraph(Frames frames, const Image& overlay, bool isStill)
        : frames_(std::move(frames)),
          overlay_(overlay),
          isStill_(isStill),
          graph_(makeGraph()),
          main_(makeSource("main", frames_[0])),
          second_(makeSource("second", overlay)) {
        check(avfilter_graph_create_filter(&sink_, avfilter_get_by_name("buffersink"), "out", nullptr,
                                           nullptr, graph_.get()),
              "no sink");
        AVFilterInOut* outputs = link("main", main_, link("second", second_, nullptr));
        AVFilterInOut* inputs = link("out", sink_, nullptr);
        const int parsed = avfilter_graph_parse_ptr(graph_.get(), "[main][second]overlay=format=yuv420[out]",
                                                    &inputs, &outputs, nullptr);
        avfilter_inout_free(&inputs);
        avfilter_inout_free(&outputs);
        check(parsed, "no graph");
        check(avfilter_graph_config(graph_.get(), nullptr), "no valid graph");
    }

    /// One picture, with the overlay anew or, once it has been given, as it stands.
    void run(std::size_t frame) {
        ++time_;
        if (!isStill_ || time_ == 1) {
            check(av_buffersrc_add_frame(second_, reference(overlay_, time_).get()), "overlay refused");
            if (isStill_) check(av_buffersrc_add_frame(second_, nullptr), "end of overlays refused");
        }
        // The graph becomes the only owner of the destination's reference, so that it may write to it.
        check(av_buffersrc_add_frame(main_, reference(frames_[frame], time_).get()), "picture refused");
        const kvffmpeg::FramePtr result = kvffmpeg::makeFrame();
        check(av_buffersink_get_frame(sink_, result.get()), "no result");
        // It cannot know yet with the first picture that no other overlay comes.
        if (isStill_ && time_ > 1 && result->data[0] != frames_[frame].plane(0)) {
            throw std::runtime_error("libavfilter: has made a copy");
        }
    }

private:
    static AVFilterGraph* makeGraph() {
        kvffmpeg::compat::registerAll();
        AVFilterGraph* graph = avfilter_graph_alloc();
        if (!graph) throw std::bad_alloc();
        graph->nb_threads = 1;
        return graph;
    }
    AVFilterContext* makeSource(const char* name, const Image& image) {
        const std::string arguments =
            "video_size=" + std::to_string(image.width()) + "x" + std::to_string(image.height()) +
            ":pix_fmt=" + av_get_pix_fmt_name(image.format()) + ":time_base=1/1:pixel_aspect=1/1";
        AVFilterContext* source = nullptr;
        check(avfilter_graph_create_filter(&source, avfilter_get_by_name("buffer"), name, arguments.c_str(),
                                           nullptr, graph_.get()),
              "no source");
        return source;
    }
    static AVFilterInOut* link(const char* name, AVFilterContext* filter, AVFilterInOut* next) {
        AVFilterInOut* end = avfilter_inout_alloc();
        end->name = av_strdup(name);
        end->filter_ctx = filter;
        end->pad_idx = 0;
        end->next = next;
        return end;
    }

    Frames frames_;
    Image overlay_;
    bool isStill_;
    struct FreeGraph {
        void operator()(AVFilterGraph* graph) const noexcept { avfilter_graph_free(&graph); }
    };
    std::unique_ptr<AVFilterGraph, FreeGraph> graph_;
    AVFilterContext* main_;
    AVFilterContext* second_;
    AVFilterContext* sink_ = nullptr;
    std::int64_t time_ = 0;
};

}  // namespace

Work libavfilterStillOverlay(const Frames& frames, const Image& overlay) {
    const auto graph = std::make_shared<OverlayGraph>(frames, overlay, true);
    graph->run(0);
    return [graph](std::size_t frame) { graph->run(frame); };
}

Work libavfilterOverlay(const Frames& frames, const Image& overlay) {
    return [graph = std::make_shared<OverlayGraph>(frames, overlay, false)](std::size_t frame) {
        graph->run(frame);
    };
}

Work swscaleConversion(const Image& destination, const Image& source) {
    const std::shared_ptr<SwsContext> context(
        sws_getContext(source.width(), source.height(), source.format(), destination.width(),
                       destination.height(), destination.format(), SWS_BILINEAR, nullptr, nullptr, nullptr),
        sws_freeContext);
    if (!context) throw std::runtime_error("libswscale: no such conversion");
    return [destination, source, context](std::size_t) {
        sws_scale(context.get(), source.planes(), source.linesizes(), 0, source.height(),
                  destination.planes(), destination.linesizes());
    };
}

}  // namespace drawing
