#include "waveform.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iomanip>
#include <new>
#include <sstream>
#include <stdexcept>

#include "console.h"
#include "kvffmpeg/audio_resampler.h"
#include "peaks.h"
#include "picture_file.h"
#include "sound_reader.h"
#include "tracks.h"
#include "waveform_picture.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace kvffmpeg::tool {
namespace {

Picture emptyPicture(rect_size_t size) {
    try {
        return Picture(size, AV_PIX_FMT_RGB24);
    } catch (const std::bad_alloc&) {
        throw std::runtime_error("--size: The picture would become too large");
    }
}

/// Mono at one rate, whatever goes in. What was given may come out with a later call.
class MonoResampler {
public:
    explicit MonoResampler(int rate) : rate_(rate) {}

    AudioBuffer resample(const AudioBuffer& sound) {
        try {
            return resampler_.resample(sound, rate_, AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16);
        } catch (const std::runtime_error&) {
            // Buffers of a few samples come to nothing yet. Where it is inside, it is delayed.
            if (resampler_.getDelay() > Timestamp(0)) return AudioBuffer();
            throw;
        }
    }

    AudioBuffer flush() { return resampler_.flush(); }

private:
    Resampler resampler_;
    int rate_;
};

void add(Peaks& peaks, const AudioBuffer& mono) {
    if (mono.empty()) return;
    const auto* samples = reinterpret_cast<const std::int16_t*>(mono.getPointersToPlanes().front());
    peaks.add(samples, static_cast<std::size_t>(mono.readableSamples()));
}

std::string durationText(std::uint64_t samples, unsigned int rate) {
    return clockText(Timestamp(static_cast<std::int64_t>(samples), Timebase{1, static_cast<int>(rate)}));
}

void show(const Progress& progress, const Input& input, std::uint64_t samples, unsigned int rate) {
    const double seconds = static_cast<double>(samples) / rate;
    const std::optional<Timestamp> duration = input.duration();
    progress.show(durationText(samples, rate), seconds,
                  duration ? std::optional<double>(seconds / duration->valueInSeconds()) : std::nullopt);
}

Peaks peaksOf(Input& input, unsigned int track, unsigned int rate) {
    Peaks peaks;
    MonoResampler resampler(static_cast<int>(rate));
    AudioBuffer previous;
    const Progress progress("x");
    SoundReader reader(input, track);
    for (;;) {
        const AudioBuffer sound = reader.next();
        // Some streams change their rate or layout on the way, and the resampler then begins anew.
        if (!sound.isCompatibleWithBuffer(previous)) add(peaks, resampler.flush());
        if (sound.empty()) break;
        add(peaks, resampler.resample(sound));
        previous = sound;
        if (progressIsDue()) show(progress, input, peaks.samples(), rate);
    }
    clearProgress();
    return peaks;
}

/// The greatest sample, in decibels below full scale.
std::string peakText(const Peaks& peaks) {
    const SampleRange range = peaks.range();
    const int peak = std::max(-int{range.least}, int{range.greatest});
    if (peak == 0) return "silent";
    // Adding 0 makes a positive zero of what rounding may have left.
    const double decibels = std::round(200 * std::log10(peak / 32768.0)) / 10 + 0.0;
    std::ostringstream text;
    text << "peak " << std::fixed << std::setprecision(1) << decibels << " dB";
    const std::uint64_t clipped = peaks.clippedSamples();
    if (clipped > 0) text << ", " << clipped << (clipped == 1 ? " clipped sample" : " clipped samples");
    return text.str();
}

std::string summaryOf(const WaveformOptions& options, const Peaks& peaks) {
    return std::to_string(options.size.w) + "x" + std::to_string(options.size.h) + ", " +
           durationText(peaks.samples(), options.rate) + ", " + peakText(peaks);
}

}  // namespace

void saveWaveform(const WaveformOptions& options) {
    const PictureOutput output(options.output);
    Picture picture = emptyPicture(options.size);
    Input input(options.input);
    output.requireFormat();
    output.refuseToOverwrite(options.input.url, "the input");
    const unsigned int track = chooseTrack(input, AVMEDIA_TYPE_AUDIO, options.track);
    discardOthers(input.context(), track);
    const Peaks peaks = peaksOf(input, track, options.rate);
    if (peaks.samples() == 0) throw std::runtime_error(input.name() + ": No sound was decoded");
    drawPeaks(picture, peaks);
    throwIfInterrupted();
    output.save(picture);
    output.summarize(summaryOf(options, peaks));
}

}  // namespace kvffmpeg::tool
