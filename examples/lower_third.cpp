// Draws a lower third over a video: a bar, and on it a badge with soft edges. Saves one picture a second or
// so:
//
//     kvffmpeg_example_lower_third clip.mp4 badge.png

#include <kvffmpeg/kvffmpeg.h>

#include <algorithm>
#include <iostream>

int main(int count, char** arguments) try {
    using kvffmpeg::Color;
    using kvffmpeg::DrawUtils;
    using kvffmpeg::Picture;

    if (count != 3) {
        std::cerr << "usage: " << arguments[0] << " FILE BADGE\n";
        return 2;
    }
    const Picture badge = kvffmpeg::loadPicture(arguments[2]);
    if (badge.empty()) throw std::runtime_error("There is no picture in the badge's file");
    kvffmpeg::FormatContext input(arguments[1]);
    input.open();

    kvffmpeg::Scaler scaler;
    Picture overlay;
    int pictures = 0;
    while (const auto packet = input.readPacket()) {
        const AVStream* track = input.trackAtIndex(packet->streamIndex());
        if (track->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) continue;
        const kvffmpeg::Frame frame = input.decodePacket(packet);
        if (frame.empty() || pictures++ % 25 != 0) continue;

        // Most video is yuv420p already; then this copies nothing. The range says what black and white are.
        const AVColorRange range = frame.picture().colorRange();
        Picture picture = scaler.convertToColorspace(frame.picture(), AV_PIX_FMT_YUV420P, range);
        const int height = picture.height() / 5 & ~1;  // even, for 4:2:0 has one colour for 2 x 2 pixels
        const int top = (picture.height() - height) & ~1;
        if (height < 8) throw std::runtime_error("The pictures are too small for a lower third");

        // An overlay has the format of what it is drawn onto, with alpha: converted once, drawn many times.
        if (overlay.empty()) {
            const int width = std::max(1, badge.width() * (height - 4) / badge.height());
            overlay = kvffmpeg::Scaler().scale(badge, {width, height - 4}, AV_PIX_FMT_YUVA420P, range);
        }

        // The frame has the same pixels still: from here on the picture has its own.
        picture.makeEditable();
        DrawUtils::fillRectangle(picture, {0, top, picture.width(), height}, Color("navy"));
        DrawUtils::compose(picture, overlay, {8, top + 2});

        const std::string name = "lower_third" + std::to_string(pictures) + ".png";
        savePicture(picture, name);
        std::cout << name << ": " << picture << '\n';
    }
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
