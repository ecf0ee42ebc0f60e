#include <kvffmpeg/kvffmpeg.h>
#include <logger/logger.h>

#include <iostream>

int main(int count, char** arguments) try {
    if (count != 2) return 2;
    // By its number, since another logger may have another name for the level.
    logger::log(static_cast<logger::Level>(2)) << "told by the consumer: " << 42;

    kvffmpeg::FormatContext input(arguments[1]);
    input.open();
    kvffmpeg::Picture picture;
    while (const auto packet = input.readPacket()) {
        const kvffmpeg::Frame frame = input.decodePacket(packet);
        if (picture.empty()) picture = frame.picture();
    }
    std::cout << input.tracksNumber() << " tracks, first picture " << picture.size() << '\n';
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
