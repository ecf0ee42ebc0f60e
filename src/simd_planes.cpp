#include "simd_planes.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg {

PlaneShapes::PlaneShapes(AVPixelFormat format, rect_size_t size) noexcept {
    const AVPixFmtDescriptor& descriptor = *av_pix_fmt_desc_get(format);
    const int planes = std::max(av_pix_fmt_count_planes(format), 0);
    count = static_cast<std::size_t>(std::min(planes, 4));
    hasPalette = (descriptor.flags & AV_PIX_FMT_FLAG_PAL) != 0;
    if (hasPalette) count = 1;
    for (std::size_t p = 0; p < count; ++p) {
        const int shift = p == 1 || p == 2 ? descriptor.log2_chroma_h : 0;
        rowBytes[p] = bytesOfRow(format, size.w, p);
        rows[p] = static_cast<std::size_t>((size.h + (1 << shift) - 1) >> shift);
    }
}

std::size_t PlaneShapes::bytesOfRow(AVPixelFormat format, int width, std::size_t plane) noexcept {
    return static_cast<std::size_t>(
        std::max(av_image_get_linesize(format, width, static_cast<int>(plane)), 0));
}

bool isSafeForSimd(const Picture& picture, const PlaneShapes& shapes) noexcept {
    if (picture.width() % 32 != 0 || picture.height() % 2 != 0) return false;
    // A borrowed buffer does not tell its size and need not have spare bytes behind it.
    MemBuffer& buffer = *picture.buffer();
    if (buffer.size() == 0) return false;
    for (std::size_t p = 0; p < shapes.count; ++p) {
        const unsigned char* plane = picture.getPlanes()[p];
        const int linesize = picture.getLinesize()[p];
        if (reinterpret_cast<std::uintptr_t>(plane) % 16 != 0 || linesize % 16 != 0) return false;
        if (shapes.rowBytes[p] % 32 != 0) return false;
        // Plain copies take the padding of the rows along, which behind a crop's last row may be beyond the
        // buffer.
        const auto end = static_cast<std::ptrdiff_t>(shapes.rows[p]) * linesize;
        if (end > buffer.data() + buffer.size() - plane) return false;
    }
    return true;
}

void copyToPaddedPlanes(const Picture& picture, const PlaneShapes& shapes, unsigned char* const planes[4],
                        const int linesizes[4]) noexcept {
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(picture.pixelFormat());
    int pixelBytes[4];
    av_image_fill_max_pixsteps(pixelBytes, nullptr, format);
    const bool repeatLast = picture.width() % 2 != 0 && (format->flags & AV_PIX_FMT_FLAG_BITSTREAM) == 0;
    for (std::size_t p = 0; p < shapes.count; ++p) {
        const std::size_t rowBytes = shapes.rowBytes[p];
        const std::size_t padding = static_cast<std::size_t>(linesizes[p]) - rowBytes;
        const std::size_t repeated =
            repeatLast ? std::min({static_cast<std::size_t>(pixelBytes[p]), rowBytes, padding}) : 0;
        const unsigned char* from = picture.getPlanes()[p];
        unsigned char* to = planes[p];
        for (std::size_t row = 0; row < shapes.rows[p]; ++row) {
            std::memcpy(to, from, rowBytes);
            std::memcpy(to + rowBytes, to + rowBytes - repeated, repeated);
            from += picture.getLinesize()[p];
            to += linesizes[p];
        }
    }
    if (shapes.hasPalette) std::memcpy(planes[1], picture.getPlanes()[1], paletteBytes);
}

bool hasPixels(const Picture& picture) noexcept {
    if (picture.empty() || picture.width() <= 0 || picture.height() <= 0) return false;
    if (!av_pix_fmt_desc_get(picture.pixelFormat())) return false;
    const PlaneShapes shapes(picture.pixelFormat(), picture.size());
    for (std::size_t p = 0; p < shapes.count; ++p) {
        if (!picture.getPlanes()[p]) return false;
    }
    return !shapes.hasPalette || picture.getPlanes()[1];
}

FramePtr withPadding(FramePtr frame, const Picture& picture) {
    if (!hasPixels(picture)) return frame;
    const PlaneShapes shapes(picture.pixelFormat(), picture.size());
    if (isSafeForSimd(picture, shapes)) return frame;
    FramePtr padded(av_frame_alloc());
    if (!padded) throw std::bad_alloc();
    padded->format = frame->format;
    padded->width = frame->width;
    padded->height = frame->height;
    if (av_frame_get_buffer(padded.get(), 0) < 0 || av_frame_copy_props(padded.get(), frame.get()) < 0) {
        throw std::bad_alloc();
    }
    // What is read of the padding must not be left to chance.
    for (AVBufferRef* buffer : padded->buf) {
        if (buffer) std::memset(buffer->data, 0, static_cast<std::size_t>(buffer->size));
    }
    copyToPaddedPlanes(picture, shapes, padded->data, padded->linesize);
    return padded;
}

}  // namespace kvffmpeg
