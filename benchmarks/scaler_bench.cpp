// Scaler beside a plain call of libswscale into memory that was allocated once: what the fresh, tightly
// packed result costs.

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "kvffmpeg/scaler.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace {

using kvffmpeg::Picture;
using kvffmpeg::rect_size_t;
using kvffmpeg::Scaler;

struct Conversion {
    rect_size_t from;
    AVPixelFormat fromFormat;
    rect_size_t to;
    AVPixelFormat toFormat;
};

Picture source(const Conversion& conversion) {
    Picture picture(conversion.from, conversion.fromFormat, AVCOL_RANGE_UNSPECIFIED, 1);
    std::memset(picture.buffer()->data(), 100, picture.buffer()->size());
    return picture;
}

void withScaler(benchmark::State& state, const Conversion& conversion) {
    const Picture picture = source(conversion);
    Scaler scaler;
    for (auto unused : state) {
        static_cast<void>(unused);
        Picture result = scaler.scale(picture, conversion.to, conversion.toFormat, AVCOL_RANGE_UNSPECIFIED);
        benchmark::DoNotOptimize(result.getPlanes()[0]);
    }
}

void withLibswscale(benchmark::State& state, const Conversion& conversion) {
    const Picture picture = source(conversion);
    std::uint8_t* planes[4];
    int linesizes[4];
    av_image_alloc(planes, linesizes, conversion.to.w, conversion.to.h, conversion.toFormat, 64);
    SwsContext* context =
        sws_getContext(conversion.from.w, conversion.from.h, conversion.fromFormat, conversion.to.w,
                       conversion.to.h, conversion.toFormat, SWS_BILINEAR, nullptr, nullptr, nullptr);
    for (auto unused : state) {
        static_cast<void>(unused);
        sws_scale(context, picture.getPlanes(), picture.getLinesize(), 0, conversion.from.h, planes,
                  linesizes);
        benchmark::DoNotOptimize(planes[0]);
    }
    sws_freeContext(context);
    av_freep(&planes[0]);
}

const bool registered = [] {
    const Conversion conversions[] = {
        {{1920, 1080}, AV_PIX_FMT_YUV420P, {1920, 1080}, AV_PIX_FMT_RGBA},
        {{1920, 1080}, AV_PIX_FMT_YUV420P, {960, 540}, AV_PIX_FMT_YUV420P},
        {{1280, 720}, AV_PIX_FMT_YUV420P, {1280, 720}, AV_PIX_FMT_RGB24},
        {{640, 480}, AV_PIX_FMT_YUV420P, {640, 480}, AV_PIX_FMT_BGRA},
        {{854, 480}, AV_PIX_FMT_YUV420P, {854, 480}, AV_PIX_FMT_RGB24},
        {{854, 480}, AV_PIX_FMT_NV12, {854, 480}, AV_PIX_FMT_YUV420P},
    };
    for (const Conversion& conversion : conversions) {
        const std::string name = std::to_string(conversion.from.w) + "x" + std::to_string(conversion.from.h) +
                                 "_" + av_get_pix_fmt_name(conversion.fromFormat) + "_to_" +
                                 std::to_string(conversion.to.w) + "x" + std::to_string(conversion.to.h) +
                                 "_" + av_get_pix_fmt_name(conversion.toFormat);
        benchmark::RegisterBenchmark(("scale/scaler/" + name).c_str(), withScaler, conversion)
            ->Unit(benchmark::kMicrosecond);
        // libswscale itself crashes on this one when the planes are packed as tightly as the picture's.
        if (conversion.fromFormat == AV_PIX_FMT_NV12) continue;
        benchmark::RegisterBenchmark(("scale/libswscale/" + name).c_str(), withLibswscale, conversion)
            ->Unit(benchmark::kMicrosecond);
    }
    return true;
}();

}  // namespace
