#include "kvffmpeg/draw_utils.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "kvffmpeg/blending.h"
#include "kvffmpeg/ffdraw.h"

namespace kvffmpeg {
namespace {

bool isEmpty(const rect_t& rect) noexcept {
    return rect.w == 0 && rect.h == 0;
}

/// Rounds down, also below zero, to a multiple of 2^shift.
int aligned(int value, int shift) noexcept {
    return value & ~((1 << shift) - 1);
}

/// A picture may have been given a buffer without bytes: then it has no planes.
bool hasPlanes(const Picture& picture, unsigned count) noexcept {
    return std::all_of(picture.getPlanes(), picture.getPlanes() + count,
                       [](const unsigned char* plane) { return plane != nullptr; });
}

template <AVPixelFormat format>
void copyOverlay(Picture& destination, const Picture& overlay, point_t position) {
    static const FFDrawContext draw = initDrawContext(format, false);
    ff_copy_rectangle2(&draw, destination.getPlanes(), destination.getLinesize(), overlay.getPlanes(),
                       overlay.getLinesize(), position.x, position.y, 0, 0, overlay.width(),
                       overlay.height());
}

using BlendImage = decltype(blend_image_rgba);

void blend(BlendImage* kernel, Picture& destination, const Picture& overlay, point_t position) noexcept {
    kernel(destination.getPlanes(), destination.getLinesize(), destination.width(), destination.height(),
           overlay.getPlanes(), overlay.getLinesize(), overlay.width(), overlay.height(), position.x,
           position.y);
}

}  // namespace

void DrawUtils::fillRectangle(Picture& picture, rect_t rect, Color color) {
    if (!picture.editable()) throw std::runtime_error("fillRectangle: Picture must be editable");
    const rect_t visible = rect_t{0, 0, picture.width(), picture.height()}.intersected(rect);
    if (isEmpty(visible)) return;

    const FFDrawContext context =
        initDrawContext(picture.pixelFormat(), picture.colorRange() == AVCOL_RANGE_JPEG);
    const FFDrawColor fill = initDrawColor(context, color);
    const rect_t onGrid{aligned(visible.x, context.hsub_max), aligned(visible.y, context.vsub_max),
                        aligned(visible.w, context.hsub_max), aligned(visible.h, context.vsub_max)};
    // A rectangle of negative size comes out of the intersection as one.
    if (onGrid.w <= 0 || onGrid.h <= 0 || !hasPlanes(picture, context.nb_planes)) return;

    ff_fill_rectangle(&context, &fill, picture.getPlanes(), picture.getLinesize(), onGrid.x, onGrid.y,
                      onGrid.w, onGrid.h);
}

void DrawUtils::fillRectangle(Picture& picture, Color color) {
    fillRectangle(picture, {0, 0, picture.width(), picture.height()}, color);
}

void DrawUtils::compose(Picture& destination, const Picture& overlay, point_t position) {
    if (!destination.editable()) throw std::runtime_error("compose: Picture must be editable");
    const rect_t visible = rect_t{0, 0, destination.width(), destination.height()}.intersected(
        {position.x, position.y, overlay.width(), overlay.height()});
    if (isEmpty(visible)) return;

    // 0 ... the overlay's width and height, since the two have an edge in common at least.
    const auto left = static_cast<int>(std::int64_t{visible.x} - position.x);
    const auto top = static_cast<int>(std::int64_t{visible.y} - position.y);
    const Picture part = overlay.crop({left, top, visible.w, visible.h});
    const point_t place{visible.x, visible.y};
    const AVPixelFormat format = destination.pixelFormat();
    const AVPixelFormat overlayFormat = overlay.pixelFormat();
    if (format == AV_PIX_FMT_ARGB) {
        if (overlayFormat != AV_PIX_FMT_ARGB) {
            throw std::runtime_error("compose: Unsupported overlay pixel format for ARGB");
        }
        if (hasPlanes(destination, 1) && hasPlanes(part, 1)) {
            blend(blend_image_argb, destination, part, place);
        }
    } else if (format == AV_PIX_FMT_RGBA) {
        if (overlayFormat != AV_PIX_FMT_RGBA) {
            throw std::runtime_error("compose: Unsupported overlay pixel format for RGBA");
        }
        if (hasPlanes(destination, 1) && hasPlanes(part, 1)) {
            blend(blend_image_rgba, destination, part, place);
        }
    } else if (format == AV_PIX_FMT_YUV420P) {
        if (overlayFormat == AV_PIX_FMT_YUVA420P) {
            if (hasPlanes(destination, 3) && hasPlanes(part, 4)) {
                blend(blend_image_yuva420, destination, part, place);
            }
        } else if (overlayFormat == AV_PIX_FMT_YUV420P) {
            if (hasPlanes(destination, 3) && hasPlanes(part, 3)) {
                copyOverlay<AV_PIX_FMT_YUV420P>(destination, part, place);
            }
        } else {
            throw std::runtime_error("compose: Unsupported overlay pixel format for YUV420P");
        }
    } else {
        throw std::runtime_error("compose: Unsupported destination pixel format.");
    }
}

}  // namespace kvffmpeg
