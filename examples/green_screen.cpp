// Puts somebody who stands before a green screen into another picture, the first one of a file:
//
//     kvffmpeg_example_green_screen clip.mp4

#include <kvffmpeg/kvffmpeg.h>

#include <algorithm>
#include <iostream>

namespace {

using kvffmpeg::Color;
using kvffmpeg::DrawUtils;
using kvffmpeg::Picture;

const Color green(0, 177, 64);

/// The first picture of the file.
Picture firstPicture(const char* path) {
    kvffmpeg::FormatContext input(path);
    input.open();
    while (const auto packet = input.readPacket()) {
        const AVStream* track = input.trackAtIndex(packet->streamIndex());
        if (track->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) continue;
        const kvffmpeg::Frame frame = input.decodePacket(packet);
        if (!frame.empty()) return frame.picture();
    }
    throw std::runtime_error("There is no picture in the file");
}

/// In place of a studio: a screen that is lit unevenly, and a figure of a head and a body before it.
Picture studio(kvffmpeg::rect_size_t size) {
    Picture picture(size, AV_PIX_FMT_YUV420P);
    DrawUtils::fillRectangle(picture, green);
    DrawUtils::fillRectangle(picture, {0, 0, size.w / 2, size.h}, Color(20, 160, 70));  // in the shade
    DrawUtils::fillRectangle(picture, {size.w * 3 / 8, size.h / 2, size.w / 4, size.h / 2}, Color("maroon"));
    DrawUtils::fillRectangle(picture, {size.w * 7 / 16, size.h / 5, size.w / 8, size.h / 4}, Color("wheat"));
    return picture;
}

}  // namespace

int main(int count, char** arguments) try {
    if (count != 2) {
        std::cerr << "usage: " << arguments[0] << " BACKGROUND\n";
        return 2;
    }
    // What is drawn onto has to be yuv420p for an overlay that is yuva420p.
    const Picture first = firstPicture(arguments[1]);
    Picture scene = kvffmpeg::Scaler().convertToColorspace(first, AV_PIX_FMT_YUV420P, first.colorRange());

    // A copy in yuva420p whose alpha is 0 where the colour is the key's, or up to 0.2 of all chroma away from
    // it, and rises to 255 within a little more. Only chroma counts: a shade on the screen is still green.
    constexpr float similarity = 0.2F;
    constexpr float blend = 0.02F;
    const Picture figure = kvffmpeg::ImageUtils::chromaKeying(studio(scene.size()), green, similarity, blend);

    scene.makeEditable();
    DrawUtils::compose(scene, figure, {0, 0});
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
