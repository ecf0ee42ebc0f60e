#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "kvffmpeg/export.h"
#include "kvffmpeg/frame.h"
#include "kvffmpeg/packet.h"
#include "kvffmpeg/timestamp.h"

/// \file
/// Opening, reading and decoding media.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kvffmpeg {

class LivingContexts;

/// An input, a file or a stream: opens it, hands out its packets on one time line in microseconds, and
/// decodes them.
///
/// URLs are trusted input: libavformat opens whatever protocol they name. Pointers that `trackAtIndex`,
/// `getAVFormatContext` and `getCodecContext` hand out are borrowed and good until `close`, decoders also
/// until `moveDecodersFromContext` replaces them.
///
/// One thread at a time may use an object, except that any thread may call `interrupt()`. Movable, not
/// copyable. Informational lines, and what cannot be decoded, go to `logger`.
class KVFFMPEG_EXPORT FormatContext {
public:
    FormatContext() noexcept;                        ///< Closed, without a URL.
    explicit FormatContext(const std::string& url);  ///< Closed, with a URL.
    /// Takes over the open input, its decoders, the URL, the time origin and the packet counter; the
    /// end-of-file flag and `setInterruptCallback` are not taken over. The callback of the input goes on
    /// asking the *source* whether it is interrupted, and is never interrupted once that is destroyed.
    FormatContext(FormatContext&& other) noexcept;
    FormatContext(const FormatContext&) = delete;
    FormatContext& operator=(const FormatContext&) = delete;
    FormatContext& operator=(FormatContext&&) = delete;
    ~FormatContext();  ///< Closes.

    void setUrl(const std::string& url);  ///< For the next `open`.
    /// Makes the next `open` install the callback that `interrupt()` needs.
    void setInterruptCallback() noexcept { interruptCallbackEnabled_ = true; }

    /// Opens the URL. `format` names a demuxer, such as "mpegts"; when empty or unknown, FFmpeg probes. With
    /// `findStreamInfo`, packets are read ahead until the tracks are described.
    ///
    /// The times of this input start at its time origin: the container's real start time, or its metadata
    /// "timeorigin" (decimal microseconds); without either, at the origin of the input opened before (0 at
    /// first). Neither the end-of-file flag nor the special treatment of "rawpacket" inputs is reset.
    ///
    /// An input that is still open is *not closed first*, and is leaked: call `close` before reopening.
    /// @returns true.
    /// @throws std::runtime_error "can't open input file", closed then; "can't find stream info", open then.
    bool open(const std::string& format = std::string(), bool findStreamInfo = true);
    /// Frees the decoders and closes the input. Does nothing when closed. Time origin and flags stay.
    void close();
    /// Ends an `open` or `readPacket` of this object that waits, which then throws, and every later one that
    /// would wait, until the next `open`; what FFmpeg has read already still comes out. Needs
    /// `setInterruptCallback` before `open`; a call before `open` is lost. From any thread.
    void interrupt() noexcept { interrupted_.store(true); }

    /// True with an input, also after an `open` that has thrown "can't find stream info".
    bool isOpened() const noexcept { return formatContext_ != nullptr; }
    bool isEOF() const noexcept { return eof_; }  ///< The last read met the end; cleared by a `seek`.
    bool isStreamed() const noexcept;             ///< Opened, and its I/O cannot seek.
    unsigned int tracksNumber() const noexcept;   ///< 0 when closed.
    /// The track's libavformat record; null when closed or out of range.
    AVStream* trackAtIndex(unsigned int index) const noexcept;
    /// The channels of an audio track; 0 when unknown, when closed or out of range, and for other tracks.
    int channelsAtIndex(unsigned int index) const noexcept;
    /// FFmpeg's text for the channel layout of an audio track, such as "stereo"; empty where no layout is
    /// known.
    std::string channelLayoutAtIndex(unsigned int index) const;
    /// The container's value for `key` (in any case); empty when absent or closed.
    std::string metadata(const std::string& key) const;
    /// libavformat's record of the input; null when closed.
    AVFormatContext* getAVFormatContext() const noexcept { return formatContext_.get(); }

    /// Moves to the key frame at or before `t`, on the time line of the packets. Does nothing when closed.
    /// Decoders are not flushed: pictures from before that they still hold come out first.
    /// @throws std::runtime_error with FFmpeg's text.
    void seek(Timestamp t);

    /// The next packet of any track, with pts, dts and duration in microseconds, and pts and dts shifted by
    /// the time origin; of pts and dts an unknown one takes the value of the other. Durations beyond 2^31
    /// microseconds wrap. Key-frame flags are set by `setKeyFrameFlag`, except in "rawpacket" inputs.
    /// @returns null at the end of the input.
    /// @throws std::runtime_error "Can not read packet from stream that was not opened", or with FFmpeg's
    /// text.
    std::shared_ptr<Packet> readPacket();

    /// Sets or clears AV_PKT_FLAG_KEY of a packet of this input by the library's own rule: H.264 is a key
    /// frame when it carries Annex B start codes of an SPS, then a PPS, then an IDR slice (so length-prefixed
    /// H.264, as in MP4, never is); any other video always is; other packets, and packets of no track, are
    /// left alone. Linear in the size.
    void setKeyFrameFlag(AVPacket* packet) const noexcept;

    /// The track's decoder, opened on first use, without threads; null when there is none for it, which is
    /// not tried again until `close`.
    AVCodecContext* getCodecContext(unsigned int streamIndex);

    /// Decodes a packet of this input into one frame at most (further pictures of the same packet are
    /// dropped; further sounds come out one per call, with the next packets, and where packets keep holding
    /// several, as those of ADPCM in WAV do, the decoder fills up and whole packets are dropped), stamped
    /// with the best-effort time in microseconds (AV_NOPTS_VALUE when unknown, never nil). Pixels and samples
    /// are copied once; of planar sound only the first channel, see `AudioBuffer::loadAVFrame`. Full-range
    /// "J" formats become the plain ones. Frames that a decoder still holds at the end of the input are not
    /// delivered.
    /// @returns an empty frame for null and when nothing came out: the decoder needs more packets, or the
    /// packet does not decode or is neither audio nor video, which is logged. Content never makes it throw.
    /// @throws std::bad_alloc when there is no memory for a frame; want of memory for its pixels or samples
    /// counts as a packet that does not decode.
    Frame decodePacket(const std::shared_ptr<Packet>& packet);

    /// Takes over the decoders of `other`, an open input, for every track whose codec parameters (all but the
    /// bit rate) are the same here, so that reopening a live source does not restart its decoders. Does
    /// nothing when the numbers of tracks differ, for null, for itself, and when either is closed. Afterwards
    /// `other` has no decoder for any track that has one here.
    void moveDecodersFromContext(FormatContext* other);

    /// Tells the demuxer which packets of a track not to return; AVDISCARD_ALL: none are.
    /// @throws std::runtime_error "Can not discard track on stream that was not opened";
    /// std::out_of_range "Index in discardTrackAtIndex".
    void discardTrackAtIndex(unsigned int index, AVDiscard discard);

private:
    friend class LivingContexts;  // knows the addresses that interrupt_cb may look at

    struct CloseInput {
        void operator()(AVFormatContext* context) const noexcept;
    };
    struct FreeCodec {
        void operator()(AVCodecContext* context) const noexcept;
    };
    using CodecContextPtr = std::unique_ptr<AVCodecContext, FreeCodec>;

    Frame decodeVideo(AVCodecContext* decoder, const Packet& packet);
    Frame decodeAudio(AVCodecContext* decoder, const Packet& packet);

    std::string url_;
    std::unique_ptr<AVFormatContext, CloseInput> formatContext_;
    std::int64_t timeOrigin_ = 0;
    std::atomic<bool> interrupted_{false};
    std::uint64_t packetsRead_ = 0;
    bool isRawPacket_ = false;
    bool eof_ = false;
    bool interruptCallbackEnabled_ = false;
    std::unordered_map<int, CodecContextPtr> decoders_;
    FormatContext* nextLiving_ = nullptr;  // owned by LivingContexts
};

}  // namespace kvffmpeg

/// FFmpeg's interrupt callback: 1 for null and for a living `kvffmpeg::FormatContext` that is interrupted, 0
/// for any other address.
KVFFMPEG_EXPORT int interrupt_cb(void* opaque) noexcept;
