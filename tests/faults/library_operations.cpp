// The operations that are made to fail. Each runs what it names and nothing else: files, pictures and objects
// that it starts from are made ready before.

#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "operation.h"
#include "support/media.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
}

namespace kvffmpeg::faults {
namespace {

constexpr std::uint64_t stereo = AV_CH_LAYOUT_STEREO;
constexpr std::uint64_t mono = AV_CH_LAYOUT_MONO;

struct FreeFrame {
    void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FreeFrame>;

/// A picture that compresses, moves in every plane, and is the same each time.
Picture pattern(rect_size_t size, AVPixelFormat format, AVColorRange range = AVCOL_RANGE_UNSPECIFIED) {
    Picture picture(size, format, range);
    for (std::size_t i = 0; i < picture.buffer()->size(); ++i) {
        picture.buffer()->data()[i] = static_cast<unsigned char>(i / 7 + i / 331 * 5);
    }
    return picture;
}

AudioBuffer tone(int rate, std::uint64_t layout, AVSampleFormat format, std::size_t samples) {
    AudioBuffer buffer(layout, format);
    buffer.setSampleRate(rate);
    std::vector<std::int16_t> values(samples);
    for (std::size_t i = 0; i < samples; ++i)
        values[i] = static_cast<std::int16_t>((i * 331) % 20011 - 10000);
    buffer.loadSamples(values);
    return buffer;
}

void append(std::vector<std::uint8_t>& bytes, std::uint32_t value, int count) {
    for (int i = 0; i < count; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

/// A path that is no other process's, and of the same length in all.
std::string ownFile(const std::string& folder, const std::string& ending) {
    std::string number = std::to_string(getpid());
    number.insert(0, 10 - number.size(), '0');
    return folder + "/" + number + "." + ending;
}

/// Half a second of 16-bit stereo.
std::string writeWave(const std::string& path) {
    constexpr std::uint32_t rate = 22050;
    constexpr std::uint32_t dataBytes = rate / 2 * 4;
    std::vector<std::uint8_t> bytes;
    const auto text = [&bytes](const char* letters) { bytes.insert(bytes.end(), letters, letters + 4); };
    text("RIFF");
    append(bytes, 36 + dataBytes, 4);
    text("WAVE");
    text("fmt ");
    append(bytes, 16, 4);
    append(bytes, 1, 2);
    append(bytes, 2, 2);
    append(bytes, rate, 4);
    append(bytes, rate * 4, 4);
    append(bytes, 4, 2);
    append(bytes, 16, 2);
    text("data");
    append(bytes, dataBytes, 4);
    for (std::uint32_t i = 0; i < dataBytes / 2; ++i) append(bytes, i * 977 % 30011, 2);
    test::writeFile(path, bytes);
    return path;
}

/// What came of reading a file to its end, kept without an allocation of the driver's own in between.
struct Reading {
    explicit Reading(const std::string& url) : input(url) {
        packets.reserve(4096);
        frames.reserve(4096);
    }

    FormatContext input;
    std::vector<std::shared_ptr<Packet>> packets;
    std::vector<Frame> frames;
    std::string text;

    void readAll(std::size_t most = 4000) {
        while (packets.size() < most) {
            std::shared_ptr<Packet> packet = input.readPacket();
            if (!packet) return;
            packets.push_back(std::move(packet));
        }
    }
    void decodeAll() {
        for (const std::shared_ptr<Packet>& packet : packets) frames.push_back(input.decodePacket(packet));
    }
    /// Leaves the packets of one kind.
    void keepOnly(AVMediaType type, std::size_t most) {
        std::vector<std::shared_ptr<Packet>> kept;
        for (const std::shared_ptr<Packet>& packet : packets) {
            const AVStream* track = input.trackAtIndex(packet->streamIndex());
            if (track && track->codecpar->codec_type == type && kept.size() < most) kept.push_back(packet);
        }
        packets.swap(kept);
    }
};

void addReading(const Reading& reading, Digest& digest) {
    digest.add(std::uint64_t{reading.input.tracksNumber()});
    for (unsigned i = 0; i < reading.input.tracksNumber(); ++i) {
        const AVCodecParameters& codec = *reading.input.trackAtIndex(i)->codecpar;
        digest.add(static_cast<std::uint64_t>(codec.codec_id)).add(static_cast<std::uint64_t>(codec.width));
        digest.add(static_cast<std::uint64_t>(codec.sample_rate))
            .add(static_cast<std::uint64_t>(codec.format));
        digest.add(reading.input.channelLayoutAtIndex(i));
    }
    digest.add(std::uint64_t{reading.packets.size()});
    for (const std::shared_ptr<Packet>& packet : reading.packets) digest.add(*packet);
    for (const Frame& frame : reading.frames) digest.add(frame);
    digest.add(reading.text);
}

auto prepareReading(const std::string& url) {
    return [url] { return std::make_unique<Reading>(url); };
}

auto prepareOpened(const std::string& url, bool findStreamInfo) {
    return [url, findStreamInfo] {
        auto reading = std::make_unique<Reading>(url);
        reading->input.open(std::string(), findStreamInfo);
        return reading;
    };
}

auto preparePackets(const std::string& url, AVMediaType type, std::size_t most) {
    return [url, type, most] {
        auto reading = std::make_unique<Reading>(url);
        reading->input.open();
        reading->readAll();
        reading->keepOnly(type, most);
        return reading;
    };
}

void addObjects(std::vector<Operation>& all) {
    struct Nothing {
        std::uint64_t made = 0;
    };
    all.push_back(operation(
        "make objects", onlyBadAlloc, [] { return std::make_unique<Nothing>(); },
        [](Nothing& nothing) {
            FormatContext closed;
            FormatContext input("a name that does not fit into a short string");
            const FormatContext moved(std::move(input));
            const Scaler scaler;
            const Resampler resampler;
            const FFmpegFilterWrapper filter;
            const TextRenderer renderer;
            closed.setUrl("another name that does not fit into a short string");
            closed.close();
            nothing.made = 7;
        },
        [](const Nothing& nothing, Digest& digest) { digest.add(nothing.made); }));
}

void addInputs(std::vector<Operation>& all, const std::string& clip, const std::string& wave) {
    all.push_back(operation(
        "open without stream information", 0, prepareReading(clip),
        [](Reading& reading) { reading.input.open(std::string(), false); }, addReading));
    all.push_back(operation(
        "open with stream information", 0, prepareReading(clip),
        [](Reading& reading) { reading.input.open(); }, addReading));
    all.push_back(operation(
        "open a named format", 0, prepareReading(wave), [](Reading& reading) { reading.input.open("wav"); },
        addReading));
    all.push_back(operation(
        "read MP4", 0, prepareOpened(clip, true), [](Reading& reading) { reading.readAll(); }, addReading));
    all.push_back(operation(
        "read WAV", 0, prepareOpened(wave, true), [](Reading& reading) { reading.readAll(); }, addReading));
    all.push_back(operation(
        "decode video", onlyBadAlloc | answersShortage, preparePackets(clip, AVMEDIA_TYPE_VIDEO, 12),
        [](Reading& reading) { reading.decodeAll(); }, addReading));
    all.push_back(operation(
        "decode audio", onlyBadAlloc | answersShortage, preparePackets(clip, AVMEDIA_TYPE_AUDIO, 12),
        [](Reading& reading) { reading.decodeAll(); }, addReading));
    all.push_back(operation(
        "decode PCM", onlyBadAlloc | answersShortage, preparePackets(wave, AVMEDIA_TYPE_AUDIO, 12),
        [](Reading& reading) { reading.decodeAll(); }, addReading));
    all.push_back(operation(
        "seek and read", 0, prepareOpened(clip, true),
        [](Reading& reading) {
            reading.input.seek(Timestamp(1500000));
            reading.readAll(8);
            reading.input.seek(Timestamp(0));
            reading.readAll(16);
        },
        addReading));
    all.push_back(operation(
        "ask about tracks", 0, prepareOpened(clip, true),
        [](Reading& reading) {
            for (unsigned i = 0; i < reading.input.tracksNumber(); ++i) {
                reading.text += reading.input.channelLayoutAtIndex(i);
                reading.text += reading.input.metadata("major_brand");
                reading.text += std::to_string(reading.input.channelsAtIndex(i));
            }
            reading.input.discardTrackAtIndex(0, AVDISCARD_ALL);
        },
        addReading));

    struct Pair {
        explicit Pair(const std::string& url) : first(url), second(url) {}
        Reading first;
        Reading second;
    };
    all.push_back(operation(
        "move decoders to a reopened input", answersShortage,
        [clip] {
            auto pair = std::make_unique<Pair>(clip);
            for (Reading* reading : {&pair->first, &pair->second}) {
                reading->input.open();
                reading->readAll(8);
            }
            pair->first.decodeAll();
            return pair;
        },
        [](Pair& pair) {
            pair.second.input.moveDecodersFromContext(&pair.first.input);
            pair.second.decodeAll();
        },
        [](const Pair& pair, Digest& digest) { addReading(pair.second, digest); }));

    struct Road {
        explicit Road(const std::string& url) : reading(url) {}
        Reading reading;
        FFmpegFilterWrapper filter;
        Scaler scaler;
        Picture picture;
    };
    all.push_back(operation(
        "from a file to a scaled, filtered picture", answersShortage,
        [clip] { return std::make_unique<Road>(clip); },
        [](Road& road) {
            road.reading.input.open();
            road.filter.setFilterSpec("hflip");
            while (const std::shared_ptr<Packet> packet = road.reading.input.readPacket()) {
                Frame frame = road.reading.input.decodePacket(packet);
                if (frame.picture().empty()) continue;
                frame = road.filter.processFrame(frame);
                road.picture =
                    road.scaler.scale(frame.picture(), {96, 64}, AV_PIX_FMT_RGBA, AVCOL_RANGE_UNSPECIFIED);
                road.picture.makeEditable();
                road.picture.fillWithRGB(1, 2, 3);
                break;
            }
            road.reading.input.close();
        },
        [](const Road& road, Digest& digest) { digest.add(road.picture); }));
}

/// Files of several formats, written by the library itself; those that this FFmpeg cannot write are left out.
void addPictureFiles(std::vector<Operation>& all, const std::string& folder) {
    struct Format {
        const char* ending;
        AVPixelFormat pixels;
    };
    constexpr std::array<Format, 7> formats{{{"png", AV_PIX_FMT_RGB24},
                                             {"jpg", AV_PIX_FMT_YUV420P},
                                             {"bmp", AV_PIX_FMT_BGR24},
                                             {"gif", AV_PIX_FMT_BGR8},
                                             {"tiff", AV_PIX_FMT_RGB24},
                                             {"ppm", AV_PIX_FMT_RGB24},
                                             {"tga", AV_PIX_FMT_BGR24}}};
    struct Loading {
        std::string path;
        Frame frame;
    };
    struct Saving {
        std::string path;
        Picture picture;
        // Not by std::filesystem, which allocates: the destruction is made to fail as well.
        ~Saving() { unlink(path.c_str()); }
    };
    const auto addSaving = [&](const std::string& name, const std::string& ending, AVPixelFormat pixels) {
        all.push_back(operation(
            name, reportsAllErrors,
            [folder, ending, pixels] {
                auto saving = std::make_unique<Saving>();
                saving->path = ownFile(folder, ending);
                saving->picture = pattern({48, 32}, pixels);
                return saving;
            },
            [](Saving& saving) { savePicture(saving.picture, saving.path); },
            [](const Saving& saving, Digest& digest) {
                const std::vector<std::uint8_t> bytes = test::readFile(saving.path);
                digest.add(bytes.data(), bytes.size());
            }));
    };
    for (const Format& format : formats) {
        const std::string path = folder + "/loaded." + format.ending;
        const bool works = goesThrough([&] {
            savePicture(pattern({48, 32}, format.pixels), path);
            if (loadPicture(path).empty()) throw std::runtime_error("not decoded");
        });
        if (!works) continue;
        all.push_back(operation(
            std::string("load ") + format.ending, answersShortage,
            [path] {
                return std::make_unique<Loading>(Loading{path, Frame()});
            },
            [](Loading& loading) { loading.frame = loadPictureAsFrame(loading.path); },
            [](const Loading& loading, Digest& digest) { digest.add(loading.frame); }));
        addSaving(std::string("save ") + format.ending, format.ending, format.pixels);
    }
    addSaving("save png, converted", "png", AV_PIX_FMT_YUV420P);
}

struct Scaling {
    Scaler scaler;
    Picture source;
    Picture result;
};

void addScaling(std::vector<Operation>& all) {
    const auto add = [&all](const std::string& name, rect_size_t from, AVPixelFormat fromFormat,
                            rect_size_t to, AVPixelFormat toFormat, AVColorRange range,
                            Scaler::ScalingAlgorithm algorithm) {
        all.push_back(operation(
            name, 0,
            [=] {
                auto scaling = std::make_unique<Scaling>();
                scaling->source = pattern(from, fromFormat);
                scaling->scaler.setAlgorithm(algorithm);
                return scaling;
            },
            [=](Scaling& scaling) {
                scaling.result = scaling.scaler.scale(scaling.source, to, toFormat, range);
            },
            [](const Scaling& scaling, Digest& digest) { digest.add(scaling.result); }));
    };
    add("scale", {96, 64}, AV_PIX_FMT_YUV420P, {64, 48}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED,
        Scaler::bicubic);
    add("scale to an odd size", {97, 61}, AV_PIX_FMT_YUV420P, {63, 41}, AV_PIX_FMT_RGB24,
        AVCOL_RANGE_UNSPECIFIED, Scaler::lanczos);
    add("convert", {64, 32}, AV_PIX_FMT_YUV420P, {64, 32}, AV_PIX_FMT_RGBA, AVCOL_RANGE_UNSPECIFIED,
        Scaler::bilinear);
    add("convert the range", {64, 32}, AV_PIX_FMT_YUV420P, {64, 32}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG,
        Scaler::bilinear);
    all.push_back(operation(
        "scale, then another size", 0,
        [] {
            auto scaling = std::make_unique<Scaling>();
            scaling->source = pattern({96, 64}, AV_PIX_FMT_YUV420P);
            scaling->result = scaling->scaler.scale(scaling->source, {33, 21});
            return scaling;
        },
        [](Scaling& scaling) {
            scaling.result = scaling.scaler.scale(scaling.source, {64, 32});
            scaling.result =
                scaling.scaler.scale(scaling.result, {128, 65}, AV_PIX_FMT_BGRA, AVCOL_RANGE_UNSPECIFIED);
        },
        [](const Scaling& scaling, Digest& digest) { digest.add(scaling.result); }));
    all.push_back(operation(
        "name an algorithm", 0, [] { return std::make_unique<Scaling>(); },
        [](Scaling& scaling) {
            scaling.scaler.setAlgorithm("spline");
            try {
                scaling.scaler.setAlgorithm("none of them, and a long name");
            } catch (const std::runtime_error&) {
            }
        },
        [](const Scaling& scaling, Digest& digest) {
            digest.add(static_cast<std::uint64_t>(scaling.scaler.algorithm()));
        }));
}

struct Filtering {
    FFmpegFilterWrapper filter;
    std::string spec;
    Frame frame;
    Frame first;
    Frame second;

    void run() {
        filter.setFilterSpec(spec);
        first = filter.processFrame(frame);
        second = filter.processFrame(frame);
    }
};

void addFiltering(std::vector<Operation>& all) {
    const auto add = [&all](const std::string& name, const std::string& spec, bool video) {
        const auto prepare = [spec, video] {
            auto filtering = std::make_unique<Filtering>();
            filtering->spec = spec;
            filtering->frame = video ? Frame(pattern({64, 48}, AV_PIX_FMT_YUV420P), Timestamp(40000))
                                     : Frame(tone(22050, stereo, AV_SAMPLE_FMT_S16, 4096), Timestamp(40000));
            return filtering;
        };
        if (!goesThrough([&] { prepare()->run(); })) return;  // a filter that this FFmpeg lacks
        all.push_back(operation(
            name, 0, prepare, [](Filtering& filtering) { filtering.run(); },
            [](const Filtering& filtering, Digest& digest) {
                digest.add(filtering.first).add(filtering.second);
            }));
    };
    add("filter video", "hflip", true);
    add("filter video through a chain", "scale=32:24,format=rgb24,vflip,pad=40:32:4:4:red", true);
    add("filter video through branches", "split[a][b];[a]negate[c];[b][c]overlay=8:8", true);
    add("filter audio", "volume=0.5", false);
    add("filter audio through a chain", "aresample=44100,aformat=sample_fmts=flt:channel_layouts=mono",
        false);
    all.push_back(operation(
        "filter with another specification", 0,
        [] {
            auto filtering = std::make_unique<Filtering>();
            filtering->spec = "vflip";
            filtering->frame = Frame(pattern({64, 48}, AV_PIX_FMT_YUV420P), Timestamp(40000));
            filtering->run();
            filtering->spec = "hflip";
            return filtering;
        },
        [](Filtering& filtering) { filtering.run(); },
        [](const Filtering& filtering, Digest& digest) {
            digest.add(filtering.first).add(filtering.second);
        }));
}

void addAudio(std::vector<Operation>& all, const std::string& folder) {
    struct Resampling {
        Resampler resampler;
        AudioBuffer input;
        std::array<AudioBuffer, 3> results;
    };
    const auto addResults = [](const Resampling& resampling, Digest& digest) {
        for (const AudioBuffer& result : resampling.results) digest.add(result);
    };
    const auto prepare = [](AVSampleFormat format) {
        return [format] {
            auto resampling = std::make_unique<Resampling>();
            resampling->input = tone(48000, stereo, format, 3000);
            return resampling;
        };
    };
    all.push_back(operation(
        "resample and flush", 0, prepare(AV_SAMPLE_FMT_S16),
        [](Resampling& resampling) {
            Resampler& resampler = resampling.resampler;
            resampling.results[0] = resampler.resample(resampling.input, 44100, mono, AV_SAMPLE_FMT_FLTP);
            resampler.setCompensation(20, 1000);
            resampling.results[1] = resampler.resample(resampling.input, 44100, mono, AV_SAMPLE_FMT_FLTP);
            resampling.results[2] = resampler.flush();
        },
        addResults));
    all.push_back(operation(
        "convert samples", 0, prepare(AV_SAMPLE_FMT_FLTP),
        [](Resampling& resampling) {
            resampling.results[0] =
                resampling.resampler.resample(resampling.input, 48000, stereo, AV_SAMPLE_FMT_S16);
        },
        addResults));
    all.push_back(operation(
        "map channels", 0, prepare(AV_SAMPLE_FMT_S16),
        [](Resampling& resampling) {
            resampling.resampler.setChannelMapping("FR|FL");
            resampling.results[0] = resampling.resampler.remap(resampling.input);
        },
        addResults));

    struct Audio {
        AudioBuffer buffer = tone(8000, stereo, AV_SAMPLE_FMT_FLTP, 500);
        AudioBuffer other;
        FramePtr frame{av_frame_alloc()};
        std::vector<std::int16_t> samples = std::vector<std::int16_t>(300, 7);
        std::string text;
    };
    const auto prepareAudio = [] { return std::make_unique<Audio>(); };
    const auto addAudioResult = [](const Audio& audio, Digest& digest) {
        digest.add(audio.buffer).add(audio.other).add(audio.text);
    };
    all.push_back(operation(
        "fill an audio buffer", 0, prepareAudio,
        [](Audio& audio) {
            audio.other = AudioBuffer(stereo, AV_SAMPLE_FMT_S16);
            audio.other.loadSamples(audio.samples);
            audio.other.resize(200);
            audio.other.resize(300);
            const std::vector<std::int16_t> value{3, 4};
            audio.other.setSample_s16(value, 9);
            for (std::uint64_t i = 200; i < 300; ++i) audio.other.setSample_s16(value, i);
            audio.text = audio.other.debugDescription();
            audio.text += std::to_string(audio.other.getSample_s16(9).at(1));
        },
        addAudioResult));
    all.push_back(operation(
        "exchange audio with an AVFrame", answersShortage, prepareAudio,
        [](Audio& audio) {
            audio.buffer.fillAVFrame(audio.frame.get());
            if (audio.frame->data[0]) audio.other.loadAVFrame(audio.frame.get());
        },
        addAudioResult));

    struct Dump {
        AudioBuffer buffer = tone(8000, mono, AV_SAMPLE_FMT_S16, 20000);
        std::string path;
        bool good = false;
        ~Dump() { unlink(path.c_str()); }
    };
    // The stream belongs to the caller, who alone can ask whether all was written.
    all.push_back(operation(
        "dump a plane", reportsAllErrors,
        [folder] {
            auto dump = std::make_unique<Dump>();
            dump->path = ownFile(folder, "raw");
            return dump;
        },
        [](Dump& dump) {
            std::ofstream out(dump.path, std::ios::binary);
            dump.buffer.dumpPlane(out, 0);
            out.close();
            if (!out) throw std::runtime_error("the stream has failed");
        },
        [](const Dump& dump, Digest& digest) {
            const std::vector<std::uint8_t> bytes = test::readFile(dump.path);
            digest.add(bytes.data(), bytes.size());
        }));
}

void addPictures(std::vector<Operation>& all) {
    struct Pictures {
        Picture a = pattern({64, 48}, AV_PIX_FMT_YUV420P);
        Picture b;
        FramePtr frame{av_frame_alloc()};
        std::string text;
    };
    const auto prepare = [](AVPixelFormat other) {
        return [other] {
            auto pictures = std::make_unique<Pictures>();
            pictures->b = pattern({32, 24}, other);
            return pictures;
        };
    };
    const auto addResult = [](const Pictures& pictures, Digest& digest) {
        digest.add(pictures.a).add(pictures.b).add(pictures.text);
    };
    all.push_back(operation(
        "make a picture", onlyBadAlloc, prepare(AV_PIX_FMT_YUV420P),
        [](Pictures& pictures) {
            Picture made({30, 20}, AV_PIX_FMT_RGBA, AVCOL_RANGE_JPEG, 32);
            made.fillWithDebugData();
            pictures.b = made;
        },
        addResult));
    all.push_back(operation(
        "copy, crop and make editable", onlyBadAlloc, prepare(AV_PIX_FMT_YUV420P),
        [](Pictures& pictures) {
            pictures.b = pictures.a;
            pictures.a = pictures.a.crop({8, 8, 20, 10});
            pictures.a.makeEditable();
            pictures.b.makeEditable();
            pictures.b.bitblt(pictures.a, {4, 4});
        },
        addResult));
    all.push_back(operation(
        "exchange a picture with an AVFrame", answersShortage, prepare(AV_PIX_FMT_YUV420P),
        [](Pictures& pictures) {
            pictures.a.fillAVFrame(pictures.frame.get());
            if (pictures.frame->buf[0]) pictures.b = Picture(pictures.frame.get());
        },
        addResult));
    all.push_back(operation(
        "compose a converted overlay", 0, prepare(AV_PIX_FMT_RGBA),
        [](Pictures& pictures) {
            pictures.a.compose(pictures.b, {6, 4});
        },
        addResult));
    all.push_back(operation(
        "compose by DrawUtils", 0, prepare(AV_PIX_FMT_YUVA420P),
        [](Pictures& pictures) {
            pictures.a.fillWithRGBA(9, 8, 7, 6);
            DrawUtils::fillRectangle(pictures.a, {2, 2, 20, 20}, Color(1, 2, 3));
            DrawUtils::compose(pictures.a, pictures.b, {6, 4});
            try {
                DrawUtils::compose(pictures.b, pictures.a, {0, 0});
            } catch (const std::runtime_error& error) {
                pictures.text = error.what();
            }
        },
        addResult));
    all.push_back(operation(
        "key by chroma", 0, prepare(AV_PIX_FMT_YUVA420P),
        [](Pictures& pictures) {
            ImageUtils::chromaKeyingInPlace(pictures.b, Color(0, 255, 0), 0.3F, 0.2F);
            pictures.a = ImageUtils::chromaKeying(pictures.a, Color(0, 255, 0), 0.3F, 0.2F);
        },
        addResult));
    all.push_back(operation(
        "describe values", 0, prepare(AV_PIX_FMT_RGBA),
        [](Pictures& pictures) {
            std::ostringstream out;
            out << Timestamp(3, 1, 25) << Timestamp() << rect_t{1, 2, 3, 4} << pictures.a;
            out << Frame(pictures.b, Timestamp(7)) << Frame() << AudioBuffer() << Packet();
            out << Color(std::string("#ff8000@0.5")) << Timebase{1, 25};
            if (!out) throw std::bad_alloc();  // as streams say that memory ran out
            pictures.text = out.str();
        },
        addResult));
    all.push_back(operation(
        "parse colours", 0, prepare(AV_PIX_FMT_RGBA),
        [](Pictures& pictures) {
            Color color(std::string("red@0.25"));
            pictures.text = std::to_string(color.alpha);
            try {
                color = Color(std::string("no colour of any kind, in a long text"));
            } catch (const std::runtime_error& error) {
                pictures.text += error.what();
            }
        },
        addResult));
    struct Holding {
        Frame frame{pattern({16, 16}, AV_PIX_FMT_GRAY8), Timestamp(5)};
        Frame copy;
        FramePtr exported{av_frame_alloc()};
    };
    all.push_back(operation(
        "copy a frame", answersShortage, [] { return std::make_unique<Holding>(); },
        [](Holding& holding) {
            holding.frame.metadata().addValue("a key of some length", "with its value");
            holding.copy = holding.frame;
            holding.copy.fillAVFrame(holding.exported.get());
            holding.copy.picture().makeEditable();
        },
        [](const Holding& holding, Digest& digest) {
            digest.add(holding.frame).add(holding.copy);
            digest.add(std::uint64_t{holding.copy.metadata().size()});
        }));
}

void addPackets(std::vector<Operation>& all) {
    struct Packets {
        Packet source;
        std::vector<Packet> copies;
        AVDictionary* dictionary = nullptr;
        Metadata metadata;
        std::string text;

        Packets() {
            if (av_new_packet(&source, 500) < 0) throw std::bad_alloc();
            std::memset(source.data, 5, 500);
            std::uint8_t* side = av_packet_new_side_data(&source, AV_PKT_DATA_NEW_EXTRADATA, 16);
            if (!side) throw std::bad_alloc();
            std::memset(side, 6, 16);
            copies.reserve(4);
            for (const char* key : {"title", "artist", "a longer key than others"}) {
                av_dict_set(&dictionary, key, "a value that does not fit into a short string", 0);
            }
        }
        Packets(const Packets&) = delete;
        Packets& operator=(const Packets&) = delete;
        ~Packets() { av_dict_free(&dictionary); }
    };
    const auto prepare = [] { return std::make_unique<Packets>(); };
    const auto addResult = [](const Packets& packets, Digest& digest) {
        for (const Packet& copy : packets.copies) digest.add(copy);
        digest.add(packets.text);
    };
    all.push_back(operation(
        "copy packets", answersShortage, prepare,
        [](Packets& packets) {
            packets.copies.emplace_back(packets.source);
            packets.copies.emplace_back(static_cast<const AVPacket&>(packets.source));
            packets.copies.emplace_back();
            packets.copies.back() = packets.source;
            std::ostringstream out;
            out << packets.source;
            if (!out) throw std::bad_alloc();
            packets.text = out.str();
        },
        addResult));
    all.push_back(operation(
        "use metadata", 0, prepare,
        [](Packets& packets) {
            packets.metadata = Metadata(packets.dictionary);
            packets.metadata.addValue("some key", true);
            packets.metadata.addValue("some other key of length", "text");
            packets.metadata.removeValue("title");
            packets.text = packets.metadata["artist"] + packets.metadata.getValue("none");
            std::ostringstream out;
            out << packets.metadata;
            if (!out) throw std::bad_alloc();
            packets.text += out.str();
        },
        addResult));
}

void addText(std::vector<Operation>& all, const std::string& rasterFont, const std::string& font) {
    struct Raster {
        std::string path;
        RasterFont font;
        TextRenderer renderer;
        Picture picture;
    };
    all.push_back(operation(
        "load a raster font", answersShortage,
        [rasterFont] {
            auto raster = std::make_unique<Raster>();
            raster->path = rasterFont;
            return raster;
        },
        [](Raster& raster) { raster.font.load(raster.path); },
        [](const Raster& raster, Digest& digest) {
            for (const auto& [character, glyph] : raster.font.glyphs())
                digest.add(std::uint64_t{character}).add(glyph);
        }));
    all.push_back(operation(
        "draw raster text", 0,
        [rasterFont] {
            auto raster = std::make_unique<Raster>();
            raster->font.load(rasterFont);
            return raster;
        },
        [](Raster& raster) {
            raster.renderer.setFont(raster.font);
            raster.picture = raster.renderer.renderText("Some text,\nin two lines");
        },
        [](const Raster& raster, Digest& digest) { digest.add(raster.picture); }));
    if (font.empty()) return;

    struct FreeType {
        std::string path;
        std::unique_ptr<FreeTypeTextRenderer> renderer;
        Picture picture = pattern({160, 60}, AV_PIX_FMT_YUV420P);
        Picture drawn;
    };
    const auto addResult = [](const FreeType& freeType, Digest& digest) {
        digest.add(freeType.picture).add(freeType.drawn);
        digest.add(
            static_cast<std::uint64_t>(freeType.renderer ? freeType.renderer->getTextSize("AB").w : 0));
    };
    const auto prepare = [font](bool open) {
        return [font, open] {
            auto freeType = std::make_unique<FreeType>();
            freeType->path = font;
            if (open) freeType->renderer = std::make_unique<FreeTypeTextRenderer>(font, 18);
            return freeType;
        };
    };
    // FreeType's own shortage makes a question mark of a character, or leaves it out.
    all.push_back(operation(
        "open a FreeType font", 0, prepare(false),
        [](FreeType& freeType) {
            freeType.renderer = std::make_unique<FreeTypeTextRenderer>(freeType.path, 18);
        },
        addResult));
    all.push_back(operation(
        "draw FreeType text", 0, prepare(true),
        [](FreeType& freeType) {
            freeType.renderer->drawTo(freeType.picture, "AVA To\n\xC3\xA9t\xC3\xA9", {3, 3});
        },
        addResult));
    all.push_back(operation(
        "make a picture of FreeType text", 0, prepare(true),
        [](FreeType& freeType) {
            freeType.renderer->setBackgroundColor(Color(0, 0, 0, 0));
            freeType.drawn = freeType.renderer->drawYUV("Some text", AVCOL_RANGE_MPEG);
        },
        addResult));
}

void addMemory(std::vector<Operation>& all) {
    struct Pools {
        FixedBufferPool fixed{64};
        PoolAllocator allocator;
        std::array<void*, 6> blocks{};
        std::size_t total = 0;
        std::size_t used = 0;
        // Blocks that are still out are never freed by a pool.
        ~Pools() {
            for (std::size_t i = 0; i < blocks.size(); ++i) {
                if (!blocks[i]) continue;
                if (i < 2) {
                    fixed.release(blocks[i]);
                } else {
                    allocator.release(blocks[i]);
                }
            }
        }
    };
    all.push_back(operation(
        "use pools", onlyBadAlloc, [] { return std::make_unique<Pools>(); },
        [](Pools& pools) {
            for (std::size_t i = 0; i < 2; ++i) pools.blocks[i] = pools.fixed.alloc();
            for (std::size_t i = 2; i < 6; ++i) pools.blocks[i] = pools.allocator.alloc(100 * i % 300 + 1);
            pools.allocator.release(pools.blocks[2]);
            pools.blocks[2] = nullptr;
            pools.blocks[2] = pools.allocator.alloc(77);
            pools.allocator.getStatus(pools.total, pools.used);
        },
        [](const Pools& pools, Digest& digest) {
            digest.add(std::uint64_t{pools.total}).add(std::uint64_t{pools.used});
        }));
    struct Buffers {
        std::shared_ptr<MemBuffer> buffer;
    };
    all.push_back(operation(
        "resize a memory buffer", onlyBadAlloc, [] { return std::make_unique<Buffers>(); },
        [](Buffers& buffers) {
            buffers.buffer = std::make_shared<MemBuffer>(100, nullptr);
            std::memset(buffers.buffer->data(), 1, 100);
            buffers.buffer->resize(500);
            buffers.buffer->resize(50);
        },
        [](const Buffers& buffers, Digest& digest) {
            digest.add(buffers.buffer->data(), buffers.buffer->size());
        }));
    all.push_back(operation(
        "log through the bridge", onlyBadAlloc, [] { return std::make_unique<Buffers>(); },
        [](Buffers&) {
            ffmpeg_enable_logging();
            av_log(nullptr, AV_LOG_ERROR, "a message of some length with a number: %d\n", 7);
            av_log_set_callback(av_log_default_callback);
        },
        [](const Buffers&, Digest&) {}));
}

/// The whole way through real files, when there are some.
void addMedia(std::vector<Operation>& all, const std::string& folder) {
    for (const char* name : {"h264.ts",
                             "h264_aac.flv",
                             "h264_444_aac_chapters.mkv",
                             "h264_fragmented.mp4",
                             "hevc_bframes.mp4",
                             "vp9_odd_size.webm",
                             "vp8_vorbis.webm",
                             "av1_aac.mp4",
                             "mpeg4_mp3.avi",
                             "opus_stereo.opus",
                             "flac_stereo.flac",
                             "vorbis_stereo.ogg",
                             "mp3_cover.mp3",
                             "aac_mono.adts",
                             "ac3_5.1.mp4",
                             "animated.gif",
                             "lossy.webp",
                             "progressive_444.jpg",
                             "palette.png",
                             "gray.jpg"}) {
        const std::string path = folder + "/" + name;
        if (!std::filesystem::exists(path)) continue;
        all.push_back(operation(
            std::string("open, read and decode ") + name, answersShortage, prepareReading(path),
            [](Reading& reading) {
                reading.input.open();
                reading.readAll(12);
                reading.decodeAll();
                reading.input.seek(Timestamp(0));
                reading.input.close();
            },
            [](const Reading& reading, Digest& digest) {
                for (const std::shared_ptr<Packet>& packet : reading.packets) digest.add(*packet);
                for (const Frame& frame : reading.frames) digest.add(frame);
            }));
    }
}

}  // namespace

std::vector<Operation> allOperations(const Places& places) {
    const std::string clip = places.examples + "/clip.mp4";
    const std::string wave = writeWave(places.temporary + "/tone.wav");
    std::vector<Operation> all;
    addObjects(all);
    addInputs(all, clip, wave);
    addPictureFiles(all, places.temporary);
    addScaling(all);
    addFiltering(all);
    addAudio(all, places.temporary);
    addPictures(all);
    addPackets(all);
    addText(all, places.examples + "/raster_font.png", places.font);
    addMemory(all);
    if (!places.media.empty()) addMedia(all, places.media);
    return all;
}

}  // namespace kvffmpeg::faults
