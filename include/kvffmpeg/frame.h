#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "kvffmpeg/audiobuffer.h"
#include "kvffmpeg/export.h"
#include "kvffmpeg/geometry.h"
#include "kvffmpeg/packet.h"
#include "kvffmpeg/picture.h"
#include "kvffmpeg/timestamp.h"

/// \file
/// What decoding gives: a picture or sound, with its time.

namespace kvffmpeg {

/// A decoded unit: a `Picture` or an `AudioBuffer` with its presentation time, and a position, flags and
/// metadata that belong to the caller. Copies share pixels and samples. One thread at a time may use a frame.
class KVFFMPEG_EXPORT Frame {
public:
    /// The caller's own flags, stored and never interpreted. Cast other values to it.
    enum FrameFlags : std::uint32_t {
        none = 0  ///< No flag; what every new frame has.
    };

    Frame() = default;                             ///< Empty: neither picture nor audio, nil time.
    Frame(const Picture& picture, Timestamp pts);  ///< Shares the picture's pixels; no audio.
    Frame(Picture&& picture, Timestamp pts);       ///< Takes the picture over; no audio.
    Frame(AudioBuffer audio, Timestamp pts);       ///< Shares the samples; no picture.

    /// The picture, empty in a frame of audio. Good as long as the frame.
    const Picture& picture() const noexcept { return picture_; }
    /// The same, to be changed in place: it shares its pixels with copies until `Picture::makeEditable`.
    Picture& picture() noexcept { return picture_; }
    void setPicture(const Picture& picture) { picture_ = picture; }  ///< Leaves the audio alone.
    /// Takes the picture over. Leaves the audio alone.
    void setPicture(Picture&& picture) noexcept { picture_ = static_cast<Picture&&>(picture); }
    /// The audio, empty in a frame of video. Good as long as the frame.
    const AudioBuffer& audioBuffer() const noexcept { return audioBuffer_; }
    /// The same, to be changed in place: copies share the samples.
    AudioBuffer& audioBuffer() noexcept { return audioBuffer_; }
    void setAudioBuffer(AudioBuffer audio) noexcept;  ///< Leaves the picture alone.
    /// True with neither a picture nor audio.
    bool empty() const noexcept { return picture_.empty() && audioBuffer_.empty(); }

    rect_t position() const noexcept { return position_; }  ///< Where to place the picture; for the caller.
    void setPosition(const rect_t& position) noexcept { position_ = position; }  ///< Stored as it is.
    Timestamp PTS() const noexcept { return pts_; }                              ///< Presentation time.
    void setPTS(Timestamp pts) noexcept { pts_ = pts; }                          ///< Stored as it is.
    FrameFlags flags() const noexcept { return flags_; }          ///< The caller's flags; none at first.
    void setFlags(FrameFlags flags) noexcept { flags_ = flags; }  ///< Stored as it is.
    /// The caller's dictionary; empty at first. Good as long as the frame.
    const Metadata& metadata() const noexcept { return metadata_; }
    Metadata& metadata() noexcept { return metadata_; }  ///< The same, to be changed.

    /// Fills a blank AVFrame with the picture (`Picture::fillAVFrame`) or, without one, with the audio
    /// (`AudioBuffer::fillAVFrame`), and sets its pts to `PTS().value()`: the ticks as they are, not
    /// rescaled, nil or not.
    /// @throws std::runtime_error "Can not fill AVFrame from empty frame", and what the two functions throw.
    void fillAVFrame(AVFrame* frame) const;

    /// "video frame %s, pts %s", "audio frame %s, pts %s" or "empty frame, pts %s". The picture wins.
    std::string debugDescription() const;

private:
    FrameFlags flags_ = none;
    Picture picture_;
    AudioBuffer audioBuffer_;
    rect_t position_;
    Timestamp pts_;
    Metadata metadata_;
};

/// Writes `debugDescription()`.
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, const Frame& frame);

}  // namespace kvffmpeg
