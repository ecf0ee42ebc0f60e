// The input as the text of a filter graph, for a small picture and for a little audio.
//
// A filter text is a program: it can read and write files, and ask for any amount of time and memory. That is
// its writer's business and no find. Texts are left out that name a filter which is not in the list below,
// that take an option's value from a file, or that have large numbers.

#include <cctype>

#include "fuzz_support.h"

extern "C" {
#include <libavfilter/avfilter.h>
}

namespace kvffmpeg {
namespace {

using fuzz::mayThrow;

/// Of the filters that neither open anything nor make much of little. Without avgblur, which takes 128 MB.
constexpr const char* harmlessFilters[] = {"acopy",
                                           "aecho",
                                           "aeval",
                                           "aformat",
                                           "alphaextract",
                                           "alphamerge",
                                           "amerge",
                                           "amix",
                                           "anull",
                                           "anullsink",
                                           "apad",
                                           "aresample",
                                           "areverse",
                                           "asetnsamples",
                                           "asetpts",
                                           "asetrate",
                                           "asettb",
                                           "asplit",
                                           "atrim",

                                           "bandpass",
                                           "bass",
                                           "blend",
                                           "boxblur",
                                           "channelmap",
                                           "channelsplit",
                                           "chromashift",
                                           "colorbalance",
                                           "colorchannelmixer",
                                           "colorkey",
                                           "copy",
                                           "crop",
                                           "dcshift",
                                           "delogo",
                                           "dilation",
                                           "drawbox",
                                           "drawgrid",
                                           "edgedetect",
                                           "eq",
                                           "equalizer",
                                           "erosion",
                                           "extractplanes",
                                           "fade",
                                           "field",
                                           "fieldorder",
                                           "format",
                                           "gblur",
                                           "gradfun",
                                           "hflip",
                                           "highpass",
                                           "hqdn3d",
                                           "hstack",
                                           "hue",
                                           "il",
                                           "interlace",
                                           "join",
                                           "lowpass",
                                           "lut",
                                           "lutrgb",
                                           "lutyuv",
                                           "mergeplanes",
                                           "negate",
                                           "noformat",
                                           "noise",
                                           "null",
                                           "nullsink",
                                           "overlay",
                                           "pad",
                                           "pan",
                                           "pixdesctest",
                                           "pseudocolor",
                                           "reverse",
                                           "rotate",
                                           "scale",
                                           "select",
                                           "setdar",
                                           "setfield",
                                           "setpts",
                                           "setsar",
                                           "settb",
                                           "shuffleplanes",
                                           "smartblur",
                                           "split",
                                           "swapuv",
                                           "tile",
                                           "transpose",
                                           "treble",
                                           "trim",
                                           "unsharp",
                                           "vflip",
                                           "vignette",
                                           "volume",
                                           "vstack",
                                           "yadif"};

constexpr int mostDigits = 3;
constexpr std::size_t longestText = 300;

bool isWordCharacter(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool isHarmless(const std::string& filter) {
    return std::any_of(std::begin(harmlessFilters), std::end(harmlessFilters),
                       [&](const char* harmless) { return filter == harmless; });
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// Whether the text can be tried. In doubt it is left out.
bool canBeTried(const std::string& text) {
    if (text.size() > longestText) return false;
    // Names may be written with quotes and backslashes, so what is looked at is the text without.
    std::string plain;
    std::copy_if(text.begin(), text.end(), std::back_inserter(plain),
                 [](char c) { return c != '\\' && c != '\''; });

    int digits = 0;
    for (std::size_t i = 0; i < plain.size(); ++i) {
        digits = isDigit(plain[i]) ? digits + 1 : 0;
        if (digits > mostDigits) return false;
        const bool afterDigit = i > 0 && (isDigit(plain[i - 1]) || plain[i - 1] == '.');
        // 9e9, 9M and 0xFFFFF are large as well, as are powers.
        if (afterDigit && std::isalpha(static_cast<unsigned char>(plain[i])) != 0) return false;
        if (plain[i] == '^') return false;
        // "/option=path" reads the value from a file, from FFmpeg 6.1 on.
        if (plain[i] == '/') {
            std::size_t before = i;
            while (before > 0 && std::isspace(static_cast<unsigned char>(plain[before - 1])) != 0) --before;
            if (before == 0 || plain[before - 1] == '=' || plain[before - 1] == ':') return false;
        }
    }
    if (plain.find("pow") != std::string::npos || plain.find("exp") != std::string::npos) return false;

    for (auto from = plain.begin(); from != plain.end();) {
        from = std::find_if(from, plain.end(), isWordCharacter);
        const auto to = std::find_if_not(from, plain.end(), isWordCharacter);
        const std::string word(from, to);
        if (avfilter_get_by_name(word.c_str()) && !isHarmless(word)) return false;
        from = to;
    }
    return true;
}

void filterPictures(const std::string& text) {
    FFmpegFilterWrapper filter;
    filter.setFilterSpec(text);
    for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA}) {
        for (std::int64_t time = 0; time < 3; ++time) {
            mayThrow([&] {
                Picture picture({20, 14}, format);
                picture.fillWithDebugData();
                Frame frame(std::move(picture), Timestamp(time));
                const Frame filtered = filter.processFrame(frame);
                (void)filtered.debugDescription();
            });
        }
    }
}

AudioBuffer someAudio() {
    AudioBuffer audio(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP);
    audio.setSampleRate(8000);
    audio.createPlanes();
    audio.resize(64);
    for (std::uint8_t* plane : audio.getPointersToPlanes()) std::memset(plane, 0, 64 * sizeof(float));
    return audio;
}

void filterAudio(const std::string& text) {
    FFmpegFilterWrapper filter;
    filter.setFilterSpec(text);
    for (std::int64_t time = 0; time < 3; ++time) {
        mayThrow([&] {
            Frame frame(someAudio(), Timestamp(time * 8000));
            const Frame filtered = filter.processFrame(frame);
            (void)filtered.debugDescription();
        });
    }
}

}  // namespace
}  // namespace kvffmpeg

// Asked for by clang's leak sanitizer. FFmpeg leaks where a filter cannot be configured, "scale=10:0:7" for
// one; of such blocks no more is known than that libavutil gave them out.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libavutil";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kvffmpeg;
    // In old releases filters are known only after the library has built a graph.
    static const bool prepared = [] {
        fuzz::prepare();
        filterPictures("null");
        return true;
    }();
    (void)prepared;
    const std::string text(data, data + size);
    if (!canBeTried(text)) return -1;
    filterPictures(text);
    filterAudio(text);
    return 0;
}
