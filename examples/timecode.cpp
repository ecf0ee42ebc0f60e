// Writes the time onto every 25th picture of a video, and how many there were so far:
//
//     kvffmpeg_example_timecode clip.mp4 DejaVuSansMono.ttf

#include <kvffmpeg/kvffmpeg.h>

#include <cstdint>
#include <cstdio>
#include <iostream>

namespace {

/// "0:01:02.345".
std::string text(std::int64_t microseconds) {
    const long long milliseconds = microseconds / 1000;
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%lld:%02lld:%02lld.%03lld", milliseconds / 3600000,
                  milliseconds / 60000 % 60, milliseconds / 1000 % 60, milliseconds % 1000);
    return buffer;
}

}  // namespace

int main(int count, char** arguments) try {
    if (count != 3) {
        std::cerr << "usage: " << arguments[0] << " FILE FONT\n";
        return 2;
    }
    kvffmpeg::FormatContext input(arguments[1]);
    input.open();

    // Glyphs are made when they are first needed, and kept: one renderer for all pictures.
    kvffmpeg::FreeTypeTextRenderer renderer(arguments[2], 20);
    renderer.setFontColor(kvffmpeg::Color("white"));
    renderer.setBackgroundColor(kvffmpeg::Color("navy"));
    renderer.setPadding(8, 2, 8, 2);

    int pictures = 0;
    while (const auto packet = input.readPacket()) {
        const AVStream* track = input.trackAtIndex(packet->streamIndex());
        if (track->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) continue;
        const kvffmpeg::Frame frame = input.decodePacket(packet);
        if (frame.empty() || pictures++ % 25 != 0) continue;

        // Two lines, in the lower right corner. Measuring a text lays it out; drawing it then does not.
        const std::string lines = text(frame.PTS().value()) + "\n№ " + std::to_string(pictures);
        kvffmpeg::Picture picture = frame.picture();
        const kvffmpeg::rect_size_t size = renderer.getTextSize(lines);
        picture.makeEditable();  // the frame has the same pixels still
        renderer.drawTo(picture, lines, {picture.width() - size.w, picture.height() - size.h});

        const std::string name = "timecode" + std::to_string(pictures) + ".png";
        savePicture(picture, name);
        std::cout << name << ": " << picture << ", text of " << size << '\n';
    }
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
