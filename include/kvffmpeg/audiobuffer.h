#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "kvffmpeg/export.h"
#include "kvffmpeg/memory.h"
#include "kvffmpeg/timestamp.h"

/// \file
/// Samples that copies share.

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

namespace kvffmpeg {

/// Audio samples with their sample format, channel layout and rate, stored plane by plane.
///
/// There is one plane per channel for planar formats with more than one channel, and one plane otherwise.
/// Copies share the planes, but each has its own sample count; whatever reads samples stops at what the
/// planes hold. One thread at a time may use a buffer and the copies that share its planes.
class KVFFMPEG_EXPORT AudioBuffer {
public:
    /// Empty: layout 0, AV_SAMPLE_FMT_NONE, rate 0, no planes.
    AudioBuffer() noexcept = default;
    /// Planes without samples, rate 0. `channelLayout` is a mask of FFmpeg's AV_CH_... bits.
    AudioBuffer(std::uint64_t channelLayout, AVSampleFormat format);

    bool empty() const noexcept { return planes_ == nullptr; }     ///< True without planes; not "no samples".
    void setSampleRate(int rate) noexcept { sampleRate_ = rate; }  ///< In Hz. Changes no sample.
    int sampleRate() const noexcept { return sampleRate_; }        ///< In Hz.
    std::uint64_t channelLayout() const noexcept { return channelLayout_; }      ///< Mask of AV_CH_... bits.
    AVSampleFormat sampleFormat() const noexcept { return sampleFormat_; }       ///< Packed or planar.
    int numberOfChannels() const noexcept;                                       ///< Bits in the layout.
    std::uint64_t numberOfSamples() const noexcept { return numberOfSamples_; }  ///< Per channel.
    /// `numberOfSamples()`, as far as every plane holds them: how many samples per channel may be read.
    std::uint64_t readableSamples() const noexcept;
    /// The first byte of each plane, in plane order (null in a plane without bytes); empty without planes.
    /// Good until the planes are replaced or resized.
    std::vector<std::uint8_t*> getPointersToPlanes();
    std::vector<const std::uint8_t*> getPointersToPlanes() const;  ///< The same, to be read.

    /// Replaces the planes with new ones without bytes, and sets the number of samples to 0.
    void createPlanes();
    /// The bytes of all planes together for `samples` samples per channel, which FFmpeg takes as an `int`.
    /// @throws std::runtime_error "Could not get buffer size for audio layout %d, sample format %d, samples
    /// %d" for 0 samples, no channels or no sample format.
    std::size_t getNeededBufferSize(std::uint64_t samples) const;
    /// Makes room for `samples` samples per channel in every plane; new samples are not initialised. Seen by
    /// every copy that shares the planes, except for the count.
    /// @throws what `getNeededBufferSize` throws, and std::bad_alloc; the *new count is stored* all the same.
    void resize(std::uint64_t samples);

    /// Takes rate, format, layout and samples from an audio frame, into new planes. Every plane is filled
    /// from `data[0]`: a planar frame gives planes that all hold its first channel. Reads no more than the
    /// frame holds; what is missing is zero.
    /// @throws what `resize` throws, for example for a frame without samples or without a layout.
    void loadAVFrame(const AVFrame* frame);
    /// Fills a blank frame with a copy of the samples and with rate, layout, channel count and format.
    /// Without samples, or if memory runs out in FFmpeg, the frame gets no data.
    void fillAVFrame(AVFrame* frame) const;

    /// Writes one sample of packed AV_SAMPLE_FMT_S16 audio (the format is not checked): with exactly 2
    /// channels `values[0]` and `values[1]`, otherwise `values[0]` at position `index` of the plane.
    /// @throws std::out_of_range without planes, beyond the plane, and for too few values.
    void setSample_s16(const std::vector<std::int16_t>& values, std::uint64_t index);
    /// Reads one sample of packed AV_SAMPLE_FMT_S16 audio (not checked): two values with exactly 2 channels,
    /// otherwise the one at position `index` of the plane.
    /// @throws std::out_of_range without planes and beyond the plane.
    std::vector<std::int16_t> getSample_s16(std::uint64_t index) const;
    /// Replaces the content by a mono sequence, given to every channel. Written for packed AV_SAMPLE_FMT_S16,
    /// and for planar AV_SAMPLE_FMT_FLTP as value / 32768; in other formats the samples are not initialised.
    /// @throws what `resize` throws; an empty sequence does.
    void loadSamples(const std::vector<std::int16_t>& samples);

    /// Samples / rate in microseconds. With a rate of 0 or less the value is INT64_MIN.
    Timestamp duration() const noexcept;
    /// Equal layout, rate and format.
    bool isCompatibleWithBuffer(const AudioBuffer& other) const noexcept;
    /// Writes all bytes of a plane.
    /// @throws std::out_of_range when there is no such plane.
    void dumpPlane(std::ofstream& out, int plane) const;
    /// "(empty)", or samples, rate, layout and format: "1024 samples 48000Hz stereo fltp".
    std::string debugDescription() const;

private:
    std::size_t planeCount() const noexcept;

    std::uint64_t channelLayout_ = 0;
    AVSampleFormat sampleFormat_ = AV_SAMPLE_FMT_NONE;
    std::uint64_t numberOfSamples_ = 0;
    int sampleRate_ = 0;
    std::shared_ptr<std::vector<MemBuffer>> planes_;
};

/// Writes `debugDescription()`.
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, const AudioBuffer& buffer);

}  // namespace kvffmpeg
