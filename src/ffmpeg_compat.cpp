#include "ffmpeg_compat.h"

#include <cstring>
#include <limits>
#include <new>

#include "ffmpeg_ptr.h"

extern "C" {
#include <libavcodec/version.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/version.h>
#include <libavformat/version.h>
#include <libavutil/bprint.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libavutil/version.h>
}

// The oldest release that is supported: FFmpeg 3.4.
#if LIBAVUTIL_VERSION_INT < AV_VERSION_INT(55, 78, 100) ||   \
    LIBAVCODEC_VERSION_INT < AV_VERSION_INT(57, 107, 100) || \
    LIBAVFORMAT_VERSION_INT < AV_VERSION_INT(57, 83, 100)
#error "kvffmpeg needs FFmpeg 3.4 or newer"
#endif

// Formats, codecs and filters must be registered by hand: until FFmpeg 4.0.
#define KVFFMPEG_NEED_REGISTRATION (LIBAVFORMAT_VERSION_INT < AV_VERSION_INT(58, 9, 100))
// Sizes of buffers are size_t: FFmpeg 5.0.
#define KVFFMPEG_HAVE_SIZE_T_BUFFERS (LIBAVUTIL_VERSION_MAJOR >= 57)
// AVChannelLayout and the ch_layout members: FFmpeg 5.1.
#define KVFFMPEG_HAVE_CH_LAYOUT (LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 28, 100))
// The channel_layout and channels members: until FFmpeg 6.1.
#define KVFFMPEG_HAVE_CHANNEL_MASKS (LIBAVUTIL_VERSION_MAJOR < 59)
// AVPacket::time_base: FFmpeg 5.0.
#define KVFFMPEG_HAVE_PACKET_TIME_BASE (LIBAVCODEC_VERSION_MAJOR >= 59)
// avcodec_get_supported_config: FFmpeg 7.1. The list in AVCodec is deprecated from then on.
#define KVFFMPEG_HAVE_SUPPORTED_CONFIG (LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100))

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored \
    "-Wdeprecated-declarations"  // keeping the old members filled is this file's task

namespace kvffmpeg::compat {

void registerAll() noexcept {
#if KVFFMPEG_NEED_REGISTRATION
    static const bool once = (av_register_all(), avfilter_register_all(), true);
    (void)once;
#endif
}

#ifdef AV_PIX_FMT_FLAG_PSEUDOPAL
const std::uint64_t pseudoPalFlag = AV_PIX_FMT_FLAG_PSEUDOPAL;
#else
const std::uint64_t pseudoPalFlag = 0;
#endif

AVBufferRef* createBuffer(std::uint8_t* data, std::size_t size,
                          void (*release)(void* opaque, std::uint8_t* data), void* opaque) noexcept {
#if KVFFMPEG_HAVE_SIZE_T_BUFFERS
    return av_buffer_create(data, size, release, opaque, 0);
#else
    if (size > static_cast<std::size_t>(std::numeric_limits<int>::max())) return nullptr;
    return av_buffer_create(data, static_cast<int>(size), release, opaque, 0);
#endif
}

AVPacket blankPacket() noexcept {
    AVPacket packet{};
    packet.pts = AV_NOPTS_VALUE;
    packet.dts = AV_NOPTS_VALUE;
    packet.pos = -1;
#if KVFFMPEG_HAVE_PACKET_TIME_BASE
    packet.time_base = AVRational{0, 1};
#endif
    return packet;
}

int copyPacketDeep(AVPacket& destination, const AVPacket& source) noexcept {
    const AVPacket snapshot = source;  // the source may be the destination
    AVPacket copy = blankPacket();
    int result = av_new_packet(&copy, snapshot.size);
    if (result >= 0) {
        if (snapshot.size > 0 && snapshot.data) {
            std::memcpy(copy.data, snapshot.data, static_cast<std::size_t>(snapshot.size));
        } else if (snapshot.size > 0) {
            std::memset(copy.data, 0, static_cast<std::size_t>(snapshot.size));
        }
        result = av_packet_copy_props(&copy, &snapshot);
        if (result < 0) av_packet_unref(&copy);
    }
    destination = result < 0 ? blankPacket() : copy;
    return result < 0 ? result : 0;
}

int channelsOfLayout(std::uint64_t layout) noexcept {
    return __builtin_popcountll(layout);
}

std::uint64_t defaultChannelLayout(int channels) noexcept {
    static constexpr std::uint64_t layouts[] = {0,
                                                AV_CH_LAYOUT_MONO,
                                                AV_CH_LAYOUT_STEREO,
                                                AV_CH_LAYOUT_2POINT1,
                                                AV_CH_LAYOUT_4POINT0,
                                                AV_CH_LAYOUT_5POINT0_BACK,
                                                AV_CH_LAYOUT_5POINT1_BACK,
                                                AV_CH_LAYOUT_6POINT1,
                                                AV_CH_LAYOUT_7POINT1};
    constexpr std::uint64_t hexadecagonal = 0x18003f737;
    if (channels == 16) return hexadecagonal;
    return channels >= 1 && channels <= 8 ? layouts[channels] : 0;
}

namespace {

#if KVFFMPEG_HAVE_CH_LAYOUT
std::uint64_t maskOf(const AVChannelLayout& layout) noexcept {
    return layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
}

void setMask(AVChannelLayout& layout, std::uint64_t mask) noexcept {
    av_channel_layout_uninit(&layout);
    if (mask != 0) av_channel_layout_from_mask(&layout, mask);
}
#endif

// Frames and codec parameters carry their layout in members of the same names.
template <typename Owner>
std::uint64_t layoutOf(const Owner& owner) noexcept {
    std::uint64_t mask = 0;
#if KVFFMPEG_HAVE_CH_LAYOUT
    mask = maskOf(owner.ch_layout);
#endif
#if KVFFMPEG_HAVE_CHANNEL_MASKS
    // Where both exist, whoever filled the object may know the old members only.
    if (mask == 0) mask = owner.channel_layout;
#endif
    return mask;
}

template <typename Owner>
void setLayoutOf(Owner& owner, std::uint64_t mask) noexcept {
#if KVFFMPEG_HAVE_CH_LAYOUT
    setMask(owner.ch_layout, mask);
#endif
#if KVFFMPEG_HAVE_CHANNEL_MASKS
    owner.channel_layout = mask;
    owner.channels = channelsOfLayout(mask);
#endif
}

}  // namespace

std::string describeChannelLayout(std::uint64_t layout) {
    AVBPrint print;
    av_bprint_init(&print, 0, AV_BPRINT_SIZE_AUTOMATIC);
#if KVFFMPEG_HAVE_CH_LAYOUT
    AVChannelLayout described{};
    setMask(described, layout);
    av_channel_layout_describe_bprint(&described, &print);
    av_channel_layout_uninit(&described);
#else
    av_bprint_channel_layout(&print, channelsOfLayout(layout), layout);
#endif
    char* text = nullptr;
    if (av_bprint_finalize(&print, &text) < 0 || !text) return std::string();
    const std::unique_ptr<char, FreeWith<av_freep>> owner(text);
    return std::string(text);
}

std::uint64_t channelLayout(const AVFrame& frame) noexcept {
    return layoutOf(frame);
}
void setChannelLayout(AVFrame& frame, std::uint64_t layout) noexcept {
    setLayoutOf(frame, layout);
}
std::uint64_t channelLayout(const AVCodecParameters& parameters) noexcept {
    return layoutOf(parameters);
}

int channelCount(const AVCodecParameters& parameters) noexcept {
    int count = 0;
#if KVFFMPEG_HAVE_CH_LAYOUT
    count = parameters.ch_layout.nb_channels;
#endif
#if KVFFMPEG_HAVE_CHANNEL_MASKS
    if (count == 0) count = parameters.channels;
#endif
    return count;
}

void completeChannelLayout(AVCodecParameters& parameters) noexcept {
    if (parameters.codec_type != AVMEDIA_TYPE_AUDIO || layoutOf(parameters) != 0) return;
    // Without a default layout the object stays as it is: writing 0 would lose the channel count.
    const std::uint64_t mask = defaultChannelLayout(channelCount(parameters));
    if (mask != 0) setLayoutOf(parameters, mask);
}

int channelIndex(const char* name, std::uint64_t layout) noexcept {
    std::uint64_t mask = 0;
#if KVFFMPEG_HAVE_CH_LAYOUT
    // Asked first, as it allocates nothing: without memory the other one says of every name that it is
    // unknown. It takes more texts than names, which are left to the other one.
    const int channel = av_channel_from_string(name);
    char channelName[32] = "";
    if (channel >= 0 && channel < 64) {
        av_channel_name(channelName, sizeof(channelName), static_cast<AVChannel>(channel));
    }
    if (channelName[0] != '\0' && std::strcmp(name, channelName) == 0) {
        mask = std::uint64_t{1} << channel;
    } else {
        AVChannelLayout parsed{};
        // Blanks around names, and channels by number, are taken since this function exists, and were not
        // before.
        const bool isNew = std::strpbrk(name, " \t\n\v\f\r") || std::strncmp(name, "USR", 3) == 0;
        if (*name != '\0' && !isNew && av_channel_layout_from_string(&parsed, name) >= 0)
            mask = maskOf(parsed);
        av_channel_layout_uninit(&parsed);
    }
#else
    mask = av_get_channel_layout(name);
#endif
    if (channelsOfLayout(mask) != 1 || (mask & layout) == 0) return AVERROR(EINVAL);
    return channelsOfLayout(layout & (mask - 1));
}

void setResamplerLayouts(SwrContext* context, std::uint64_t in, std::uint64_t out) noexcept {
#if KVFFMPEG_HAVE_CH_LAYOUT
    // Without a mask the option stays blank, and the context refuses to be initialised.
    AVChannelLayout layout{};
    if (in != 0) {
        setMask(layout, in);
        av_opt_set_chlayout(context, "in_chlayout", &layout, 0);
    }
    if (out != 0) {
        setMask(layout, out);
        av_opt_set_chlayout(context, "out_chlayout", &layout, 0);
    }
    av_channel_layout_uninit(&layout);
#else
    av_opt_set_channel_layout(context, "in_channel_layout", static_cast<std::int64_t>(in), 0);
    av_opt_set_int(context, "in_channel_count", channelsOfLayout(in), 0);
    av_opt_set_channel_layout(context, "out_channel_layout", static_cast<std::int64_t>(out), 0);
    av_opt_set_int(context, "out_channel_count", channelsOfLayout(out), 0);
#endif
}

Decoded decodeVideo(AVCodecContext* decoder, const AVPacket* packet, AVFrame* frame) noexcept {
    const int sent = avcodec_send_packet(decoder, packet);
    // EAGAIN cannot happen, since every call drains the decoder.
    if (sent < 0 && sent != AVERROR_EOF) return Decoded::error;
    const FramePtr dropped(av_frame_alloc());
    if (!dropped) return Decoded::error;
    bool have = false;
    int received = 0;
    while ((received = avcodec_receive_frame(decoder, have ? dropped.get() : frame)) >= 0) have = true;
    if (received != AVERROR(EAGAIN) && received != AVERROR_EOF) return Decoded::error;
    return have ? Decoded::frame : Decoded::nothing;
}

Decoded decodeAudio(AVCodecContext* decoder, const AVPacket* packet, AVFrame* frame) noexcept {
    int sent = avcodec_send_packet(decoder, packet);
    bool have = false;
    if (sent == AVERROR(EAGAIN)) {
        // Frames of an earlier packet are still inside: take one to make room.
        have = avcodec_receive_frame(decoder, frame) >= 0;
        sent = avcodec_send_packet(decoder, packet);
    }
    if (have) return Decoded::frame;
    if (sent < 0) return Decoded::error;
    return avcodec_receive_frame(decoder, frame) < 0 ? Decoded::error : Decoded::frame;
}

std::vector<AVPixelFormat> encoderPixelFormats(const AVCodec* encoder) {
    const AVPixelFormat* formats = nullptr;
#if KVFFMPEG_HAVE_SUPPORTED_CONFIG
    const void* list = nullptr;
    int count = 0;
    if (avcodec_get_supported_config(nullptr, encoder, AV_CODEC_CONFIG_PIX_FORMAT, 0, &list, &count) >= 0) {
        formats = static_cast<const AVPixelFormat*>(list);
    }
#else
    formats = encoder->pix_fmts;
#endif
    std::vector<AVPixelFormat> result;
    for (; formats && *formats != AV_PIX_FMT_NONE; ++formats) {
        const bool limitedJpeg = encoder->id == AV_CODEC_ID_MJPEG && *formats != AV_PIX_FMT_YUVJ420P &&
                                 *formats != AV_PIX_FMT_YUVJ422P && *formats != AV_PIX_FMT_YUVJ444P;
        if (!limitedJpeg) result.push_back(*formats);
    }
    return result;
}

int encodePicture(AVCodecContext* encoder, const AVFrame* frame, AVPacket* packet) noexcept {
    const int sent = avcodec_send_frame(encoder, frame);
    if (sent < 0) return sent;
    const int received = avcodec_receive_packet(encoder, packet);
    return received == AVERROR(EAGAIN) || received == AVERROR_EOF ? 0 : received;
}

}  // namespace kvffmpeg::compat

#pragma GCC diagnostic pop
