#pragma once

// The rules by which FormatContext treats what libavformat hands it, apart from the object so that each can
// be tested on records made by hand.

#include <cstdint>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kvffmpeg {

/// The time origin of an open input in microseconds: its real start time, or its metadata "timeorigin", or,
/// without either, `previous`.
std::int64_t timeOriginOf(const AVFormatContext& input, std::int64_t previous) noexcept;

/// Brings the times of a packet, in ticks of `timeBase`, to microseconds that start at `origin`, and gives an
/// unknown pts or dts the value of the other.
void rebasePacket(AVPacket& packet, AVRational timeBase, std::int64_t origin) noexcept;

/// True when SPS, PPS and IDR slice follow one another behind Annex B start codes. Linear; reads `size` bytes
/// at most.
bool isH264KeyFrame(const std::uint8_t* data, int size) noexcept;

/// The format with the same planes in which full range is not meant by the format itself.
AVPixelFormat withoutFullRange(AVPixelFormat format) noexcept;

/// True when a decoder that was opened for the one can go on with the other. The bit rate may differ.
bool sameDecoding(const AVCodecParameters& a, const AVCodecParameters& b) noexcept;

}  // namespace kvffmpeg
