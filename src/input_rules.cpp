#include "input_rules.h"

#include <cstdlib>
#include <cstring>

#include "ffmpeg_compat.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
}

namespace kvffmpeg {
namespace {

constexpr AVRational microseconds{1, 1000000};

/// Wraps around at 64 bits.
std::int64_t shifted(std::int64_t time, std::int64_t origin) noexcept {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(time) + static_cast<std::uint64_t>(origin));
}

bool equal(AVRational a, AVRational b) noexcept {
    return a.num == b.num && a.den == b.den;
}

}  // namespace

std::int64_t timeOriginOf(const AVFormatContext& input, std::int64_t previous) noexcept {
    const std::int64_t realTime = input.start_time_realtime;
    if ((realTime & INT64_MAX) != 0) return realTime;  // neither 0 nor AV_NOPTS_VALUE
    const AVDictionaryEntry* entry = av_dict_get(input.metadata, "timeorigin", nullptr, 0);
    if (!entry) return previous;
    return entry->value ? std::strtoll(entry->value, nullptr, 10) : 0;
}

void rebasePacket(AVPacket& packet, AVRational timeBase, std::int64_t origin) noexcept {
    for (std::int64_t* time : {&packet.pts, &packet.dts}) {
        if (*time != AV_NOPTS_VALUE) *time = av_rescale_q(*time, timeBase, microseconds);
        if (*time != AV_NOPTS_VALUE) *time = shifted(*time, origin);
    }
    if (packet.pts == AV_NOPTS_VALUE) packet.pts = packet.dts;
    if (packet.dts == AV_NOPTS_VALUE) packet.dts = packet.pts;
    if (packet.duration != 0) {
        // Narrowed to 32 bits on purpose: longer durations wrap.
        packet.duration = static_cast<std::int32_t>(av_rescale_q(packet.duration, timeBase, microseconds));
    }
}

bool isH264KeyFrame(const std::uint8_t* data, int size) noexcept {
    constexpr unsigned sawSps = 1;
    constexpr unsigned sawPps = 2;
    constexpr unsigned sawIdr = 4;
    unsigned state = 0;
    for (int cursor = 0; cursor + 3 < size;) {
        // A third byte that is not 0 is in no later start code, which would have it first or second.
        if (data[cursor + 2] == 0) {
            ++cursor;
            continue;
        }
        if (data[cursor + 2] != 1 || data[cursor] != 0 || data[cursor + 1] != 0) {
            cursor += 3;
            continue;
        }
        const int type = data[cursor + 3] & 0x1f;
        if (type == 7) state |= sawSps;
        if (type == 8 && state == sawSps) state |= sawPps;
        if (type == 5 && (state & sawPps) != 0) state |= sawIdr;
        if (state == (sawSps | sawPps | sawIdr)) return true;
        cursor += 4;
    }
    return false;
}

AVPixelFormat withoutFullRange(AVPixelFormat format) noexcept {
    switch (format) {
        case AV_PIX_FMT_YUVJ420P:
            return AV_PIX_FMT_YUV420P;
        case AV_PIX_FMT_YUVJ422P:
            return AV_PIX_FMT_YUV422P;
        case AV_PIX_FMT_YUVJ444P:
            return AV_PIX_FMT_YUV444P;
        case AV_PIX_FMT_YUVJ440P:
            return AV_PIX_FMT_YUV440P;
        case AV_PIX_FMT_YUVJ411P:
            return AV_PIX_FMT_YUV411P;
        default:
            return format;
    }
}

namespace {

/// As bytes: demuxers copy numbers of the file into enumerations, and to read one that no enumerator can have
/// is undefined.
template <typename Enumeration>
bool equalNumbers(const Enumeration& a, const Enumeration& b) noexcept {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

bool sameDecoding(const AVCodecParameters& a, const AVCodecParameters& b) noexcept {
    if (a.codec_type != b.codec_type || a.codec_id != b.codec_id || a.codec_tag != b.codec_tag ||
        a.format != b.format || a.bits_per_coded_sample != b.bits_per_coded_sample ||
        a.bits_per_raw_sample != b.bits_per_raw_sample || a.profile != b.profile || a.level != b.level) {
        return false;
    }
    if (a.codec_type == AVMEDIA_TYPE_VIDEO &&
        (a.width != b.width || a.height != b.height || !equal(a.sample_aspect_ratio, b.sample_aspect_ratio) ||
         !equalNumbers(a.field_order, b.field_order) || !equalNumbers(a.color_range, b.color_range) ||
         !equalNumbers(a.color_primaries, b.color_primaries) || !equalNumbers(a.color_trc, b.color_trc) ||
         !equalNumbers(a.color_space, b.color_space) || !equalNumbers(a.chroma_location, b.chroma_location) ||
         a.video_delay != b.video_delay)) {
        return false;
    }
    if (a.codec_type == AVMEDIA_TYPE_AUDIO &&
        (compat::channelLayout(a) != compat::channelLayout(b) ||
         compat::channelCount(a) != compat::channelCount(b) || a.sample_rate != b.sample_rate ||
         a.block_align != b.block_align || a.frame_size != b.frame_size ||
         a.initial_padding != b.initial_padding || a.trailing_padding != b.trailing_padding ||
         a.seek_preroll != b.seek_preroll)) {
        return false;
    }
    if (a.extradata_size != b.extradata_size || (a.extradata == nullptr) != (b.extradata == nullptr))
        return false;
    return !a.extradata || a.extradata_size <= 0 ||
           std::memcmp(a.extradata, b.extradata, static_cast<std::size_t>(a.extradata_size)) == 0;
}

}  // namespace kvffmpeg
