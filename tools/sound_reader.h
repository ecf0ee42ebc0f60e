#pragma once

#include <memory>

#include "input.h"
#include "kvffmpeg/audiobuffer.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace kvffmpeg::tool {

/// All of the sound of a track, every channel of it; where channels have no places, there is no buffer for
/// them. (`FormatContext::decodePacket` gives one buffer per packet, in planar formats the first channel in
/// all planes, and nothing of what the decoder holds at the end.)
class SoundReader {
public:
    /// `input` has to outlive it. @throws std::bad_alloc.
    SoundReader(Input& input, unsigned int track);

    /// The next samples; a buffer without planes at the end. What does not decode is logged and left out.
    /// @throws Interrupted; std::runtime_error when reading fails.
    AudioBuffer next();

private:
    struct FrameDeleter {
        void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
    };

    void sendPacket();
    void warn() const;
    bool load(AudioBuffer& sound) const;

    Input& input_;
    unsigned int track_;
    AVCodecContext* decoder_;
    std::unique_ptr<AVFrame, FrameDeleter> frame_;
    bool inputEnded_ = false;
};

}  // namespace kvffmpeg::tool
