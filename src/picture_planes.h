#pragma once

#include <algorithm>
#include <cstddef>

#include "ffmpeg_compat.h"
#include "kvffmpeg/picture.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

// What lies in the planes of a picture, and how far they may be touched.

namespace kvffmpeg::planes {

inline bool isFullRangeFormat(AVPixelFormat format) noexcept {
    return format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_YUVJ422P || format == AV_PIX_FMT_YUVJ444P ||
           format == AV_PIX_FMT_YUVJ440P || format == AV_PIX_FMT_YUVJ411P;
}

inline bool hasPalettePlane(const AVPixFmtDescriptor& format) noexcept {
    return (format.flags & (AV_PIX_FMT_FLAG_PAL | compat::pseudoPalFlag)) != 0;
}

/// Planes that hold components, that is without the palette.
inline int planeCount(const AVPixFmtDescriptor& format) noexcept {
    int count = 0;
    for (int c = 0; c < format.nb_components; ++c) count = std::max(count, format.comp[c].plane + 1);
    return count;
}

/// Rows of a plane, with chroma rounded up, as FFmpeg stores them.
inline std::ptrdiff_t storedRows(const AVPixFmtDescriptor& format, int plane, int height) noexcept {
    const int shift = plane == 1 || plane == 2 ? format.log2_chroma_h : 0;
    return height <= 0 ? 0 : (static_cast<std::ptrdiff_t>(height) + (1 << shift) - 1) >> shift;
}

/// Bytes of a row of a plane that hold samples, with chroma rounded up, as FFmpeg stores them.
inline std::ptrdiff_t storedRowBytes(AVPixelFormat format, int plane, int width) noexcept {
    return width <= 0 ? 0 : std::max(av_image_get_linesize(format, width, plane), 0);
}

/// One past the last byte that may be touched through a plane of a picture: the end of its buffer, or, as a
/// borrowed buffer does not tell its size, the end of the plane's last visible row. The picture must not be
/// empty.
inline const unsigned char* readableEnd(const Picture& picture, const AVPixFmtDescriptor& format,
                                        int plane) noexcept {
    MemBuffer& buffer = *picture.buffer();
    if (buffer.size() != 0) return buffer.data() + buffer.size();
    const std::ptrdiff_t rows = storedRows(format, plane, picture.height());
    if (rows == 0) return picture.getPlanes()[plane];
    return picture.getPlanes()[plane] + (rows - 1) * picture.getLinesize()[plane] +
           storedRowBytes(picture.pixelFormat(), plane, picture.width());
}

/// The size of the area that the samples of one component cover: chroma is rounded down.
inline rect_size_t componentSize(const AVPixFmtDescriptor& format, int plane, rect_size_t size) noexcept {
    const bool isChroma = (plane == 1 || plane == 2) && (format.flags & AV_PIX_FMT_FLAG_RGB) == 0;
    return isChroma ? rect_size_t{size.w >> format.log2_chroma_w, size.h >> format.log2_chroma_h} : size;
}

/// How many samples of a component can be reached in a row: at most `wanted`, and none beyond the `rowBytes`
/// that are visible or the end of the buffer. (In formats that pack several pixels into a step, steps of a
/// pixel leave the row, for its padding or for what a crop hides.)
inline std::ptrdiff_t readableSamples(std::ptrdiff_t wanted, const AVComponentDescriptor& component,
                                      std::ptrdiff_t rowBytes, std::ptrdiff_t bytesToEnd) noexcept {
    const std::ptrdiff_t bytes = std::min(rowBytes, bytesToEnd) - component.offset;
    if (bytes <= 0 || component.step <= 0) return 0;
    return std::min(wanted, (bytes + component.step - 1) / component.step);
}

/// The first sample of a row that lies in the row: offsets of -1 exist (big-endian rgb565 and its like).
inline std::ptrdiff_t firstSample(const AVComponentDescriptor& component) noexcept {
    return component.offset < 0 ? 1 : 0;
}

}  // namespace kvffmpeg::planes
