// The first program that a user writes. The README shows the lines between the two marks; `scripts/check
// lint` compares them.

// [first steps]
#include <kvffmpeg/kvffmpeg.h>

#include <iostream>

int main(int count, char** arguments) try {
    kvffmpeg::FormatContext input(count > 1 ? arguments[1] : "examples/media/clip.mp4");
    input.open();
    for (unsigned track = 0; track < input.tracksNumber(); ++track)
        std::cout << "track " << track << ": "
                  << avcodec_get_name(input.trackAtIndex(track)->codecpar->codec_id) << '\n';

    kvffmpeg::Scaler scaler;
    for (int saved = 0; saved < 3;) {
        const auto packet = input.readPacket();
        if (!packet) break;  // the end of the file
        const AVStream* track = input.trackAtIndex(packet->streamIndex());
        if (track->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) continue;
        const kvffmpeg::Frame frame = input.decodePacket(packet);
        if (frame.empty()) continue;  // the decoder needs more packets first
        std::cout << frame << '\n';
        savePicture(scaler.scale(frame.picture(), {640, 360}), "picture" + std::to_string(++saved) + ".png");
    }
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
// [/first steps]
