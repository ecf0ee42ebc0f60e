#include "kvffmpeg/picture.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <utility>

#include "ffmpeg_compat.h"
#include "picture_planes.h"
#include "text_format.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg {
namespace {

using planes::hasPalettePlane;
using planes::planeCount;
using planes::readableEnd;
using planes::storedRowBytes;
using planes::storedRows;

constexpr std::ptrdiff_t paletteBytes = 1024;  // 256 entries of 4

/// Where a pixel's position lies in a plane. Plane 3 is never moved.
struct PlaneOffset {
    std::ptrdiff_t rows = 0;
    std::ptrdiff_t bytes = 0;
};

PlaneOffset planeOffset(const AVPixFmtDescriptor& format, int plane, std::ptrdiff_t x,
                        std::ptrdiff_t y) noexcept {
    int steps[4];
    av_image_fill_max_pixsteps(steps, nullptr, &format);
    if (plane == 0) return {y, x * steps[0]};
    if (plane == 3 || hasPalettePlane(format)) return {};
    return {y >> format.log2_chroma_h, (x * steps[plane]) >> format.log2_chroma_w};
}

/// Row by row, top to bottom. The two may overlap, as a picture and a crop of it do.
void copyRows(unsigned char* destination, std::ptrdiff_t destinationLinesize, const unsigned char* source,
              std::ptrdiff_t sourceLinesize, std::ptrdiff_t bytes, std::ptrdiff_t rows) noexcept {
    if (bytes <= 0) return;
    for (std::ptrdiff_t row = 0; row < rows; ++row) {
        std::memmove(destination + row * destinationLinesize, source + row * sourceLinesize,
                     static_cast<std::size_t>(bytes));
    }
}

bool equalSamples(const unsigned char* a, const unsigned char* b, std::ptrdiff_t count, int step) noexcept {
    if (step == 1) return count <= 0 || std::memcmp(a, b, static_cast<std::size_t>(count)) == 0;
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        if (a[i * step] != b[i * step]) return false;
    }
    return true;
}

void releaseHolder(void* opaque, std::uint8_t* /*data*/) noexcept {
    delete static_cast<std::shared_ptr<MemBuffer>*>(opaque);
}

}  // namespace

Picture::Picture(rect_size_t size, AVPixelFormat format, AVColorRange range, int align)
    : size_(size), pixelFormat_(format), colorRange_(range), alignment_(std::max(align, 1)) {
    setData(std::make_shared<MemBuffer>(getVideoBufferSize(), nullptr));
}

Picture::Picture(const AVFrame* frame)
    : Picture({frame->width, frame->height}, static_cast<AVPixelFormat>(frame->format), frame->color_range,
              1) {
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat_);
    const int planes = (format->flags & AV_PIX_FMT_FLAG_PAL) != 0 ? 2 : planeCount(*format);
    for (int p = 0; p < planes; ++p) {
        if (!frame->data[p]) throw std::runtime_error("Picture: Frame has no data");
    }
    fill(frame->data, frame->linesize, size_.w, size_.h);
}

Picture::Picture(Picture&& other) noexcept {
    swap(other);
}

Picture& Picture::operator=(Picture&& other) noexcept {
    Picture taken(std::move(other));
    swap(taken);
    return *this;
}

void Picture::swap(Picture& other) noexcept {
    std::swap(size_, other.size_);
    std::swap(pixelFormat_, other.pixelFormat_);
    std::swap(colorRange_, other.colorRange_);
    buffer_.swap(other.buffer_);
    std::swap(planes_, other.planes_);
    std::swap(linesizes_, other.linesizes_);
    std::swap(alignment_, other.alignment_);
}

void Picture::setData(std::shared_ptr<MemBuffer> buffer) noexcept {
    buffer_ = std::move(buffer);
    // Without bytes, FFmpeg before 5 counts its pointers up from null.
    const bool laidOut = buffer_ && buffer_->data() && size_.w > 0 && size_.h > 0 &&
                         av_image_fill_arrays(planes_, linesizes_, buffer_->data(), pixelFormat_, size_.w,
                                              size_.h, alignment_) >= 0;
    if (!laidOut) {
        std::fill_n(planes_, 4, nullptr);
        std::fill_n(linesizes_, 4, 0);
    }
}

void Picture::makeEditable() {
    if (editable()) return;
    Picture own(size_, pixelFormat_, colorRange_, alignment_);
    own.bitblt(*this, {0, 0});
    *this = std::move(own);
}

std::size_t Picture::getVideoBufferSize() const noexcept {
    unsigned char* planes[4];
    int linesizes[4];
    // FFmpeg gives the same error for such sizes, but complains on stderr first.
    const int bytes =
        size_.w <= 0 || size_.h <= 0
            ? AVERROR(EINVAL)
            : av_image_fill_arrays(planes, linesizes, nullptr, pixelFormat_, size_.w, size_.h, alignment_);
    return static_cast<std::size_t>(static_cast<std::ptrdiff_t>(bytes));
}

bool Picture::hasAlpha() const noexcept {
    if (pixelFormat_ == AV_PIX_FMT_PAL8) return true;
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat_);
    return format && (format->flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
}

void Picture::fill(const unsigned char* bytes, std::size_t count) noexcept {
    if (empty()) return;
    const std::size_t copied = std::min(buffer_->size(), count);
    if (copied > 0) std::memmove(buffer_->data(), bytes, copied);
}

void Picture::fill(const unsigned char* const* planes, const int* linesizes, int width, int height) noexcept {
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat_);
    if (empty() || !format) return;
    width = std::min(width, size_.w);
    height = std::min(height, size_.h);
    for (int p = 0; p < planeCount(*format); ++p) {
        if (!planes_[p] || !planes[p]) continue;
        copyRows(planes_[p], linesizes_[p], planes[p], linesizes[p], storedRowBytes(pixelFormat_, p, width),
                 storedRows(*format, p, height));
    }
    if (hasPalettePlane(*format) && planes_[1] && planes[1]) {
        copyRows(planes_[1], 0, planes[1], 0, paletteBytes, 1);
    }
}

Picture Picture::crop(rect_t rect) const {
    Picture view = *this;
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat_);
    if (empty() || !format) return view;

    const rect_t clipped = crop_rect(rect, size_);
    const std::int32_t horizontalMask = ~((1 << format->log2_chroma_h) - 1);  // crosswise
    const std::int32_t verticalMask = ~((1 << format->log2_chroma_w) - 1);
    const point_t start{clipped.x & horizontalMask, clipped.y & verticalMask};
    view.size_ = {clipped.w & horizontalMask, clipped.h & verticalMask};
    if (view.size_.w <= 0 || view.size_.h <= 0)
        return view;  // the start may be anywhere, so nothing points to it

    for (int p = 0; p < planeCount(*format); ++p) {
        if (!planes_[p]) continue;
        const PlaneOffset offset = planeOffset(*format, p, start.x, start.y);
        const std::ptrdiff_t rows = storedRows(*format, p, view.size_.h);
        const std::ptrdiff_t first = offset.rows * linesizes_[p] + offset.bytes;
        const std::ptrdiff_t end =
            first + (rows - 1) * linesizes_[p] + storedRowBytes(pixelFormat_, p, view.size_.w);
        if (end > readableEnd(*this, *format, p) - planes_[p]) {
            view.setData(nullptr);
            view.size_ = {};
            return view;
        }
        view.planes_[p] += first;
    }
    return view;
}

void Picture::bitblt(const Picture& source, point_t position) noexcept {
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat_);
    const AVPixFmtDescriptor* sourceFormat = av_pix_fmt_desc_get(source.pixelFormat_);
    if (empty() || source.empty() || !format || !sourceFormat) return;

    const std::ptrdiff_t x = position.x & ~(1 << format->log2_chroma_w);
    const std::ptrdiff_t y = position.y & ~(1 << format->log2_chroma_h);
    for (int p = 0; p < planeCount(*format); ++p) {
        if (!planes_[p] || !source.planes_[p]) continue;
        const PlaneOffset offset = planeOffset(*format, p, x, y);
        // The source is measured in this picture's format, but never beyond what it holds in its own.
        const std::ptrdiff_t sourceRows =
            std::min(storedRows(*format, p, source.size_.h), storedRows(*sourceFormat, p, source.size_.h));
        const std::ptrdiff_t sourceBytes = std::min(storedRowBytes(pixelFormat_, p, source.size_.w),
                                                    storedRowBytes(source.pixelFormat_, p, source.size_.w));
        const std::ptrdiff_t firstRow = std::max<std::ptrdiff_t>(-offset.rows, 0);
        const std::ptrdiff_t firstByte = std::max<std::ptrdiff_t>(-offset.bytes, 0);
        const std::ptrdiff_t endRow = std::min(sourceRows, storedRows(*format, p, size_.h) - offset.rows);
        const std::ptrdiff_t endByte =
            std::min(sourceBytes, storedRowBytes(pixelFormat_, p, size_.w) - offset.bytes);
        if (firstRow >= endRow || firstByte >= endByte) continue;
        copyRows(planes_[p] + (offset.rows + firstRow) * linesizes_[p] + offset.bytes + firstByte,
                 linesizes_[p], source.planes_[p] + firstRow * source.linesizes_[p] + firstByte,
                 source.linesizes_[p], endByte - firstByte, endRow - firstRow);
    }
    if (hasPalettePlane(*format) && hasPalettePlane(*sourceFormat) && planes_[1] && source.planes_[1]) {
        copyRows(planes_[1], 0, source.planes_[1], 0, paletteBytes, 1);
    }
}

void Picture::fillAVFrame(AVFrame* frame) const {
    if (empty()) return;
    auto holder = std::make_unique<std::shared_ptr<MemBuffer>>(buffer_);
    frame->buf[0] = compat::createBuffer(buffer_->data(), buffer_->size(), releaseHolder, holder.get());
    if (!frame->buf[0]) return;
    (void)holder.release();  // the reference owns it now
    std::copy_n(planes_, 4, frame->data);
    std::copy_n(linesizes_, 4, frame->linesize);
    frame->width = size_.w;
    frame->height = size_.h;
    frame->format = pixelFormat_;
    frame->color_range = colorRange_;
}

bool Picture::operator==(const Picture& other) const noexcept {
    if (empty() || other.empty()) return false;
    if (size_ != other.size_ || pixelFormat_ != other.pixelFormat_) return false;
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat_);
    for (int c = 0; format && c < format->nb_components; ++c) {
        const AVComponentDescriptor& component = format->comp[c];
        const int p = component.plane;
        if (!planes_[p] || !other.planes_[p]) continue;
        const rect_size_t area = planes::componentSize(*format, p, size_);
        const std::ptrdiff_t rowBytes = storedRowBytes(pixelFormat_, p, size_.w);
        const unsigned char* row = planes_[p];
        const unsigned char* otherRow = other.planes_[p];
        const unsigned char* end = readableEnd(*this, *format, p);
        const unsigned char* otherEnd = readableEnd(other, *format, p);
        for (int y = 0; y < area.h && row < end && otherRow < otherEnd; ++y) {
            const std::ptrdiff_t count =
                std::min(planes::readableSamples(area.w, component, rowBytes, end - row),
                         planes::readableSamples(area.w, component, rowBytes, otherEnd - otherRow));
            const std::ptrdiff_t first = planes::firstSample(component);
            const std::ptrdiff_t start = component.offset + first * component.step;
            if (!equalSamples(row + start, otherRow + start, count - first, component.step)) return false;
            row += std::min<std::ptrdiff_t>(linesizes_[p], end - row);
            otherRow += std::min<std::ptrdiff_t>(other.linesizes_[p], otherEnd - otherRow);
        }
    }
    return true;
}

std::string Picture::debugDescription() const {
    if (empty()) return "(empty picture)";
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat_);
    const char* range = av_color_range_name(colorRange_);
    return formatText("%dx%d, %s (%s)", size_.w, size_.h, format ? format->name : "(pix fmt unknown)",
                      range ? range : "unknown");
}

std::ostream& operator<<(std::ostream& out, const Picture& picture) {
    return out << picture.debugDescription();
}

}  // namespace kvffmpeg
