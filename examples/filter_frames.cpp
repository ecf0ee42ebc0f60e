// Sends the pictures of a file through a filter graph, and saves each tenth of what comes out:
//
//     kvffmpeg_example_filter_frames clip.mp4 "scale=160:90,hflip"
//
// Graphs are written in FFmpeg's syntax, and are trusted: there are filters that read and write files.

#include <kvffmpeg/kvffmpeg.h>

#include <iostream>
#include <new>

namespace {

/// The next picture of the file, with its time; an empty frame at the end.
kvffmpeg::Frame nextPicture(kvffmpeg::FormatContext& input) {
    while (const auto packet = input.readPacket()) {
        const AVStream* track = input.trackAtIndex(packet->streamIndex());
        if (track->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) continue;
        kvffmpeg::Frame frame = input.decodePacket(packet);
        if (!frame.empty()) return frame;  // else the decoder needs more packets first
    }
    return {};
}

/// What comes out of the graph when `frame` goes in; an empty frame when the graph holds it back.
kvffmpeg::Frame filtered(kvffmpeg::FFmpegFilterWrapper& filter, kvffmpeg::Frame& frame) {
    try {
        return filter.processFrame(frame);
    } catch (const std::bad_alloc&) {
        // No picture came out: some filters wait for more, as tblend does, or leave pictures out, as select
        // does.
        return {};
    }
}

}  // namespace

int main(int count, char** arguments) try {
    if (count != 3) {
        std::cerr << "usage: " << arguments[0] << " FILE FILTERS\n";
        return 2;
    }
    kvffmpeg::FormatContext input(arguments[1]);
    input.open();

    // The graph is built from the first picture, and again when pictures of another size or format follow.
    kvffmpeg::FFmpegFilterWrapper filter;
    filter.setFilterSpec(arguments[2]);

    int in = 0;
    int out = 0;
    for (kvffmpeg::Frame frame = nextPicture(input); !frame.empty(); frame = nextPicture(input)) {
        ++in;
        const kvffmpeg::Frame result = filtered(filter, frame);
        if (result.empty()) continue;
        if (out++ % 10 != 0) continue;
        const std::string name = "filtered" + std::to_string(out) + ".png";
        savePicture(result.picture(), name);
        std::cout << name << ": " << result << '\n';
    }
    std::cout << in << " pictures went in, " << out << " came out\n";
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
