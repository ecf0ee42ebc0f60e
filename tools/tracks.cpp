#include "tracks.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "console.h"
#include "errors.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace kvffmpeg::tool {
namespace {

bool isOfType(const AVStream* track, AVMediaType type) {
    return track && track->codecpar->codec_type == type;
}

bool isAttachedPicture(const AVStream& track) {
    return (track.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

unsigned int defaultTrack(const Input& input, AVMediaType type) {
    std::optional<unsigned int> cover;
    for (unsigned int i = 0; i < input.context().tracksNumber(); ++i) {
        const AVStream* track = input.context().trackAtIndex(i);
        if (!isOfType(track, type)) continue;
        if (!isAttachedPicture(*track)) return i;
        if (!cover) cover = i;
    }
    if (!cover) {
        throw std::runtime_error(input.name() + ": There is no " + av_get_media_type_string(type) + " in it");
    }
    return *cover;
}

/// The longest that a picture can be shown after it was decoded. Containers are searched by decoding time.
Timestamp reorderingDelay(const AVStream& track) {
    constexpr int mostReordered = 16;  // pictures; the limit of H.264 and HEVC
    const std::optional<AVRational> rate = frameRate(track);
    if (!rate) return Timestamp(1000000);
    return Timestamp(av_rescale(mostReordered * std::int64_t{1000000}, rate->den, rate->num));
}

}  // namespace

unsigned int chooseTrack(const Input& input, AVMediaType type, const std::optional<unsigned int>& wanted) {
    if (!wanted) return defaultTrack(input, type);
    if (!isOfType(input.context().trackAtIndex(*wanted), type)) {
        throw UsageError("--track " + std::to_string(*wanted) + ": There is no such " +
                         av_get_media_type_string(type) + " track in " + input.name());
    }
    return *wanted;
}

void discardOthers(FormatContext& context, unsigned int track) {
    for (unsigned int i = 0; i < context.tracksNumber(); ++i) {
        if (i != track) context.discardTrackAtIndex(i, AVDISCARD_ALL);
    }
}

bool seekBefore(Input& input, unsigned int track, Timestamp target) {
    if (input.context().isStreamed()) return false;
    const Timestamp safe = target - reorderingDelay(*input.context().trackAtIndex(track));
    if (input.seek(std::max(safe, input.start()))) return true;
    throwIfInterrupted();
    input.reopen();
    discardOthers(input.context(), track);
    return false;
}

Frame nextFrame(Input& input, unsigned int track) {
    while (const std::shared_ptr<Packet> packet = input.readPacket()) {
        // Not every demuxer heeds the request to discard the others.
        if (packet->streamIndex() != track) continue;
        Frame frame = input.context().decodePacket(packet);
        if (!frame.empty()) return frame;
    }
    return Frame();
}

bool hasTime(const Frame& frame) {
    return !frame.PTS().is_nil() && frame.PTS().value() != AV_NOPTS_VALUE;
}

std::optional<double> shareBefore(const Input& input, const Frame& frame, Timestamp from) {
    const std::optional<Timestamp> duration = input.duration();
    if (!duration || !hasTime(frame)) return std::nullopt;
    const double all = (*duration - from).valueInSeconds();
    const double before = (frame.PTS() - input.start() - from).valueInSeconds();
    return all > 0 && before >= 0 ? std::optional<double>(before / all) : std::nullopt;
}

std::string positionText(const Input& input, const Frame& frame, const std::string& unknown) {
    return hasTime(frame) ? clockText(frame.PTS() - input.start()) : unknown;
}

}  // namespace kvffmpeg::tool
