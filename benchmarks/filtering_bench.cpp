// What the wrapper costs on top of libavfilter: the same pictures go through the wrapper and through the
// plain calls, in turns within one iteration, so that whatever else the machine does falls on both. Both push
// a reference to the picture's memory and copy what comes out once.
//
// The counters are microseconds of processor time for one picture, the least of all rounds, and their ratio.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <new>
#include <string>

#include "kvffmpeg/kvffmpeg.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
}

namespace {

constexpr int picturesPerRound = 10;

double processorMicroseconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

kvffmpeg::Picture makePicture(kvffmpeg::rect_size_t size) {
    kvffmpeg::Picture picture(size, AV_PIX_FMT_YUV420P);
    std::memset(picture.buffer()->data(), 100, picture.buffer()->size());
    return picture;
}

/// A reference to the picture's memory. The size's type differs between releases of FFmpeg.
template <typename Size>
AVBufferRef* refer(AVBufferRef* (*create)(std::uint8_t*, Size, void (*)(void*, std::uint8_t*), void*, int),
                   const kvffmpeg::Picture& picture) {
    return create(
        picture.buffer()->data(), static_cast<Size>(picture.buffer()->size()), [](void*, std::uint8_t*) {},
        nullptr, 0);
}

/// The graph that the wrapper builds, with the calls that a C program would make.
class PlainGraph {
public:
    PlainGraph(const std::string& spec, kvffmpeg::rect_size_t size) {
        const std::string arguments = "video_size=" + std::to_string(size.w) + "x" + std::to_string(size.h) +
                                      ":pix_fmt=yuv420p:time_base=1/1:pixel_aspect=1/1";
        graph_ = avfilter_graph_alloc();
        avfilter_graph_create_filter(&source_, avfilter_get_by_name("buffer"), "in", arguments.c_str(),
                                     nullptr, graph_);
        avfilter_graph_create_filter(&sink_, avfilter_get_by_name("buffersink"), "out", nullptr, nullptr,
                                     graph_);
        AVFilterInOut* outputs = avfilter_inout_alloc();
        outputs->name = av_strdup("in");
        outputs->filter_ctx = source_;
        AVFilterInOut* inputs = avfilter_inout_alloc();
        inputs->name = av_strdup("out");
        inputs->filter_ctx = sink_;
        isGood_ = avfilter_graph_parse_ptr(graph_, spec.c_str(), &inputs, &outputs, nullptr) >= 0 &&
                  avfilter_graph_config(graph_, nullptr) >= 0;
        avfilter_inout_free(&inputs);
        avfilter_inout_free(&outputs);
    }
    ~PlainGraph() { avfilter_graph_free(&graph_); }
    PlainGraph(const PlainGraph&) = delete;
    PlainGraph& operator=(const PlainGraph&) = delete;

    bool isGood() const { return isGood_; }

    /// @returns the size of what came out.
    kvffmpeg::rect_size_t filter(const kvffmpeg::Picture& picture, std::int64_t time) {
        AVFrame* input = av_frame_alloc();
        input->buf[0] = refer(av_buffer_create, picture);
        std::copy_n(picture.getPlanes(), 4, input->data);
        std::copy_n(picture.getLinesize(), 4, input->linesize);
        input->width = picture.width();
        input->height = picture.height();
        input->format = picture.pixelFormat();
        input->pts = time;
        const int pushed = av_buffersrc_add_frame_flags(source_, input, AV_BUFFERSRC_FLAG_KEEP_REF);
        AVFrame* output = av_frame_alloc();
        const int pulled = pushed < 0 ? pushed : av_buffersink_get_frame(sink_, output);
        av_frame_free(&input);
        kvffmpeg::rect_size_t size;
        if (pulled >= 0) {
            size = {output->width, output->height};
            const auto format = static_cast<AVPixelFormat>(output->format);
            const auto bytes = static_cast<std::size_t>(av_image_get_buffer_size(format, size.w, size.h, 1));
            const std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[bytes]);
            std::uint8_t* planes[4];
            int linesizes[4];
            av_image_fill_arrays(planes, linesizes, copy.get(), format, size.w, size.h, 1);
            av_image_copy(planes, linesizes, const_cast<const std::uint8_t**>(output->data), output->linesize,
                          format, size.w, size.h);
            benchmark::DoNotOptimize(copy.get());
            benchmark::ClobberMemory();
        }
        av_frame_free(&output);
        return size;
    }

private:
    AVFilterGraph* graph_ = nullptr;
    AVFilterContext* source_ = nullptr;
    AVFilterContext* sink_ = nullptr;
    bool isGood_ = false;
};

void filterBesidePlainCalls(benchmark::State& state, const std::string& spec, kvffmpeg::rect_size_t size) {
    kvffmpeg::Frame frame(makePicture(size), kvffmpeg::Timestamp(0));
    kvffmpeg::FFmpegFilterWrapper wrapper;
    wrapper.setFilterSpec(spec);
    wrapper.processFrame(frame);  // FFmpeg 3 knows its filters only now
    PlainGraph plainGraph(spec, size);
    if (!plainGraph.isGood()) {
        state.SkipWithError("the plain graph cannot be built");
        return;
    }
    double library = std::numeric_limits<double>::max();
    double plain = library;
    std::int64_t time = 0;
    bool libraryFirst = false;
    for (auto unused : state) {
        static_cast<void>(unused);
        libraryFirst = !libraryFirst;
        for (const bool runsLibrary : {libraryFirst, !libraryFirst}) {
            const double start = processorMicroseconds();
            for (int i = 0; i < picturesPerRound; ++i) {
                kvffmpeg::rect_size_t result;
                if (runsLibrary) {
                    frame.setPTS(kvffmpeg::Timestamp(++time));
                    const kvffmpeg::Frame filtered = wrapper.processFrame(frame);
                    benchmark::DoNotOptimize(filtered.picture().getPlanes()[0]);
                    benchmark::ClobberMemory();
                    result = filtered.picture().size();
                } else {
                    result = plainGraph.filter(frame.picture(), ++time);
                }
                if (result != size) state.SkipWithError("the picture is not filtered");
            }
            double& least = runsLibrary ? library : plain;
            least = std::min(least, (processorMicroseconds() - start) / picturesPerRound);
        }
    }
    state.counters["plain_us"] = plain;
    state.counters["library_us"] = library;
    state.counters["overhead_percent"] = (library / plain - 1) * 100;
}

const bool registered = [] {
    for (const kvffmpeg::rect_size_t size : {kvffmpeg::rect_size_t{1920, 1080}, {320, 240}}) {
        const std::string name = "filter/null/" + std::to_string(size.w) + "x" + std::to_string(size.h);
        benchmark::RegisterBenchmark(name.c_str(), filterBesidePlainCalls, std::string("null"), size)
            ->Iterations(size.w > 1000 ? 100 : 1000)
            ->Unit(benchmark::kMillisecond);
    }
    return true;
}();

}  // namespace
