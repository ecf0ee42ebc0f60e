#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kvffmpeg/audiobuffer.h"
#include "kvffmpeg/export.h"
#include "kvffmpeg/timestamp.h"

/// \file
/// Conversion of sound between rates, layouts and formats.

namespace kvffmpeg {

/// Converts audio to another rate, channel layout and sample format with libswresample, and reorders or
/// silences channels by a map. Keeps its context between calls, so that a stream of buffers is resampled
/// without a seam: samples that one call holds back come first in the next one's result. One thread at a time
/// may use a resampler; neither copied nor moved.
class KVFFMPEG_EXPORT Resampler {
public:
    Resampler();   ///< Without a channel map.
    ~Resampler();  ///< What is held back is lost.
    Resampler(const Resampler&) = delete;
    Resampler& operator=(const Resampler&) = delete;

    /// `input` at `outRate` Hz in `outLayout` (a mask of AV_CH_... bits) and `outFormat`, as far as its
    /// samples come out in this call. When the input's or the output's rate, layout or format differ from the
    /// last call's, the context is made anew, and what it held back is lost (`flush` it first).
    /// @throws std::runtime_error, with the text of `AudioBuffer::resize`, when no sample came out: the input
    /// stays inside and comes out later, unless the conversion itself is not possible (a rate of 0 or less,
    /// an unknown format or layout).
    AudioBuffer resample(const AudioBuffer& input, int outRate, std::uint64_t outLayout,
                         AVSampleFormat outFormat);
    /// `resample` to the input's own rate, layout and format: only the channel map acts.
    AudioBuffer remap(const AudioBuffer& input);
    /// What is held back, at the end of a stream; an empty buffer when there is nothing. The next `resample`
    /// starts afresh.
    /// @throws std::bad_alloc.
    AudioBuffer flush();

    /// Which input channel feeds which output channel, as FFmpeg channel names separated by "|": with "FR|FL"
    /// the first output channel is the right one of the input. A name stands for its place in the default
    /// layout of as many channels as there are names; one that is unknown, or not in that layout, silences
    /// its output channel, as does a place that the input does not have. Starts afresh: what is held back is
    /// lost.
    /// @throws std::runtime_error "Too many channels in channel map" for more than 8 names, after which there
    /// is no map.
    void setChannelMapping(const std::string& map);
    /// Stretches (positive) or squeezes the output by `sampleDelta` samples over the next
    /// `compensationDistance` output samples, to follow a drifting clock. Ignored before the first
    /// `resample`, and unless -compensationDistance <= sampleDelta < compensationDistance: libswresample
    /// fails on more.
    void setCompensation(int sampleDelta, int compensationDistance) noexcept;
    /// How much is held back, in microseconds; 0 before the first `resample`.
    Timestamp getDelay() const noexcept;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kvffmpeg
