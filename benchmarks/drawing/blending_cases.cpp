#include <algorithm>
#include <cstring>

#include "contest.h"
#include "kernels.h"
#include "kvffmpeg/blending.h"
#include "touch.h"

namespace drawing {
namespace {

constexpr Alpha alphas[] = {Alpha::noise, Alpha::logo, Alpha::opaque, Alpha::clear};

bool hasAvx512() {
    return std::strncmp(kvffmpeg::kernels::active().name, "avx512", 6) == 0;
}

/// Planes in the kernel's order, as much as it needs of each.
void touchYuva(const Image& destination, const Image& overlay, Alpha alpha) {
    const auto width = static_cast<std::size_t>(overlay.width());
    for (int y = 0; y < overlay.height(); ++y) {
        if (alpha == Alpha::clear) {
            touchRead(overlay.row(3, y), width);
        } else {
            touchUpdate(destination.row(0, y), overlay.row(0, y), overlay.row(3, y), width);
        }
        if (y % 2 == 0 || alpha == Alpha::clear) continue;
        for (const int plane : {1, 2}) {
            touchUpdate(destination.row(plane, y / 2), overlay.row(plane, y / 2), width / 2);
        }
    }
}

std::vector<Goal> goalsOfYuva(Alpha alpha, bool isLarge) {
    switch (alpha) {
        case Alpha::noise:
            if (!isLarge) return {{0.91, {"libyuv"}}};
            return {{0.82, {"libyuv"}}, {0.55, {"libavfilter"}}, {1.05, {"touch"}}};
        case Alpha::logo:
            if (!isLarge) return {{0.57, {"libyuv", "libavfilter"}}};
            return {{0.50, {"libyuv"}}, {0.35, {"libavfilter"}}};
        case Alpha::opaque:
            if (!isLarge) return {{0.75, {"libyuv"}}};
            return {{0.82, {"libyuv"}}, {1.03, {"touch"}}};
        case Alpha::clear:
            return {{isLarge ? 0.10 : 0.15, {"libyuv"}}};
    }
    return {};
}

Contest yuvaContest(kvffmpeg::rect_size_t size, Alpha alpha) {
    const Frames frames = makeFrames(size, AV_PIX_FMT_YUV420P);
    const Image overlay(size, AV_PIX_FMT_YUVA420P, 2);
    setAlpha(overlay, alpha);
    const Work ours = [=](std::size_t frame) {
        const Image& destination = frames[frame];
        kvffmpeg::blend_image_yuva420(destination.planes(), destination.linesizes(), destination.width(),
                                      destination.height(), overlay.planes(), overlay.linesizes(),
                                      overlay.width(), overlay.height(), 0, 0);
    };
    return {{{"kvffmpeg", ours, true},
             {"libyuv", libyuvI420Blend(frames, overlay), true},
             {"libavfilter", libavfilterStillOverlay(frames, overlay), true},
             {"touch", [=](std::size_t frame) { touchYuva(frames[frame], overlay, alpha); }}},
            goalsOfYuva(alpha, size == large),
            frames};
}

void touchPacked(const Image& destination, const Image& overlay, Alpha alpha) {
    for (int y = 0; y < overlay.height(); ++y) {
        const auto bytes = 4 * static_cast<std::size_t>(overlay.width());
        if (alpha == Alpha::clear) {
            touchRead(overlay.row(0, y), bytes);
        } else {
            touchUpdate(destination.row(0, y), overlay.row(0, y), bytes);
        }
    }
}

std::vector<Goal> goalsOfPacked(Alpha alpha, bool isLarge) {
    const std::vector<std::string> best = {"libyuv", "pixman"};
    switch (alpha) {
        case Alpha::noise:
            if (!isLarge) return {};  // set against the Simd library alone
            return {{0.93, best}, {1.06, {"touch"}}};
        case Alpha::logo:
            return {{isLarge ? 0.87 : hasAvx512() ? 0.42 : 0.53, best}};
        case Alpha::opaque:
        case Alpha::clear:
            if (!isLarge) return {{alpha == Alpha::opaque ? 0.45 : 0.20, best}};
            return {{1.00, best}, {1.03, {"touch"}}};
    }
    return {};
}

Contest packedContest(kvffmpeg::rect_size_t size, Alpha alpha, int alphaByte) {
    const bool isRgba = alphaByte == 3;
    const AVPixelFormat format = isRgba ? AV_PIX_FMT_RGBA : AV_PIX_FMT_ARGB;
    const Frames frames = makeFrames(size, format);
    const Image overlay(size, format, 2);
    setAlpha(overlay, alpha, alphaByte);
    // The peers want alpha last, in whatever order of the colours, and colours multiplied by it.
    const Image peersOverlay = premultiplied(overlay, alphaByte);
    const auto blend = isRgba ? kvffmpeg::blend_image_rgba : kvffmpeg::blend_image_argb;
    const Work ours = [=](std::size_t frame) {
        const Image& destination = frames[frame];
        blend(destination.planes(), destination.linesizes(), destination.width(), destination.height(),
              overlay.planes(), overlay.linesizes(), overlay.width(), overlay.height(), 0, 0);
    };
    return {{{"kvffmpeg", ours, true},
             {"libyuv", libyuvArgbBlend(frames, peersOverlay), isRgba},
             {"pixman", pixmanOver(frames, peersOverlay), isRgba},
             {"cairo", cairoOver(frames, peersOverlay), isRgba},
             {"touch", [=](std::size_t frame) { touchPacked(frames[frame], overlay, alpha); }}},
            goalsOfPacked(alpha, size == large),
            frames,
            alphaByte};
}

}  // namespace

std::vector<Case> blendingCases() {
    std::vector<Case> cases;
    const auto add = [&](const char* kernel, Contest (*prepare)(kvffmpeg::rect_size_t, Alpha)) {
        for (const kvffmpeg::rect_size_t size : {large, inCache}) {
            for (const Alpha alpha : alphas) {
                cases.push_back({kernel, nameOf(alpha), size, [=] { return prepare(size, alpha); }});
            }
        }
    };
    add("blend_image_yuva420", yuvaContest);
    add("blend_image_rgba",
        [](kvffmpeg::rect_size_t size, Alpha alpha) { return packedContest(size, alpha, 3); });
    add("blend_image_argb",
        [](kvffmpeg::rect_size_t size, Alpha alpha) { return packedContest(size, alpha, 0); });
    return cases;
}

}  // namespace drawing
