#include "lone_picture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>

#include "ffmpeg_compat.h"
#include "ffmpeg_ptr.h"
#include "input_rules.h"
#include "logger/logger.h"
#include "simd_planes.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg {
namespace {

// Up to this size any picture is believed: it fits into 300 MB. A larger one must be compressed to no less
// than this part of it, as photographs and drawings are not.
constexpr std::int64_t believedBytes = 250000000;
constexpr std::int64_t highestCompression = 64;

/// AVCodecContext::get_buffer2 of a decoder whose `opaque` is the packet.
int believableBuffer(AVCodecContext* decoder, AVFrame* frame, int flags) noexcept {
    const auto* const packet = static_cast<const Packet*>(decoder->opaque);
    const auto format = static_cast<AVPixelFormat>(frame->format);
    const std::int64_t bytes = av_image_get_buffer_size(format, frame->width, frame->height, 1);
    // The decoder of progressive JPEG also holds the coefficients, of two bytes each.
    const std::int64_t believed = decoder->codec_id == AV_CODEC_ID_MJPEG ? believedBytes / 3 : believedBytes;
    if (bytes < 0 || (bytes > believed && bytes / highestCompression > packet->size()))
        return AVERROR_INVALIDDATA;
    return avcodec_default_get_buffer2(decoder, frame, flags);
}

/// Whole pages of memory that is read once more by nobody: given back to the system while it goes on.
class SpentMemory {
public:
    explicit SpentMemory(std::uint8_t* begin) noexcept
        : spent_(begin + (page() - beyondPage(begin)) % page()) {}

    void extendTo(std::uint8_t* end) noexcept {
        std::uint8_t* const last = end - beyondPage(end);
        constexpr std::ptrdiff_t atOnce = 4 << 20;
        if (last - spent_ < atOnce) return;
        // What fails costs memory alone.
        (void)madvise(spent_, static_cast<std::size_t>(last - spent_), MADV_DONTNEED);
        spent_ = last;
    }

private:
    static std::uintptr_t page() noexcept {
        static const auto size = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
        return size;
    }
    static std::uintptr_t beyondPage(const std::uint8_t* address) noexcept {
        return reinterpret_cast<std::uintptr_t>(address) % page();
    }

    std::uint8_t* spent_;
};

/// Whether the copy is worth giving pages back, and the frame's memory is nobody else's.
bool canBeSpent(AVFrame& frame, const PlaneShapes& shapes) noexcept {
    constexpr std::size_t large = 64U << 20;
    std::size_t bytes = 0;
    for (std::size_t p = 0; p < shapes.count; ++p) {
        if (!frame.data[p] || frame.linesize[p] < static_cast<int>(shapes.rowBytes[p])) return false;
        bytes += shapes.rowBytes[p] * shapes.rows[p];
    }
    return bytes >= large && av_frame_is_writable(&frame) > 0;
}

/// The picture of a frame, which is of no use any more after that.
Picture takePicture(AVFrame& frame) {
    const auto format = static_cast<AVPixelFormat>(frame.format);
    const AVPixFmtDescriptor* const descriptor = av_pix_fmt_desc_get(format);
    if (!descriptor || (descriptor->flags & (AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_HWACCEL)) != 0) {
        return Picture(&frame);
    }
    const PlaneShapes shapes(format, {frame.width, frame.height});
    if (!canBeSpent(frame, shapes)) return Picture(&frame);
    Picture picture({frame.width, frame.height}, format, frame.color_range, 1);
    for (std::size_t p = 0; p < shapes.count; ++p) {
        std::uint8_t* from = frame.data[p];
        unsigned char* to = picture.getPlanes()[p];
        SpentMemory spent(from);
        for (std::size_t row = 0; row < shapes.rows[p]; ++row) {
            std::memcpy(to, from, shapes.rowBytes[p]);
            from += frame.linesize[p];
            to += picture.getLinesize()[p];
            spent.extendTo(from);
        }
    }
    return picture;
}

Frame frameOf(AVFrame& decoded) {
    decoded.format = withoutFullRange(static_cast<AVPixelFormat>(decoded.format));
    const Timestamp time(decoded.best_effort_timestamp);
    return Frame(takePicture(decoded), time);
}

}  // namespace

Frame decodeLonePacket(FormatContext& input, const std::string& url, const std::shared_ptr<Packet>& packet) {
    AVCodecContext* const decoder = packet ? input.getCodecContext(packet->streamIndex()) : nullptr;
    // Without data it would be told that the input has ended; what is to be said of that, decodePacket says.
    if (!decoder || decoder->codec_type != AVMEDIA_TYPE_VIDEO || !packet->data)
        return input.decodePacket(packet);
    decoder->opaque = packet.get();
    decoder->get_buffer2 = believableBuffer;
    const FramePtr decoded = makeFrame();
    const compat::Decoded result = compat::decodeVideo(decoder, packet.get(), decoded.get());
    input.close();  // decoders hold on to their pictures
    if (result == compat::Decoded::nothing) return Frame();
    if (result == compat::Decoded::frame) {
        try {
            return frameOf(*decoded);
        } catch (const std::exception&) {  // a size or format that no picture can have
        }
    }
    logger::warning("Could not decode video from %s:%d", url.c_str(), packet->stream_index);
    return Frame();
}

}  // namespace kvffmpeg
