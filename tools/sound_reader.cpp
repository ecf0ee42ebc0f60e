#include "sound_reader.h"

#include <logger/logger.h>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kvffmpeg::tool {

SoundReader::SoundReader(Input& input, unsigned int track)
    : input_(input),
      track_(track),
      decoder_(input.context().getCodecContext(track)),
      frame_(av_frame_alloc()) {
    if (!frame_) throw std::bad_alloc();
}

AudioBuffer SoundReader::next() {
    while (decoder_) {
        throwIfInterrupted();  // one packet may hold any number of buffers
        const int received = avcodec_receive_frame(decoder_, frame_.get());
        if (received >= 0) {
            AudioBuffer sound;
            if (load(sound)) return sound;
            warn();
            continue;
        }
        if (received == AVERROR_EOF) break;
        if (received != AVERROR(EAGAIN)) warn();
        if (inputEnded_) break;
        sendPacket();
    }
    return AudioBuffer();
}

/// The decoder is empty, and takes whatever comes.
void SoundReader::sendPacket() {
    while (const std::shared_ptr<Packet> packet = input_.readPacket()) {
        // Not every demuxer heeds the request to discard the others.
        if (packet->streamIndex() != track_) continue;
        // A packet without data would tell the decoder that the input has ended.
        if (!packet->data || avcodec_send_packet(decoder_, packet.get()) < 0) warn();
        return;
    }
    inputEnded_ = true;
    avcodec_send_packet(decoder_, nullptr);
}

void SoundReader::warn() const {
    logger::warning("Could not decode audio from %s:%u", input_.name().c_str(), track_);
}

/// False for a frame that no buffer can have, such as one of channels without a layout.
bool SoundReader::load(AudioBuffer& sound) const {
    try {
        sound.loadAVFrame(frame_.get());
    } catch (const std::runtime_error&) {
        return false;
    }
    const std::vector<std::uint8_t*> planes = sound.getPointersToPlanes();
    const std::size_t size = sound.getNeededBufferSize(sound.numberOfSamples()) / planes.size();
    for (std::size_t p = 1; p < planes.size(); ++p) std::memcpy(planes[p], frame_->extended_data[p], size);
    return true;
}

}  // namespace kvffmpeg::tool
