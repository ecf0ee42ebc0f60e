// Puts a picture of any shape into an upright one, before an enlarged and blurred copy of itself, as video
// for telephones often is:
//
//     kvffmpeg_example_upright picture.png

#include <kvffmpeg/kvffmpeg.h>

#include <algorithm>
#include <cmath>
#include <iostream>

namespace {

using kvffmpeg::rect_size_t;

/// `size`, so many times as large, in even numbers for 4:2:0.
rect_size_t times(rect_size_t size, double factor) {
    return {std::max(2, static_cast<int>(std::lround(size.w * factor)) & ~1),
            std::max(2, static_cast<int>(std::lround(size.h * factor)) & ~1)};
}

}  // namespace

int main(int count, char** arguments) try {
    using kvffmpeg::Picture;

    if (count != 2) {
        std::cerr << "usage: " << arguments[0] << " PICTURE\n";
        return 2;
    }
    const Picture picture = kvffmpeg::loadPicture(arguments[1]);
    if (picture.empty()) throw std::runtime_error("There is no picture in the file");

    constexpr rect_size_t frame{180, 320};
    const double across = static_cast<double>(frame.w) / picture.width();
    const double down = static_cast<double>(frame.h) / picture.height();
    // By way of RGB: from one range to another of the same format a scaler changes the label alone.
    kvffmpeg::Scaler scaler;
    scaler.setAlgorithm(kvffmpeg::Scaler::bicubic);
    const Picture rgb = scaler.convertToColorspace(picture, AV_PIX_FMT_RGB24, AVCOL_RANGE_JPEG);

    // All of the picture, as large as fits.
    const Picture whole =
        scaler.scale(rgb, times(rgb.size(), std::min(across, down)), AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG);

    // Its middle in the frame's shape, which leaves nothing of the frame free.
    const rect_size_t part = times(frame, 1 / std::max(across, down));
    const kvffmpeg::rect_t middle =
        kvffmpeg::center_rect_in_container({0, 0, part.w, part.h}, {0, 0, rgb.width(), rgb.height()});
    Picture background = scaler.scale(rgb.crop(middle), frame, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG);
    kvffmpeg::FFmpegFilterWrapper blur;
    blur.setFilterSpec("gblur=sigma=6");
    Picture result = blur.processPicture(background);

    const kvffmpeg::rect_t place = kvffmpeg::center_rect_in_container(
        {0, 0, whole.width(), whole.height()}, {0, 0, result.width(), result.height()});
    result.makeEditable();
    kvffmpeg::DrawUtils::compose(result, whole, {place.x, place.y});
    savePicture(result, "upright.png");
    std::cout << "upright.png: " << result << ", the whole picture at " << place << '\n';
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
