// What the library costs on top of libavcodec: every file is decoded by the library and by the plain loop
// that a C program would have, in turns within one iteration, so that whatever else the machine does falls on
// both.
//
// The counters are milliseconds of processor time for the whole file, the least of all rounds, and their
// ratio.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "kvffmpeg/kvffmpeg.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace {

double processorMilliseconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

int decodeWithLibrary(const std::string& path) {
    kvffmpeg::FormatContext input(path);
    input.open();
    input.discardTrackAtIndex(input.tracksNumber() - 1,
                              input.tracksNumber() > 1 ? AVDISCARD_ALL : AVDISCARD_DEFAULT);
    int pictures = 0;
    while (const auto packet = input.readPacket()) {
        if (packet->streamIndex() != 0) continue;
        kvffmpeg::Frame frame = input.decodePacket(packet);
        if (!frame.empty()) ++pictures;
        benchmark::DoNotOptimize(frame.picture().getPlanes()[0]);
    }
    return pictures;
}

/// Reads, decodes without threads, and copies each picture once, into memory of its own.
int decodePlainly(const std::string& path) {
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) != 0) return 0;
    avformat_find_stream_info(input, nullptr);
    if (input->nb_streams > 1) input->streams[input->nb_streams - 1]->discard = AVDISCARD_ALL;
    const AVCodec* codec = avcodec_find_decoder(input->streams[0]->codecpar->codec_id);
    AVCodecContext* decoder = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(decoder, input->streams[0]->codecpar);
    decoder->thread_type = 0;
    avcodec_open2(decoder, codec, nullptr);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    int pictures = 0;
    while (av_read_frame(input, packet) >= 0) {
        if (packet->stream_index == 0 && avcodec_send_packet(decoder, packet) >= 0) {
            while (avcodec_receive_frame(decoder, frame) >= 0) {
                std::uint8_t* planes[4];
                int linesizes[4];
                av_image_alloc(planes, linesizes, frame->width, frame->height,
                               static_cast<AVPixelFormat>(frame->format), 1);
                av_image_copy(planes, linesizes, const_cast<const std::uint8_t**>(frame->data),
                              frame->linesize, static_cast<AVPixelFormat>(frame->format), frame->width,
                              frame->height);
                benchmark::DoNotOptimize(planes[0]);
                av_freep(&planes[0]);
                ++pictures;
            }
        }
        av_packet_unref(packet);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
    avformat_close_input(&input);
    return pictures;
}

void decodeBesidePlainLoop(benchmark::State& state, const std::string& path) {
    double library = std::numeric_limits<double>::max();
    double plain = library;
    int pictures = 0;
    bool libraryFirst = false;
    for (auto unused : state) {
        static_cast<void>(unused);
        libraryFirst = !libraryFirst;
        for (const bool runsLibrary : {libraryFirst, !libraryFirst}) {
            const double start = processorMilliseconds();
            const int count = runsLibrary ? decodeWithLibrary(path) : decodePlainly(path);
            const double taken = processorMilliseconds() - start;
            if (pictures != 0 && count != pictures) state.SkipWithError("the two decode different pictures");
            pictures = count;
            double& least = runsLibrary ? library : plain;
            least = std::min(least, taken);
        }
    }
    state.counters["pictures"] = pictures;
    state.counters["plain_ms"] = plain;
    state.counters["library_ms"] = library;
    state.counters["overhead_percent"] = (library / plain - 1) * 100;
}

const bool registered = [] {
    std::vector<std::string> paths{KVFFMPEG_EXAMPLE_MEDIA "/clip.mp4"};
    const std::string samples = KVFFMPEG_SAMPLE_MEDIA;
    if (!samples.empty()) {
        for (const char* name : {"h264_pyramid.mp4", "h264_bframes_aac.mp4", "mpeg2_mp2.ts", "mpeg4.mp4",
                                 "vp9.webm", "hevc.ts", "h264_fullrange_60fps.mp4"}) {
            paths.push_back(samples + "/" + name);
        }
    }
    for (const std::string& path : paths) {
        benchmark::RegisterBenchmark(("decode/" + std::filesystem::path(path).filename().string()).c_str(),
                                     decodeBesidePlainLoop, path)
            ->Iterations(20)
            ->Unit(benchmark::kMillisecond);
    }
    return true;
}();

}  // namespace
