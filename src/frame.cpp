#include "kvffmpeg/frame.h"

#include <ostream>
#include <stdexcept>
#include <utility>

#include "text_format.h"

namespace kvffmpeg {

Frame::Frame(const Picture& picture, Timestamp pts) : picture_(picture), pts_(pts) {}

Frame::Frame(Picture&& picture, Timestamp pts) : picture_(std::move(picture)), pts_(pts) {}

Frame::Frame(AudioBuffer audio, Timestamp pts) : audioBuffer_(std::move(audio)), pts_(pts) {}

void Frame::setAudioBuffer(AudioBuffer audio) noexcept {
    audioBuffer_ = std::move(audio);
}

void Frame::fillAVFrame(AVFrame* frame) const {
    if (!picture_.empty()) {
        picture_.fillAVFrame(frame);
    } else if (!audioBuffer_.empty()) {
        audioBuffer_.fillAVFrame(frame);
    } else {
        throw std::runtime_error("Can not fill AVFrame from empty frame");
    }
    frame->pts = pts_.value();
}

std::string Frame::debugDescription() const {
    const std::string pts = pts_.debugDescription();
    if (!picture_.empty()) return formatText("video frame %s, pts %s", picture_.debugDescription(), pts);
    if (audioBuffer_.empty()) return "empty frame, pts " + pts;
    return formatText("audio frame %s, pts %s", audioBuffer_.debugDescription(), pts);
}

std::ostream& operator<<(std::ostream& out, const Frame& frame) {
    return out << frame.debugDescription();
}

}  // namespace kvffmpeg
