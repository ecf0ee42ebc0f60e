#pragma once

// Everything in which FFmpeg's releases differ from 3.4 on. No other file names a LIBAV*_VERSION macro or
// calls what one of them lacks; the conditions themselves are in ffmpeg_compat.cpp.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

struct SwrContext;

namespace kvffmpeg::compat {

/// The major number of the FFmpeg release that this is compiled with: 3, 4, ... For tests, to tell by name
/// what FFmpeg itself changed; the library does not depend on it.
constexpr int ffmpegRelease = LIBAVFORMAT_VERSION_MAJOR - 54;

/// Makes demuxers, codecs and filters known to FFmpeg. Needed before the first use of any by FFmpeg 3; cheap
/// after the first call. Any thread.
void registerAll() noexcept;

/// AV_PIX_FMT_FLAG_PSEUDOPAL, the flag of gray and 8-bit RGB formats that carry a palette plane all the same;
/// 0 since FFmpeg 5, which has no such formats.
extern const std::uint64_t pseudoPalFlag;

/// A reference to memory that `release` gives back when the last copy of the reference goes. Null when FFmpeg
/// has no memory for it, and before FFmpeg 5 for a size that no `int` holds.
AVBufferRef* createBuffer(std::uint8_t* data, std::size_t size,
                          void (*release)(void* opaque, std::uint8_t* data), void* opaque) noexcept;

/// A packet without payload, times and side data, as FFmpeg's own initialiser leaves it.
AVPacket blankPacket() noexcept;
/// Overwrites `destination`, *releasing nothing*, with a copy of `source` (which may be `destination`) whose
/// payload is its own: at a new address, followed by zero padding, non-null even for size 0. FFmpeg's own
/// copy shares the payload in some releases.
/// @returns 0, or a negative error code, after which `destination` is blank.
int copyPacketDeep(AVPacket& destination, const AVPacket& source) noexcept;

// Channel layouts, as masks of AV_CH_... bits. 0 stands for layouts that are no mask.
int channelsOfLayout(std::uint64_t layout) noexcept;
/// The layout that FFmpeg 3 gives to so many channels (1 to 8, and 16), 0 for others. Later releases know
/// more.
std::uint64_t defaultChannelLayout(int channels) noexcept;
/// FFmpeg's text for a layout, such as "stereo". @throws std::bad_alloc.
std::string describeChannelLayout(std::uint64_t layout);
std::uint64_t channelLayout(const AVFrame& frame) noexcept;
void setChannelLayout(AVFrame& frame, std::uint64_t layout) noexcept;
std::uint64_t channelLayout(const AVCodecParameters& parameters) noexcept;
int channelCount(const AVCodecParameters& parameters) noexcept;
/// Gives audio parameters that have a channel count but no layout the default layout of that count.
void completeChannelLayout(AVCodecParameters& parameters) noexcept;

/// The place of a channel, named as FFmpeg names it ("FR", "LFE"), in a layout; AVERROR(EINVAL) for a text
/// that names no channel of it, or several.
int channelIndex(const char* name, std::uint64_t layout) noexcept;
/// Sets the options for the layouts of input and output, channel counts included.
void setResamplerLayouts(SwrContext* context, std::uint64_t in, std::uint64_t out) noexcept;

/// What a decoder answered to one packet.
enum class Decoded { frame, nothing, error };
/// Decodes one video packet: the first frame that comes out, further ones of the same packet are dropped.
Decoded decodeVideo(AVCodecContext* decoder, const AVPacket* packet, AVFrame* frame) noexcept;
/// Decodes one audio packet to one frame; frames that the decoder has beyond that come out one per later
/// call.
Decoded decodeAudio(AVCodecContext* decoder, const AVPacket* packet, AVFrame* frame) noexcept;

/// The pixel formats that an encoder takes, in its order; none: any. For MJPEG only the full-range ones,
/// which every JPEG viewer shows right, although encoders since FFmpeg 5 list the others too.
std::vector<AVPixelFormat> encoderPixelFormats(const AVCodec* encoder);
/// Encodes one picture into a blank packet, which stays empty if the encoder gives nothing for it yet.
/// @returns 0 or a negative error code.
int encodePicture(AVCodecContext* encoder, const AVFrame* frame, AVPacket* packet) noexcept;

}  // namespace kvffmpeg::compat
