#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>

#include "contest.h"
#include "kernels.h"
#include "pictures.h"

namespace drawing {
namespace {

Contest composeContest(Alpha alpha) {
    const Image noise(large, AV_PIX_FMT_BGRA, 2);
    setAlpha(noise, alpha);
    const auto overlay = std::make_shared<kvffmpeg::Picture>(pictureOf(noise));
    const Image overlayView(*overlay);
    const Pictures pictures = makePictures(large, AV_PIX_FMT_YUV420P);
    const Frames frames = framesOf(*pictures);
    const Image converted(large, AV_PIX_FMT_YUV420P, 3);
    return {{{"kvffmpeg",
              [=](std::size_t frame) {
                  (*pictures)[frame].compose(*overlay, {0, 0});
              }},
             {"libswscale", swscaleConversion(converted, overlayView)},
             {"libavfilter", libavfilterOverlay(frames, overlayView)}},
            {{1.10, {"libswscale"}}, {0.62, {"libavfilter"}}},
            frames};
}

Contest lutContest() {
    const Pictures pictures = makePictures(large, AV_PIX_FMT_YUV420P);
    const Frames frames = framesOf(*pictures);
    std::vector<std::uint8_t> table(256);
    std::iota(table.begin(), table.end(), std::uint8_t{0});
    std::shuffle(table.begin(), table.end(), makeRandom(4));
    std::uint8_t entries[256];
    std::copy(table.begin(), table.end(), entries);
    const bool hasVbmi = std::strcmp(kvffmpeg::kernels::active().name, "avx512vbmi") == 0;
    return {{{"kvffmpeg", [=](std::size_t frame) { (*pictures)[frame].applyLUT(0, table); }, true},
             {"OpenCV", opencvLut(frames, entries), true}},
            {{hasVbmi ? 0.13 : 0.59, {"OpenCV"}}},
            frames};
}

}  // namespace

std::vector<Case> editingCases() {
    return {
        {"Picture::compose", "BGRA, noise alpha", large, [] { return composeContest(Alpha::noise); }},
        {"Picture::compose", "BGRA, logo mask", large, [] { return composeContest(Alpha::logo); }},
        {"Picture::applyLUT", "luma", large, lutContest},
    };
}

}  // namespace drawing
