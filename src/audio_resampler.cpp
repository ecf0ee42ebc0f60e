#include "kvffmpeg/audio_resampler.h"

#include <algorithm>
#include <array>
#include <boost/algorithm/string/split.hpp>
#include <climits>
#include <cstddef>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "ffmpeg_compat.h"
#include "ffmpeg_ptr.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace kvffmpeg {
namespace {

constexpr std::size_t mapEntries = 8;
constexpr std::size_t mostChannels = 64;  // bits of a layout
constexpr int notMapped = -1;
constexpr int filterSize = 32;

using SwrPtr = std::unique_ptr<SwrContext, FreeWith<swr_free>>;

/// What a context is made for.
struct Conversion {
    std::uint64_t inLayout = 0;
    AVSampleFormat inFormat = AV_SAMPLE_FMT_NONE;
    int inRate = 0;
    std::uint64_t outLayout = 0;
    AVSampleFormat outFormat = AV_SAMPLE_FMT_NONE;
    int outRate = 0;

    bool operator==(const Conversion& other) const noexcept {
        return inLayout == other.inLayout && inFormat == other.inFormat && inRate == other.inRate &&
               outLayout == other.outLayout && outFormat == other.outFormat && outRate == other.outRate;
    }
};

AudioBuffer outputBuffer(const Conversion& conversion) {
    AudioBuffer buffer(conversion.outLayout, conversion.outFormat);
    buffer.setSampleRate(conversion.outRate);
    return buffer;
}

int clampToInt(std::uint64_t value) noexcept {
    return static_cast<int>(std::min<std::uint64_t>(value, INT_MAX));
}

}  // namespace

struct Resampler::State {
    Conversion conversion;  // of the context
    std::array<int, mapEntries> map{};
    // libswresample keeps a pointer to this and reads an entry for every input channel, so it is longer than
    // the map, and stays where it is while the context lives.
    std::array<int, mostChannels> handedMap{};
    SwrPtr context;
    bool gaveSamples = false;  // since the context was made

    State() noexcept { map.fill(notMapped); }

    void makeContext(const Conversion& wanted) {
        context.reset(swr_alloc());
        conversion = wanted;
        gaveSamples = false;
        SwrContext* swr = context.get();
        if (!swr) return;  // swr_convert refuses it
        compat::setResamplerLayouts(swr, wanted.inLayout, wanted.outLayout);
        av_opt_set_sample_fmt(swr, "in_sample_fmt", wanted.inFormat, 0);
        av_opt_set_int(swr, "in_sample_rate", wanted.inRate, 0);
        av_opt_set_sample_fmt(swr, "out_sample_fmt", wanted.outFormat, 0);
        av_opt_set_int(swr, "out_sample_rate", wanted.outRate, 0);
        av_opt_set_int(swr, "filter_size", filterSize, 0);
        av_opt_set_int(swr, "phase_shift", 5, 0);
        av_opt_set_double(swr, "cutoff", 1.0, 0);
        if (std::any_of(map.begin(), map.end(), [](int entry) { return entry != notMapped; })) {
            handMap(compat::channelsOfLayout(wanted.inLayout));
            swr_set_channel_mapping(swr, handedMap.data());
        }
        swr_init(swr);
    }

    /// The map, without entries at which libswresample would read channels that the input does not have.
    void handMap(int channels) noexcept {
        handedMap.fill(notMapped);
        std::transform(map.begin(), map.end(), handedMap.begin(),
                       [channels](int entry) { return entry < channels ? entry : notMapped; });
    }
};

Resampler::Resampler() : state_(std::make_unique<State>()) {}
Resampler::~Resampler() = default;

AudioBuffer Resampler::resample(const AudioBuffer& input, int outRate, std::uint64_t outLayout,
                                AVSampleFormat outFormat) {
    const Conversion wanted{
        input.channelLayout(), input.sampleFormat(), input.sampleRate(), outLayout, outFormat, outRate};
    AudioBuffer result = outputBuffer(wanted);
    // libswresample divides by the rates.
    if (wanted.inRate <= 0 || wanted.outRate <= 0) result.resize(0);

    if (!state_->context || !(state_->conversion == wanted)) state_->makeContext(wanted);
    SwrContext* swr = state_->context.get();
    if (!swr) throw std::bad_alloc();
    const std::uint64_t samples = input.readableSamples();
    const std::int64_t waiting = swr_get_delay(swr, wanted.inRate) + static_cast<std::int64_t>(samples);
    const std::int64_t most = av_rescale_rnd(waiting, wanted.outRate, wanted.inRate, AV_ROUND_UP);
    result.resize(static_cast<std::uint64_t>(static_cast<int>(most)));

    std::vector<const std::uint8_t*> from = input.getPointersToPlanes();
    // libswresample reads a pointer for every channel, and takes no array at all for the end of the stream;
    // a buffer that was moved from has a layout and no planes.
    from.resize(mostChannels);
    std::vector<std::uint8_t*> to = result.getPointersToPlanes();
    const int converted =
        swr_convert(swr, to.data(), clampToInt(result.numberOfSamples()), from.data(), clampToInt(samples));
    if (converted > 0) state_->gaveSamples = true;
    result.resize(static_cast<std::uint64_t>(converted));
    return result;
}

AudioBuffer Resampler::remap(const AudioBuffer& input) {
    return resample(input, input.sampleRate(), input.channelLayout(), input.sampleFormat());
}

AudioBuffer Resampler::flush() {
    // A context that was flushed does not go on without a seam, so it ends here, whatever happens.
    const SwrPtr swr = std::move(state_->context);
    if (!swr) return AudioBuffer();
    const Conversion& conversion = state_->conversion;
    const std::int64_t inside = swr_get_delay(swr.get(), conversion.outRate);
    std::int64_t most = inside;
    if (state_->gaveSamples) {
        // How much the end of a stream may give beyond that.
        constexpr std::int64_t filterReach = 256;
        most = std::max<std::int64_t>(inside, 0) + filterReach;
    } else if (inside > 0) {
        // Until it had as many samples as its filter is long libswresample gives none, and at the end of a
        // stream none or too few. Silence makes up for the missing ones.
        const std::int64_t ratio = conversion.inRate / conversion.outRate + 1;
        swr_inject_silence(swr.get(), clampToInt(static_cast<std::uint64_t>((filterSize + 1) * ratio)));
    } else {
        return AudioBuffer();
    }
    AudioBuffer result = outputBuffer(conversion);
    result.resize(static_cast<std::uint64_t>(most));
    std::vector<std::uint8_t*> to = result.getPointersToPlanes();
    const int converted = swr_convert(swr.get(), to.data(), clampToInt(result.numberOfSamples()), nullptr, 0);
    if (converted <= 0) return AudioBuffer();
    result.resize(static_cast<std::uint64_t>(converted));
    return result;
}

void Resampler::setChannelMapping(const std::string& map) {
    state_->context.reset();
    state_->map.fill(notMapped);
    std::vector<std::string> names;
    boost::algorithm::split(names, map, [](char c) { return c == '|'; });
    if (names.size() > mapEntries) throw std::runtime_error("Too many channels in channel map");
    const std::uint64_t reference = compat::defaultChannelLayout(static_cast<int>(names.size()));
    std::transform(names.begin(), names.end(), state_->map.begin(), [reference](const std::string& name) {
        return compat::channelIndex(name.c_str(), reference);
    });
}

void Resampler::setCompensation(int sampleDelta, int compensationDistance) noexcept {
    if (!state_->context) return;
    // libswresample steps through the input by a share of 1 - delta / distance, unchecked: it would divide by
    // a step of 0, or walk backwards, and with a step of more than 2 its numbers may overflow.
    const bool possible = compensationDistance <= 0 ||
                          (sampleDelta < compensationDistance && sampleDelta >= -compensationDistance);
    if (possible) swr_set_compensation(state_->context.get(), sampleDelta, compensationDistance);
}

Timestamp Resampler::getDelay() const noexcept {
    return Timestamp(state_->context ? swr_get_delay(state_->context.get(), 1000000) : 0);
}

}  // namespace kvffmpeg
