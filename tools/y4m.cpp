#include "y4m.h"

#include <cstddef>
#include <stdexcept>
#include <string>

#include "console.h"

extern "C" {
#include <libavutil/common.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg::tool {
namespace {

/// FFmpeg has names of their own for these formats in full range.
AVPixelFormat withoutRange(AVPixelFormat format) {
    switch (format) {
        case AV_PIX_FMT_YUVJ420P:
            return AV_PIX_FMT_YUV420P;
        case AV_PIX_FMT_YUVJ422P:
            return AV_PIX_FMT_YUV422P;
        case AV_PIX_FMT_YUVJ444P:
            return AV_PIX_FMT_YUV444P;
        default:
            return format;
    }
}

bool isFullRangeFormat(AVPixelFormat format) {
    return withoutRange(format) != format || format == AV_PIX_FMT_YUVJ440P || format == AV_PIX_FMT_YUVJ411P;
}

/// The smallest of the stream's formats that has all of the chroma.
AVPixelFormat nearestFormat(AVPixelFormat format) {
    const AVPixFmtDescriptor* const descriptor = av_pix_fmt_desc_get(format);
    if (!descriptor || (descriptor->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) != 0) {
        return AV_PIX_FMT_YUV444P;
    }
    const bool isGray = descriptor->nb_components < 3;
    if (isGray) return AV_PIX_FMT_YUV420P;
    if (descriptor->log2_chroma_w == 0) return AV_PIX_FMT_YUV444P;
    return descriptor->log2_chroma_h == 0 ? AV_PIX_FMT_YUV422P : AV_PIX_FMT_YUV420P;
}

/// The range of a picture in one of the stream's formats: its own, if it is one of luma. Others become
/// limited, which readers expect.
AVColorRange rangeFor(const Picture& picture) {
    if (isFullRangeFormat(picture.pixelFormat())) return AVCOL_RANGE_JPEG;
    const AVPixFmtDescriptor* const descriptor = av_pix_fmt_desc_get(picture.pixelFormat());
    const bool isColor = descriptor && (descriptor->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) != 0;
    if (isColor) return AVCOL_RANGE_MPEG;
    const bool isGray = descriptor && descriptor->nb_components < 3;
    // libswscale takes gray for full range where it is not said.
    if (isGray && picture.colorRange() == AVCOL_RANGE_UNSPECIFIED) return AVCOL_RANGE_MPEG;
    return picture.colorRange();
}

std::string formatTag(AVPixelFormat format, AVChromaLocation chroma) {
    if (format == AV_PIX_FMT_YUV444P) return "C444";
    if (format == AV_PIX_FMT_YUV422P) return "C422";
    if (chroma == AVCHROMA_LOC_LEFT) return "C420mpeg2";
    return chroma == AVCHROMA_LOC_TOPLEFT ? "C420paldv" : "C420jpeg";
}

std::string rangeTag(AVColorRange range) {
    if (range == AVCOL_RANGE_JPEG) return " XCOLORRANGE=FULL";
    return range == AVCOL_RANGE_MPEG ? " XCOLORRANGE=LIMITED" : "";
}

std::string text(AVRational ratio) {
    return std::to_string(ratio.num) + ":" + std::to_string(ratio.den);
}

}  // namespace

Y4mStream::Y4mStream(const Properties& properties, Scaler::ScalingAlgorithm algorithm)
    : properties_(properties) {
    scaler_.setAlgorithm(algorithm);
}

void Y4mStream::write(const Picture& picture) {
    bytes_.clear();
    if (format_ == AV_PIX_FMT_NONE) {
        size_ = picture.size();
        format_ = nearestFormat(picture.pixelFormat());
        range_ = rangeFor(picture);
        writeHeader();
    }
    append(converted(picture));
    writeOutput(bytes_.data(), bytes_.size());
}

void Y4mStream::writeHeader() {
    // The question mark: whether pictures are interlaced is not known.
    const std::string header = "YUV4MPEG2 W" + std::to_string(size_.w) + " H" + std::to_string(size_.h) +
                               " F" + text(properties_.rate) + " I? A" + text(properties_.pixelShape) + " " +
                               formatTag(format_, properties_.chroma) + rangeTag(range_) + "\n";
    bytes_.insert(bytes_.end(), header.begin(), header.end());
}

Picture Y4mStream::converted(const Picture& picture) {
    const bool isKept = picture.size() == size_ && withoutRange(picture.pixelFormat()) == format_ &&
                        rangeFor(picture) == range_;
    if (isKept) return picture;
    Picture result = scaler_.scale(picture, size_, format_, range_);
    if (result.empty()) throw std::runtime_error("Could not convert " + picture.debugDescription());
    return result;
}

void Y4mStream::append(const Picture& picture) {
    const std::string begin = "FRAME\n";
    bytes_.insert(bytes_.end(), begin.begin(), begin.end());
    const AVPixFmtDescriptor& descriptor = *av_pix_fmt_desc_get(format_);
    for (std::size_t p = 0; p < 3; ++p) {
        const int width = p == 0 ? size_.w : AV_CEIL_RSHIFT(size_.w, descriptor.log2_chroma_w);
        const int height = p == 0 ? size_.h : AV_CEIL_RSHIFT(size_.h, descriptor.log2_chroma_h);
        for (int y = 0; y < height; ++y) {
            const unsigned char* const row =
                picture.getPlanes()[p] + std::ptrdiff_t{y} * picture.getLinesize()[p];
            bytes_.insert(bytes_.end(), row, row + width);
        }
    }
}

}  // namespace kvffmpeg::tool
