// What the resampler costs on top of libswresample: the same audio goes through both, buffer by buffer, in
// turns within one iteration, so that whatever else the machine does falls on both. The plain side has a
// context with the same options, and allocates a buffer for each call, as the library must.
//
// The counters are microseconds of processor time for one buffer, the least of all rounds, and their ratio;
// and the median of the ratios of the single iterations, which a machine that changes its speed disturbs
// less.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "kvffmpeg/kvffmpeg.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

namespace {

constexpr int buffersPerRound = 50;
constexpr int samplesPerBuffer = 1024;
constexpr int inRate = 44100;
constexpr int outRate = 48000;
constexpr int channels = 2;

double processorMicroseconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

kvffmpeg::AudioBuffer makeBuffer(AVSampleFormat format) {
    kvffmpeg::AudioBuffer buffer(AV_CH_LAYOUT_STEREO, format);
    buffer.setSampleRate(inRate);
    std::vector<std::int16_t> saw(samplesPerBuffer);
    for (std::size_t i = 0; i < saw.size(); ++i) saw[i] = static_cast<std::int16_t>(i * 317 % 20000 - 10000);
    buffer.loadSamples(saw);
    return buffer;
}

class PlainResampler {
public:
    explicit PlainResampler(AVSampleFormat format) : format_(format), context_(swr_alloc()) {
        for (const std::string end : {"in", "out"}) {
            // The option's name since FFmpeg 5.1, and before.
            if (av_opt_set(context_, (end + "_chlayout").c_str(), "stereo", 0) < 0) {
                av_opt_set(context_, (end + "_channel_layout").c_str(), "stereo", 0);
                av_opt_set_int(context_, (end + "_channel_count").c_str(), channels, 0);
            }
            av_opt_set_sample_fmt(context_, (end + "_sample_fmt").c_str(), format, 0);
            av_opt_set_int(context_, (end + "_sample_rate").c_str(), end == "in" ? inRate : outRate, 0);
        }
        av_opt_set_int(context_, "filter_size", 32, 0);
        av_opt_set_int(context_, "phase_shift", 5, 0);
        av_opt_set_double(context_, "cutoff", 1.0, 0);
        isGood_ = swr_init(context_) >= 0;
    }
    ~PlainResampler() { swr_free(&context_); }
    PlainResampler(const PlainResampler&) = delete;
    PlainResampler& operator=(const PlainResampler&) = delete;

    bool isGood() const { return isGood_; }

    /// @returns how many samples came out.
    int resample(const std::uint8_t** from) {
        const auto most = static_cast<int>(
            av_rescale_rnd(swr_get_delay(context_, inRate) + samplesPerBuffer, outRate, inRate, AV_ROUND_UP));
        const int planes = av_sample_fmt_is_planar(format_) != 0 ? channels : 1;
        const auto bytes = static_cast<std::size_t>(
            av_samples_get_buffer_size(nullptr, channels, most, format_, 1) / planes);
        std::unique_ptr<std::uint8_t[]> to[channels];
        std::uint8_t* pointers[channels] = {};
        for (int p = 0; p < planes; ++p) {
            to[p].reset(new std::uint8_t[bytes]);
            pointers[p] = to[p].get();
        }
        const int converted = swr_convert(context_, pointers, most, from, samplesPerBuffer);
        benchmark::DoNotOptimize(pointers[0]);
        benchmark::ClobberMemory();
        return converted;
    }

private:
    AVSampleFormat format_;
    SwrContext* context_;
    bool isGood_ = false;
};

void resampleBesidePlainCalls(benchmark::State& state, AVSampleFormat format) {
    const kvffmpeg::AudioBuffer buffer = makeBuffer(format);
    std::vector<const std::uint8_t*> planes = buffer.getPointersToPlanes();
    kvffmpeg::Resampler resampler;
    PlainResampler plainResampler(format);
    if (!plainResampler.isGood()) {
        state.SkipWithError("the plain context cannot be made");
        return;
    }
    double library = std::numeric_limits<double>::max();
    double plain = library;
    std::int64_t samples[2] = {};
    std::vector<double> ratios;
    bool libraryFirst = false;
    for (auto unused : state) {
        static_cast<void>(unused);
        libraryFirst = !libraryFirst;
        double taken[2] = {};  // by the plain calls, by the library
        for (const bool runsLibrary : {libraryFirst, !libraryFirst}) {
            const double start = processorMicroseconds();
            for (int i = 0; i < buffersPerRound; ++i) {
                if (runsLibrary) {
                    const kvffmpeg::AudioBuffer result =
                        resampler.resample(buffer, outRate, AV_CH_LAYOUT_STEREO, format);
                    benchmark::ClobberMemory();
                    samples[0] += static_cast<std::int64_t>(result.numberOfSamples());
                } else {
                    samples[1] += plainResampler.resample(planes.data());
                }
            }
            taken[runsLibrary ? 1 : 0] = (processorMicroseconds() - start) / buffersPerRound;
        }
        plain = std::min(plain, taken[0]);
        library = std::min(library, taken[1]);
        ratios.push_back(taken[1] / taken[0]);
    }
    if (samples[0] != samples[1]) state.SkipWithError("the two give different numbers of samples");
    state.counters["plain_us"] = plain;
    state.counters["library_us"] = library;
    state.counters["overhead_percent"] = (library / plain - 1) * 100;
    const auto median = ratios.begin() + static_cast<std::ptrdiff_t>(ratios.size() / 2);
    std::nth_element(ratios.begin(), median, ratios.end());
    state.counters["median_overhead_percent"] = (*median - 1) * 100;
}

const bool registered = [] {
    for (const AVSampleFormat format : {AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLTP}) {
        const std::string name = std::string("resample/") + av_get_sample_fmt_name(format);
        benchmark::RegisterBenchmark(name.c_str(), resampleBesidePlainCalls, format)
            ->Iterations(1000)
            ->Unit(benchmark::kMillisecond);
    }
    return true;
}();

}  // namespace
