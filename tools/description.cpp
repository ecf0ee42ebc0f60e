#include "description.h"

#include <optional>
#include <string>

#include "kvffmpeg/packet.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

namespace kvffmpeg::tool {
namespace {

/// FFmpeg's names are null, and its numbers 0 or negative, where it knows nothing.
Json known(const char* text) {
    return text && *text ? Json(text) : Json();
}
Json known(const std::string& text) {
    return known(text.c_str());
}
Json known(std::int64_t number) {
    return number > 0 ? Json(number) : Json();
}

/// Two entries: seconds under `key`, and the exact number of microseconds.
void addTime(Json& target, const std::string& key, const std::optional<Timestamp>& time) {
    const std::optional<Timestamp> exact =
        time ? std::optional<Timestamp>(time->rescale(Timebase{1, 1000000})) : std::nullopt;
    target[key] = exact ? Json(exact->valueInSeconds()) : Json();
    target[key + "_us"] = exact ? Json(exact->value()) : Json();
}

std::optional<Timestamp> knownTime(std::int64_t value, AVRational timeBase) {
    if (value == AV_NOPTS_VALUE) return std::nullopt;
    return Timestamp(value, Timebase::fromAVRational(timeBase));
}

Json metadataOf(const AVDictionary* dictionary) {
    Json result = Json::object();
    for (const auto& [key, value] : Metadata(dictionary)) result[key] = value;
    return result;
}

Json metadataValue(const AVDictionary* dictionary, const char* key) {
    const AVDictionaryEntry* entry = av_dict_get(dictionary, key, nullptr, 0);
    return entry ? known(entry->value) : Json();
}

void addVideo(Json& target, const AVStream& track) {
    const AVCodecParameters& parameters = *track.codecpar;
    target["width"] = known(parameters.width);
    target["height"] = known(parameters.height);
    target["pixel_format"] = known(av_get_pix_fmt_name(static_cast<AVPixelFormat>(parameters.format)));
    target["color_range"] = parameters.color_range == AVCOL_RANGE_UNSPECIFIED
                                ? Json()
                                : known(av_color_range_name(parameters.color_range));
    const std::optional<AVRational> rate = frameRate(track);
    target["frame_rate"] = rate ? Json(av_q2d(*rate)) : Json();
    target["frame_rate_fraction"] =
        rate ? Json(std::to_string(rate->num) + "/" + std::to_string(rate->den)) : Json();
    target["attached_picture"] = (track.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

void addAudio(Json& target, const FormatContext& context, unsigned int index) {
    const AVCodecParameters& parameters = *context.trackAtIndex(index)->codecpar;
    target["sample_rate"] = known(parameters.sample_rate);
    target["channels"] = known(context.channelsAtIndex(index));
    target["channel_layout"] = known(context.channelLayoutAtIndex(index));
    target["sample_format"] = known(av_get_sample_fmt_name(static_cast<AVSampleFormat>(parameters.format)));
}

Json describeTrack(const FormatContext& context, unsigned int index) {
    const AVStream& track = *context.trackAtIndex(index);
    const AVCodecParameters& parameters = *track.codecpar;
    Json result;
    result["index"] = index;
    result["type"] = known(av_get_media_type_string(parameters.codec_type));
    result["codec"] =
        parameters.codec_id == AV_CODEC_ID_NONE ? Json() : known(avcodec_get_name(parameters.codec_id));
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) addVideo(result, track);
    if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) addAudio(result, context, index);
    result["bit_rate"] = known(parameters.bit_rate);
    addTime(result, "duration", knownTime(track.duration, track.time_base));
    result["default"] = (track.disposition & AV_DISPOSITION_DEFAULT) != 0;
    result["language"] = metadataValue(track.metadata, "language");
    result["title"] = metadataValue(track.metadata, "title");
    result["metadata"] = metadataOf(track.metadata);
    return result;
}

void addCount(Json& track, const PacketCount& count) {
    track["packets"] = count.packets;
    track["key_frames"] = count.keyFrames;
}

}  // namespace

Json describe(const Input& input, const std::vector<PacketCount>* counts) {
    const AVFormatContext& container = *input.context().getAVFormatContext();
    Json result;
    result["input"] = input.name();
    result["format"] = known(container.iformat->name);
    result["format_description"] = known(container.iformat->long_name);
    addTime(result, "duration", knownTime(container.duration, AVRational{1, AV_TIME_BASE}));
    addTime(result, "start", input.containerStart());
    addTime(result, "time_origin", input.timeOrigin());
    result["bit_rate"] = known(container.bit_rate);
    result["streamed"] = input.context().isStreamed();
    result["metadata"] = metadataOf(container.metadata);
    result["tracks"] = Json::array();
    for (unsigned int i = 0; i < input.context().tracksNumber(); ++i) {
        Json track = describeTrack(input.context(), i);
        if (counts) addCount(track, i < counts->size() ? (*counts)[i] : PacketCount());
        result["tracks"].push_back(std::move(track));
    }
    return result;
}

}  // namespace kvffmpeg::tool
