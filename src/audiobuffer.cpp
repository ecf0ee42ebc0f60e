#include "kvffmpeg/audiobuffer.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "ffmpeg_compat.h"
#include "text_format.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace kvffmpeg {
namespace {

/// What one sample of one channel is divided by on the way from 16 bits to float.
constexpr float s16ToFloat = 3.0517578e-5F;

void releaseSamples(void* /*opaque*/, std::uint8_t* data) noexcept {
    av_freep(&data);
}

/// Bytes of a frame's first plane that may be read: `wanted` at most.
std::size_t readableBytes(const AVFrame& frame, std::size_t wanted) noexcept {
    std::size_t held = wanted;
    if (frame.linesize[0] > 0) held = std::min(held, static_cast<std::size_t>(frame.linesize[0]));
    const AVBufferRef* buffer = frame.buf[0];
    if (buffer && frame.data[0] >= buffer->data) {
        const auto offset = static_cast<std::size_t>(frame.data[0] - buffer->data);
        const auto size = static_cast<std::size_t>(buffer->size);
        if (offset <= size) held = std::min(held, size - offset);
    }
    return held;
}

[[noreturn]] void throwNoPlane() {
    throw std::out_of_range("AudioBuffer has no planes");
}

}  // namespace

AudioBuffer::AudioBuffer(std::uint64_t channelLayout, AVSampleFormat format)
    : channelLayout_(channelLayout), sampleFormat_(format) {
    createPlanes();
}

int AudioBuffer::numberOfChannels() const noexcept {
    return compat::channelsOfLayout(channelLayout_);
}

std::size_t AudioBuffer::planeCount() const noexcept {
    const int channels = numberOfChannels();
    return channels > 1 && av_sample_fmt_is_planar(sampleFormat_) ? static_cast<std::size_t>(channels) : 1;
}

/// The sample count, as far as every plane has the bytes: a copy may have resized the planes, and a `resize`
/// that throws leaves its count.
std::uint64_t AudioBuffer::readableSamples() const noexcept {
    const int sampleBytes = av_get_bytes_per_sample(sampleFormat_);
    const int channels = numberOfChannels();
    if (!planes_ || planes_->empty() || sampleBytes <= 0 || channels == 0) return 0;
    const bool planar = av_sample_fmt_is_planar(sampleFormat_) != 0;
    const auto stride =
        static_cast<std::uint64_t>(sampleBytes) * static_cast<unsigned>(planar ? 1 : channels);
    if (planes_->size() < planeCount()) return 0;
    std::uint64_t samples = numberOfSamples_;
    for (const MemBuffer& plane : *planes_) samples = std::min<std::uint64_t>(samples, plane.size() / stride);
    return samples;
}

std::vector<std::uint8_t*> AudioBuffer::getPointersToPlanes() {
    std::vector<std::uint8_t*> pointers;
    if (!planes_) return pointers;
    pointers.reserve(planes_->size());
    for (MemBuffer& plane : *planes_) pointers.push_back(plane.data());
    return pointers;
}

std::vector<const std::uint8_t*> AudioBuffer::getPointersToPlanes() const {
    std::vector<const std::uint8_t*> pointers;
    if (!planes_) return pointers;
    pointers.reserve(planes_->size());
    for (MemBuffer& plane : *planes_) pointers.push_back(plane.data());
    return pointers;
}

void AudioBuffer::createPlanes() {
    planes_ = std::make_shared<std::vector<MemBuffer>>(planeCount());
    numberOfSamples_ = 0;
}

std::size_t AudioBuffer::getNeededBufferSize(std::uint64_t samples) const {
    const int bytes =
        av_samples_get_buffer_size(nullptr, numberOfChannels(), static_cast<int>(samples), sampleFormat_, 1);
    if (bytes < 0) {
        throw std::runtime_error(
            formatText("Could not get buffer size for audio layout %d, sample format %d, samples %d",
                       channelLayout_, static_cast<int>(sampleFormat_), samples));
    }
    return static_cast<std::size_t>(bytes);
}

void AudioBuffer::resize(std::uint64_t samples) {
    if (!planes_) createPlanes();
    numberOfSamples_ = samples;
    const std::size_t total = getNeededBufferSize(samples);
    for (MemBuffer& plane : *planes_) plane.resize(total / planes_->size());
}

void AudioBuffer::loadAVFrame(const AVFrame* frame) {
    sampleRate_ = frame->sample_rate;
    sampleFormat_ = static_cast<AVSampleFormat>(frame->format);
    channelLayout_ = compat::channelLayout(*frame);
    planes_.reset();
    resize(static_cast<std::uint64_t>(frame->nb_samples));
    for (MemBuffer& plane : *planes_) {
        const std::size_t copied = frame->data[0] ? readableBytes(*frame, plane.size()) : 0;
        if (copied > 0) std::memcpy(plane.data(), frame->data[0], copied);
        std::memset(plane.data() + copied, 0, plane.size() - copied);
    }
}

void AudioBuffer::fillAVFrame(AVFrame* frame) const {
    const int channels = numberOfChannels();
    const auto samples = static_cast<int>(std::min<std::uint64_t>(readableSamples(), INT_MAX));
    const std::size_t planes = planes_ ? planes_->size() : 0;
    std::vector<std::uint8_t*> pointers(std::max<std::size_t>(planes, AV_NUM_DATA_POINTERS));

    frame->sample_rate = sampleRate_;
    frame->nb_samples = samples;
    frame->format = sampleFormat_;
    compat::setChannelLayout(*frame, channelLayout_);

    int linesize = 0;
    if (samples == 0 || av_samples_alloc(pointers.data(), &linesize, channels, samples, sampleFormat_, 1) < 0)
        return;
    std::uint8_t** extended = frame->data;
    if (planes > AV_NUM_DATA_POINTERS) {
        extended = static_cast<std::uint8_t**>(av_malloc(planes * sizeof(std::uint8_t*)));
    }
    if (extended)
        frame->buf[0] =
            compat::createBuffer(pointers[0], static_cast<std::size_t>(linesize), releaseSamples, nullptr);
    if (!extended || !frame->buf[0]) {
        if (extended != frame->data) av_freep(&extended);
        av_freep(&pointers[0]);
        return;
    }
    for (std::size_t p = 0; p < planes; ++p) {
        std::memcpy(pointers[p], (*planes_)[p].data(),
                    std::min(static_cast<std::size_t>(linesize), (*planes_)[p].size()));
    }
    std::copy_n(pointers.begin(), AV_NUM_DATA_POINTERS, frame->data);
    if (extended != frame->data) std::copy_n(pointers.begin(), planes, extended);
    frame->extended_data = extended;  // the frame frees it when it is not its data array
    frame->linesize[0] = linesize;
}

void AudioBuffer::setSample_s16(const std::vector<std::int16_t>& values, std::uint64_t index) {
    if (!planes_) throwNoPlane();
    MemBuffer& plane = planes_->at(0);
    const std::size_t count = numberOfChannels() == 2 ? 2 : 1;
    const std::size_t slots = plane.size() / sizeof(std::int16_t);
    if (values.size() < count || index >= slots / count) throw std::out_of_range("Index in setSample_s16");
    std::memcpy(plane.data() + index * count * sizeof(std::int16_t), values.data(),
                count * sizeof(std::int16_t));
}

std::vector<std::int16_t> AudioBuffer::getSample_s16(std::uint64_t index) const {
    if (!planes_) throwNoPlane();
    MemBuffer& plane = planes_->at(0);
    const std::size_t count = numberOfChannels() == 2 ? 2 : 1;
    const std::size_t slots = plane.size() / sizeof(std::int16_t);
    if (index >= slots / count) throw std::out_of_range("Index in getSample_s16");
    std::vector<std::int16_t> values(count);
    std::memcpy(values.data(), plane.data() + index * count * sizeof(std::int16_t),
                count * sizeof(std::int16_t));
    return values;
}

void AudioBuffer::loadSamples(const std::vector<std::int16_t>& samples) {
    createPlanes();
    resize(samples.size());
    const auto channels = static_cast<std::size_t>(numberOfChannels());
    const auto count = static_cast<std::size_t>(readableSamples());
    if (sampleFormat_ == AV_SAMPLE_FMT_S16) {
        unsigned char* out = planes_->front().data();
        for (std::size_t slot = 0; slot < count * channels; ++slot) {
            std::memcpy(out + slot * sizeof(std::int16_t), &samples[slot / channels], sizeof(std::int16_t));
        }
    } else if (sampleFormat_ == AV_SAMPLE_FMT_FLTP) {
        for (MemBuffer& plane : *planes_) {
            for (std::size_t i = 0; i < count; ++i) {
                const float value = static_cast<float>(samples[i]) * s16ToFloat;
                std::memcpy(plane.data() + i * sizeof(float), &value, sizeof(float));
            }
        }
    }
}

Timestamp AudioBuffer::duration() const noexcept {
    return Timestamp(static_cast<std::int64_t>(numberOfSamples_), 1, sampleRate_)
        .rescale(Timebase{1, 1000000});
}

bool AudioBuffer::isCompatibleWithBuffer(const AudioBuffer& other) const noexcept {
    return channelLayout_ == other.channelLayout_ && sampleRate_ == other.sampleRate_ &&
           sampleFormat_ == other.sampleFormat_;
}

void AudioBuffer::dumpPlane(std::ofstream& out, int plane) const {
    if (!planes_) throwNoPlane();
    MemBuffer& bytes = planes_->at(static_cast<std::size_t>(plane));
    if (bytes.size() > 0) {
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
}

std::string AudioBuffer::debugDescription() const {
    if (empty()) return "(empty)";
    const char* format = av_get_sample_fmt_name(sampleFormat_);
    return formatText("%d samples %dHz %s %s", static_cast<int>(numberOfSamples_), sampleRate_,
                      compat::describeChannelLayout(channelLayout_), format ? format : "");
}

std::ostream& operator<<(std::ostream& out, const AudioBuffer& buffer) {
    return out << buffer.debugDescription();
}

}  // namespace kvffmpeg
