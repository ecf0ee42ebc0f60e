// What becomes of a picture when the range of its colours is taken for another one. Left: samples from 16 to
// 235 (limited range), taken for full range, look washed out. Right: full range that is taken for limited
// loses its darkest and brightest parts. The middle is as it should be:
//
//     kvffmpeg_example_colour_ranges picture.png

#include <kvffmpeg/kvffmpeg.h>

#include <iostream>

namespace {

using kvffmpeg::Picture;

/// The same samples, taken for another range.
Picture takenFor(AVColorRange range, const Picture& picture) {
    Picture result(picture.size(), picture.pixelFormat(), range);
    result.fill(picture.getPlanes(), picture.getLinesize(), picture.width(), picture.height());
    return result;
}

}  // namespace

int main(int count, char** arguments) try {
    if (count != 2) {
        std::cerr << "usage: " << arguments[0] << " PICTURE\n";
        return 2;
    }
    const Picture picture = kvffmpeg::loadPicture(arguments[1]);
    if (picture.empty()) throw std::runtime_error("There is no picture in the file");

    kvffmpeg::Scaler scaler;
    // By way of RGB: from one range to another of the same format a scaler changes the label alone.
    const Picture rgb = scaler.convertToColorspace(picture, AV_PIX_FMT_RGB24, AVCOL_RANGE_JPEG);
    const Picture limited = scaler.convertToColorspace(rgb, AV_PIX_FMT_YUV444P, AVCOL_RANGE_MPEG);
    const Picture full = scaler.convertToColorspace(rgb, AV_PIX_FMT_YUV444P, AVCOL_RANGE_JPEG);
    const Picture parts[] = {takenFor(AVCOL_RANGE_JPEG, limited), limited, takenFor(AVCOL_RANGE_MPEG, full)};

    Picture result(picture.size(), AV_PIX_FMT_RGB24, AVCOL_RANGE_JPEG);
    int x = 0;
    for (const Picture& part : parts) {
        const int right = (x + picture.width() / 3 + 1) & ~1;  // even, as bitblt's positions are
        const Picture shown = scaler.convertToColorspace(part, result.pixelFormat(), result.colorRange());
        result.bitblt(shown.crop({x, 0, picture.width() - x, picture.height()}), {x, 0});
        x = right;
    }
    savePicture(result, "colour_ranges.png");
    std::cout << "colour_ranges.png: " << result << '\n';
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
