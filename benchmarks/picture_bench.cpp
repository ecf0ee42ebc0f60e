#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <utility>

#include "kvffmpeg/picture.h"

namespace {

using kvffmpeg::Picture;

Picture fullHd() {
    Picture picture({1920, 1080}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG, 1);
    std::memset(picture.buffer()->data(), 100, picture.buffer()->size());
    return picture;
}

void pictureCopy(benchmark::State& state) {
    const Picture picture = fullHd();
    for (auto unused : state) {
        static_cast<void>(unused);
        Picture copy = picture;
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(pictureCopy);

void pictureMove(benchmark::State& state) {
    Picture picture = fullHd();
    for (auto unused : state) {
        static_cast<void>(unused);
        Picture moved = std::move(picture);
        benchmark::DoNotOptimize(moved);
        picture = std::move(moved);
    }
}
BENCHMARK(pictureMove);

void pictureCrop(benchmark::State& state) {
    const Picture picture = fullHd();
    for (auto unused : state) {
        static_cast<void>(unused);
        Picture view = picture.crop({100, 100, 640, 480});
        benchmark::DoNotOptimize(view);
    }
}
BENCHMARK(pictureCrop);

void pictureMakeEditableOfAShared(benchmark::State& state) {
    const Picture picture = fullHd();
    for (auto unused : state) {
        static_cast<void>(unused);
        Picture copy = picture;
        copy.makeEditable();
        benchmark::DoNotOptimize(copy.getPlanes()[0]);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(picture.getVideoBufferSize()));
}
BENCHMARK(pictureMakeEditableOfAShared)->Unit(benchmark::kMicrosecond);

/// What copying the same bytes costs at least.
void memcpyOfAsMuch(benchmark::State& state) {
    const Picture picture = fullHd();
    const std::size_t size = picture.getVideoBufferSize();
    for (auto unused : state) {
        static_cast<void>(unused);
        Picture copy(picture.size(), picture.pixelFormat(), picture.colorRange(), 1);
        std::memcpy(copy.buffer()->data(), picture.buffer()->data(), size);
        benchmark::DoNotOptimize(copy.getPlanes()[0]);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}
BENCHMARK(memcpyOfAsMuch)->Unit(benchmark::kMicrosecond);

void pictureMakeEditableOfACrop(benchmark::State& state) {
    const Picture picture = fullHd();
    for (auto unused : state) {
        static_cast<void>(unused);
        Picture view = picture.crop({100, 100, 640, 480});
        view.makeEditable();
        benchmark::DoNotOptimize(view.getPlanes()[0]);
    }
}
BENCHMARK(pictureMakeEditableOfACrop)->Unit(benchmark::kMicrosecond);

void pictureCompare(benchmark::State& state) {
    const Picture a = fullHd();
    const Picture b = fullHd();
    for (auto unused : state) {
        static_cast<void>(unused);
        benchmark::DoNotOptimize(a == b);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(a.getVideoBufferSize()));
}
BENCHMARK(pictureCompare)->Unit(benchmark::kMicrosecond);

}  // namespace
