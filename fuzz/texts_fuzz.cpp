// Everything that reads a text: colours, channel maps, names of scaling algorithms and of input formats,
// UTF-8, metadata; and the texts of times.
//
// The first byte chooses which, the rest is the text.

#include <sstream>

#include "ffmpeg_compat.h"
#include "fuzz_support.h"
#include "input_rules.h"
#include "utf8.h"

namespace kvffmpeg {
namespace {

using fuzz::mayThrow;

void color(const std::string& text) {
    Color parsed;
    if (mayThrow([&] { parsed = Color(text); })) {
        KVFFMPEG_FUZZ_REQUIRE(parsed.red <= 255 && parsed.green <= 255 && parsed.blue <= 255 &&
                              parsed.alpha <= 255);
        std::ostringstream told;
        told << parsed;
        KVFFMPEG_FUZZ_REQUIRE(told.str().front() == '#');
    }
    // A stream of words, each a colour.
    std::istringstream in(text);
    mayThrow([&] {
        Color word;
        while (in.good()) in >> word;
    });
}

void channelMap(const std::string& text) {
    Resampler resampler;
    const bool accepted = mayThrow([&] { resampler.setChannelMapping(text); });
    KVFFMPEG_FUZZ_REQUIRE(accepted == (std::count(text.begin(), text.end(), '|') < 8));
    for (const std::uint64_t layout :
         {std::uint64_t{AV_CH_LAYOUT_STEREO}, std::uint64_t{AV_CH_LAYOUT_5POINT1}}) {
        mayThrow([&] {
            AudioBuffer audio(layout, AV_SAMPLE_FMT_S16);
            audio.setSampleRate(8000);
            audio.createPlanes();
            audio.resize(16);
            resampler.remap(audio);
            resampler.flush();
        });
    }
}

void algorithm(const std::string& text) {
    Scaler scaler;
    const Scaler::ScalingAlgorithm before = scaler.algorithm();
    if (!mayThrow([&] { scaler.setAlgorithm(text); })) {
        KVFFMPEG_FUZZ_REQUIRE(scaler.algorithm() == before);
        return;
    }
    const Picture source({4, 4}, AV_PIX_FMT_YUV420P);
    mayThrow([&] { scaler.scale(source, {9, 7}); });
}

void inputFormat(const std::string& text) {
    // Those that read no file wait for a network.
    const AVInputFormat* format = av_find_input_format(text.c_str());
    if (format && (format->flags & AVFMT_NOFILE) != 0) return;
    static const std::uint8_t bytes[64] = {};
    const fuzz::MemoryFile file(bytes, sizeof bytes);
    FormatContext input(file.path());
    mayThrow([&] {
        input.open(text, false);
        input.readPacket();
    });
}

/// The text that UTF-8 says for these code points.
std::string encode(const std::u32string& codePoints) {
    std::string text;
    const auto add = [&](char32_t bits) { text += static_cast<char>(static_cast<unsigned char>(bits)); };
    for (const char32_t c : codePoints) {
        if (c < 0x80) {
            add(c);
            continue;
        }
        if (c < 0x800) {
            add(0xC0 | c >> 6);
        } else {
            if (c < 0x10000) {
                add(0xE0 | c >> 12);
            } else {
                add(0xF0 | c >> 18);
                add(0x80 | (c >> 12 & 0x3F));
            }
            add(0x80 | (c >> 6 & 0x3F));
        }
        add(0x80 | (c & 0x3F));
    }
    return text;
}

void utf8(const std::string& text) {
    std::u32string decoded;
    if (mayThrow([&] { decoded = decodeUtf8(text); })) KVFFMPEG_FUZZ_REQUIRE(encode(decoded) == text);
}

void metadata(const std::string& text) {
    const std::size_t middle = text.find('=');
    const std::string key = text.substr(0, middle);
    const std::string value = middle == std::string::npos ? std::string() : text.substr(middle + 1);
    Metadata entries;
    entries.addValue(key, value);
    KVFFMPEG_FUZZ_REQUIRE(entries.hasKey(key) && entries.getValue(key) == value && entries.size() == 1);
    std::ostringstream told;
    told << entries;

    AVFormatContext* context = avformat_alloc_context();
    if (context) {
        av_dict_set(&context->metadata, "timeorigin", text.c_str(), 0);
        av_dict_set(&context->metadata, key.c_str(), value.c_str(), 0);
        timeOriginOf(*context, 0);
        const Metadata copied(context->metadata);
        std::ostringstream toldCopy;
        toldCopy << copied;
    }
    avformat_free_context(context);
}

void times(fuzz::Input input) {
    const auto time = [&] {
        const std::int64_t value = input.signed64();
        const std::int32_t num = input.signed32();
        const std::int32_t den = input.signed32();
        // By contract time bases are not checked; FFmpeg takes any of them but these.
        return Timestamp(value, std::max(num, 0), den > 0 ? den : 1);
    };
    const Timestamp a = time();
    const Timestamp b = time();
    const auto factor = static_cast<float>(input.signed32()) / 1000.0F;
    for (const Timestamp& t : {a, b, a + b, a - b, a * factor, a / factor}) {
        std::ostringstream told;
        told << t << t.timeBase();
        KVFFMPEG_FUZZ_REQUIRE(!t.debugDescription().empty());
        (void)t.valueInSeconds();
    }
    Timestamp next = a;
    ++next;
    (void)a.rescale(Timebase{1, 1000000});
    (void)Timestamp::rescaleUp(a, Timebase{1, 1000000});
    (void)(a < b || a <= b || a > b || a >= b);
    KVFFMPEG_FUZZ_REQUIRE((a == b) != (a != b));
    (void)helpers::gcd(a.timeBase().num, b.timeBase().den);
    (void)helpers::lcm(a.timeBase().den, b.timeBase().den);
}

}  // namespace
}  // namespace kvffmpeg

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kvffmpeg;
    // In old releases input formats are known only then.
    static const bool prepared = (compat::registerAll(), fuzz::prepare());
    (void)prepared;
    fuzz::Input input(data, size);
    const std::uint8_t choice = input.byte();
    const fuzz::Input numbers = input;
    const std::string text = input.text(4096);
    switch (choice) {
        case 'c':
            color(text);
            break;
        case 'm':
            channelMap(text);
            break;
        case 'a':
            algorithm(text);
            break;
        case 'f':
            inputFormat(text);
            break;
        case 'u':
            utf8(text);
            break;
        case 'd':
            metadata(text);
            break;
        case 't':
            times(numbers);
            break;
        default:
            break;
    }
    return 0;
}
