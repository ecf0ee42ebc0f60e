#include "tracks.h"

#include <stdexcept>
#include <string>

#include "errors.h"

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

Frame nextFrame(Input& input, unsigned int track) {
    while (const std::shared_ptr<Packet> packet = input.readPacket()) {
        // Not every demuxer heeds the request to discard the others.
        if (packet->streamIndex() != track) continue;
        Frame frame = input.context().decodePacket(packet);
        if (!frame.empty()) return frame;
    }
    return Frame();
}

}  // namespace kvffmpeg::tool
