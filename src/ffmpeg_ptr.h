#pragma once

// Owners of FFmpeg's objects.

#include <cstdint>
#include <memory>
#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace kvffmpeg {

/// Deletes with one of FFmpeg's void free(T**) functions.
template <auto Free>
struct FreeWith {
    template <typename T>
    void operator()(T* object) const noexcept {
        Free(&object);
    }
};

using FramePtr = std::unique_ptr<AVFrame, FreeWith<av_frame_free>>;
using PacketPtr = std::unique_ptr<AVPacket, FreeWith<av_packet_free>>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, FreeWith<avcodec_free_context>>;

/// A blank frame. @throws std::bad_alloc.
inline FramePtr makeFrame() {
    FramePtr frame(av_frame_alloc());
    if (!frame) throw std::bad_alloc();
    return frame;
}

/// A blank packet. @throws std::bad_alloc.
inline PacketPtr makePacket() {
    PacketPtr packet(av_packet_alloc());
    if (!packet) throw std::bad_alloc();
    return packet;
}

}  // namespace kvffmpeg
