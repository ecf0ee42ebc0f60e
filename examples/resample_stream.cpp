// Resamples the sound of a file to 48 kHz for a device whose clock is not quite right, and tells how much the
// resampler holds back:
//
//     kvffmpeg_example_resample_stream clip.mp4 500
//
// The number is how many parts in a million the device is fast: so much sooner it will want each sample, so
// many more samples it has to be given. (A real player measures this all the time.)

#include <kvffmpeg/kvffmpeg.h>

#include <cstdint>
#include <iostream>
#include <string>

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace {

constexpr int deviceRate = 48000;

}  // namespace

int main(int count, char** arguments) try {
    if (count != 3) {
        std::cerr << "usage: " << arguments[0] << " FILE PARTS_PER_MILLION\n";
        return 2;
    }
    kvffmpeg::FormatContext input(arguments[1]);
    input.open();
    const long drift = std::stol(arguments[2]);

    kvffmpeg::Resampler resampler;
    std::int64_t received = 0;  // microseconds of sound from the file
    std::int64_t given = 0;     // samples for the device
    std::int64_t second = 0;
    while (const auto packet = input.readPacket()) {
        const AVStream* track = input.trackAtIndex(packet->streamIndex());
        if (track->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) continue;
        const kvffmpeg::Frame frame = input.decodePacket(packet);
        if (frame.empty()) continue;
        const kvffmpeg::AudioBuffer& sound = frame.audioBuffer();
        received += sound.duration().value();
        // Whole packets always give some samples. Buffers of fewer than about 50 may give none, which is told
        // by an exception; such samples come out later.
        given += static_cast<std::int64_t>(
            resampler.resample(sound, deviceRate, AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP).numberOfSamples());

        if (received / 1000000 < second) continue;
        // Once a second: how many samples the device is ahead, to be caught up with during the next second.
        ++second;
        const std::int64_t held = resampler.getDelay().value();
        const std::int64_t wanted = (received - held) * deviceRate / 1000000 * (1000000 + drift) / 1000000;
        const int missing = static_cast<int>(wanted - given);
        resampler.setCompensation(missing, deviceRate);
        std::cout << given << " samples, delay " << held << " us, compensating " << missing << " samples\n";
    }
    given += static_cast<std::int64_t>(resampler.flush().numberOfSamples());
    std::cout << given << " samples of " << deviceRate << " Hz for " << received << " us\n";
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
