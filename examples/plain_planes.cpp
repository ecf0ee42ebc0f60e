// Draws onto a frame of FFmpeg's own that is no kvffmpeg::Picture: three lights through a mask with a soft
// edge.
//
//     kvffmpeg_example_plain_planes

#include <kvffmpeg/kvffmpeg.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <memory>
#include <new>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
}

namespace {

struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

std::unique_ptr<AVFrame, FrameDeleter> newFrame(int width, int height) {
    std::unique_ptr<AVFrame, FrameDeleter> frame(av_frame_alloc());
    if (!frame) throw std::bad_alloc();
    frame->width = width;
    frame->height = height;
    frame->format = AV_PIX_FMT_YUV420P;
    if (av_frame_get_buffer(frame.get(), 32) < 0) throw std::bad_alloc();
    return frame;
}

/// One byte a pixel: 255 within a disc, falling to 0 at its edge.
std::vector<unsigned char> softDisc(int side) {
    std::vector<unsigned char> mask(static_cast<std::size_t>(side) * static_cast<std::size_t>(side));
    auto* value = mask.data();
    for (int y = 0; y < side; ++y) {
        for (int x = 0; x < side; ++x) {
            const double inside = 1 - std::hypot(2.0 * x / side - 1, 2.0 * y / side - 1);
            *value++ = static_cast<unsigned char>(255 * std::clamp(3 * inside, 0.0, 1.0));
        }
    }
    return mask;
}

}  // namespace

int main() try {
    using kvffmpeg::Color;

    const auto frame = newFrame(320, 180);
    const kvffmpeg::FFDrawContext context = kvffmpeg::initDrawContext(AV_PIX_FMT_YUV420P, false);
    const kvffmpeg::FFDrawColor night = initDrawColor(context, Color(16, 16, 40));
    ff_fill_rectangle(&context, &night, frame->data, frame->linesize, 0, 0, frame->width, frame->height);

    constexpr int side = 120;
    const std::vector<unsigned char> mask = softDisc(side);
    constexpr int log2BitsPerPixel = 3;
    int x = 30;
    for (const Color& light : {Color(255, 60, 40, 180), Color(60, 220, 60, 180), Color(60, 100, 255, 180)}) {
        const kvffmpeg::FFDrawColor color = initDrawColor(context, light);
        ff_blend_mask(&context, &color, frame->data, frame->linesize, frame->width, frame->height,
                      mask.data(), side, side, side, log2BitsPerPixel, 0, x, 30);
        x += 70;
    }
    const kvffmpeg::Picture picture(frame.get());
    savePicture(picture, "plain_planes.png");
    std::cout << "plain_planes.png: " << picture << '\n';
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
