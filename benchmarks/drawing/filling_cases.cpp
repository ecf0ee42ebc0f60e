#include <cstring>

#include "contest.h"
#include "kvffmpeg/draw_utils.h"
#include "kvffmpeg/ffdraw.h"
#include "pictures.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace drawing {
namespace {

const kvffmpeg::Color orange(255, 128, 0);

Contest fillContest(kvffmpeg::rect_size_t size, AVPixelFormat format) {
    const Pictures pictures = makePictures(size, format);
    const Frames frames = framesOf(*pictures);
    const kvffmpeg::FFDrawContext context = kvffmpeg::initDrawContext(format, false);
    const kvffmpeg::FFDrawColor color = kvffmpeg::initDrawColor(context, orange);

    Contest result{
        {{"kvffmpeg",
          [=](std::size_t frame) { kvffmpeg::DrawUtils::fillRectangle((*pictures)[frame], orange); }, true},
         {"memset",
          [=](std::size_t frame) { std::memset(frames[frame].plane(0), 1, frames[frame].bytes()); }}},
        {},
        frames};
    if (format == AV_PIX_FMT_YUV420P) {
        result.contenders.push_back(
            {"libyuv", libyuvI420Rect(frames, color.comp[0].u8[0], color.comp[1].u8[0], color.comp[2].u8[0]),
             true});
    }
    if (size == large) {
        result.goals = {{1.03, {"memset"}}};
    } else {
        result.goals = {{0.80, {"libyuv"}}};
    }
    return result;
}

Contest copyContest() {
    const Frames frames = makeFrames(large, AV_PIX_FMT_YUV420P);
    const Image source(large, AV_PIX_FMT_YUV420P, 2);
    const kvffmpeg::FFDrawContext context = kvffmpeg::initDrawContext(AV_PIX_FMT_YUV420P, false);
    const Work ours = [=](std::size_t frame) {
        kvffmpeg::ff_copy_rectangle2(&context, frames[frame].planes(), frames[frame].linesizes(),
                                     source.planes(), source.linesizes(), 0, 0, 0, 0, large.w, large.h);
    };
    const Work rows = [=](std::size_t frame) {
        for (const int plane : {0, 1, 2}) {
            const int shift = plane == 0 ? 0 : 1;
            for (int y = 0; y < large.h >> shift; ++y) {
                std::memcpy(frames[frame].row(plane, y), source.row(plane, y),
                            static_cast<std::size_t>(large.w >> shift));
            }
        }
    };
    return {{{"kvffmpeg", ours, true}, {"memcpy", rows, true}}, {{1.03, {"memcpy"}}}, frames};
}

}  // namespace

std::vector<Case> fillingCases() {
    std::vector<Case> cases;
    for (const AVPixelFormat format :
         {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA, AV_PIX_FMT_RGB24, AV_PIX_FMT_YUV420P10LE}) {
        cases.push_back({"DrawUtils::fillRectangle", av_get_pix_fmt_name(format), large,
                         [=] { return fillContest(large, format); }});
    }
    cases.push_back({"DrawUtils::fillRectangle", "yuv420p", inCache,
                     [] { return fillContest(inCache, AV_PIX_FMT_YUV420P); }});
    cases.push_back({"ff_copy_rectangle2", "yuv420p", large, copyContest});
    return cases;
}

}  // namespace drawing
