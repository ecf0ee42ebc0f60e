#include "canvas.h"

#include <stdexcept>

#include "kvffmpeg/color.h"
#include "kvffmpeg/draw_utils.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg::tool {
namespace {

/// Rounds up.
rect_size_t evenSize(rect_size_t size) {
    return {size.w + size.w % 2, size.h + size.h % 2};
}

bool is420(const AVPixFmtDescriptor& format) {
    return format.log2_chroma_w == 1 && format.log2_chroma_h == 1 &&
           (format.flags & AV_PIX_FMT_FLAG_ALPHA) == 0;
}

AVPixelFormat canvasFormat(const Picture& picture, bool isKeyed) {
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(picture.pixelFormat());
    return isKeyed || (format && is420(*format)) ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_RGBA;
}

Picture inSize(const Picture& picture, rect_size_t size) {
    if (picture.size() == size) return picture;
    Picture result(size, picture.pixelFormat(), picture.colorRange());
    DrawUtils::fillRectangle(result, Color());  // what is beyond the picture is never seen, but read
    result.fill(picture.getPlanes(), picture.getLinesize(), picture.width(), picture.height());
    return result;
}

Picture converted(Scaler& scaler, const Picture& picture, rect_size_t size, AVPixelFormat format,
                  AVColorRange range) {
    const Picture result = scaler.scale(picture, size, format, range);
    if (result.empty()) throw std::runtime_error("Could not convert " + picture.debugDescription());
    return format == AV_PIX_FMT_RGBA ? result : inSize(result, evenSize(size));
}

/// Down, also below zero.
int roundToEven(int value) {
    return value & ~1;
}

}  // namespace

Canvas::Canvas(Scaler& scaler, const Picture& picture, bool isKeyed) : size_(picture.size()) {
    const AVPixelFormat format = canvasFormat(picture, isKeyed);
    // What is converted gets the range that is usual for the format, whatever its own was.
    const bool isKept = picture.pixelFormat() == format;
    picture_ =
        converted(scaler, picture, size_, format, isKept ? picture.colorRange() : AVCOL_RANGE_UNSPECIFIED);
    picture_.makeEditable();
}

Picture Canvas::matching(Scaler& scaler, const Picture& picture) const {
    return converted(scaler, picture, size_, picture_.pixelFormat(), picture_.colorRange());
}

PlacedOverlay Canvas::place(const Picture& overlay, point_t position) const {
    const rect_t visible =
        get_image_visible_area({position.x, position.y, overlay.width(), overlay.height()}, size_);
    if (visible.w <= 0 || visible.h <= 0) return {};
    const Picture part = overlay.crop(visible);
    position = {position.x + visible.x, position.y + visible.y};
    if (picture_.pixelFormat() == AV_PIX_FMT_RGBA) return {part, position};

    // Bordered by transparent pixels up to the chroma grid: what sticks out of the grid would be cut off.
    const point_t even{roundToEven(position.x), roundToEven(position.y)};
    const rect_t inside{position.x - even.x, position.y - even.y, part.width(), part.height()};
    Picture bordered(evenSize({inside.x + inside.w, inside.y + inside.h}), AV_PIX_FMT_RGBA);
    DrawUtils::fillRectangle(bordered, Color(0, 0, 0, 0));
    // Where the canvas is larger than the picture, the last column and row of both go on.
    const int right = position.x + part.width() == size_.w && picture_.width() > size_.w ? 1 : 0;
    const int down = position.y + part.height() == size_.h && picture_.height() > size_.h ? 1 : 0;
    for (const point_t shift : {point_t{right, down}, point_t{right, 0}, point_t{0, down}, point_t{0, 0}}) {
        bordered.crop({inside.x + shift.x, inside.y + shift.y, inside.w, inside.h})
            .fill(part.getPlanes(), part.getLinesize(), part.width(), part.height());
    }
    return {Scaler().convertToColorspace(bordered, AV_PIX_FMT_YUVA420P, picture_.colorRange()), even};
}

rect_t Canvas::onGrid(rect_t area) const noexcept {
    if (picture_.pixelFormat() == AV_PIX_FMT_RGBA) return area;
    const point_t start{roundToEven(area.x), roundToEven(area.y)};
    const point_t end{area.x + area.w, area.y + area.h};
    return {start.x, start.y, (end.x >= size_.w ? picture_.width() : roundToEven(end.x)) - start.x,
            (end.y >= size_.h ? picture_.height() : roundToEven(end.y)) - start.y};
}

Picture Canvas::result() const {
    if (picture_.size() == size_) return picture_;
    Picture result(size_, picture_.pixelFormat(), picture_.colorRange());
    result.fill(picture_.getPlanes(), picture_.getLinesize(), size_.w, size_.h);
    return result;
}

}  // namespace kvffmpeg::tool
