// Puts somebody who stands before a green screen into another picture:
//
//     kvffmpeg_example_green_screen studio.png background.png

#include <kvffmpeg/kvffmpeg.h>

#include <algorithm>
#include <iostream>

namespace {

using kvffmpeg::Picture;

/// The picture of the file; every picture in one format and range, so that all go together. By way of RGB,
/// since from one range to another of the same format a scaler changes the label alone.
Picture load(const char* path) {
    const Picture picture = kvffmpeg::loadPicture(path);
    if (picture.empty()) throw std::runtime_error(std::string("There is no picture in ") + path);
    kvffmpeg::Scaler scaler;
    return scaler.convertToColorspace(scaler.convertToColorspace(picture, AV_PIX_FMT_RGB24, AVCOL_RANGE_JPEG),
                                      AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG);
}

}  // namespace

int main(int count, char** arguments) try {
    if (count != 3) {
        std::cerr << "usage: " << arguments[0] << " STUDIO BACKGROUND\n";
        return 2;
    }
    const Picture studio = load(arguments[1]);
    Picture scene = kvffmpeg::Scaler().scale(load(arguments[2]), studio.size());

    // A copy in yuva420p whose alpha is 0 where the colour is the key's, or up to 0.2 of all chroma away from
    // it, and rises to 255 within a little more. Only chroma counts: a shade on the screen is still green.
    const kvffmpeg::Color green(0, 177, 64);
    constexpr float similarity = 0.2F;
    constexpr float blend = 0.02F;
    const Picture figure = kvffmpeg::ImageUtils::chromaKeying(studio, green, similarity, blend);

    scene.makeEditable();
    kvffmpeg::DrawUtils::compose(scene, figure, {0, 0});
    savePicture(scene, "green_screen.png");

    long transparent = 0;
    for (int y = 0; y < figure.height(); ++y) {
        const unsigned char* alpha = figure.getPlanes()[3] + y * figure.getLinesize()[3];
        transparent += std::count(alpha, alpha + figure.width(), 0);
    }
    std::cout << "green_screen.png: " << scene << ", " << transparent << " of "
              << scene.width() * scene.height() << " pixels show the background\n";
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
