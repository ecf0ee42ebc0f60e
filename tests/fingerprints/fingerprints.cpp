// Prints a line "NAME MD5" for each of a fixed set of operations, so that the results on two releases of
// FFmpeg, or on two machines, can be compared. What an FFmpeg lacks (a decoder) is "missing". Tests link the
// same way as this: the names of the operations say what they do.
//
//     kvffmpeg_fingerprints [FILE...]      decodes the files too

#include <algorithm>
#include <array>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kvffmpeg/kvffmpeg.h"
#include "support/digest.h"
#include "support/fonts.h"
#include "support/log_capture.h"
#include "support/media.h"
#include "support/temporary_folder.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg {
namespace {

using Bytes = std::vector<std::uint8_t>;

bool failed = false;

void append(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void append(Bytes& bytes, const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
}

/// Format and size count, the label of the colour range does not: FFmpeg's filters set it differently.
void append(Bytes& bytes, const Picture& picture) {
    const char* const format = av_get_pix_fmt_name(picture.pixelFormat());
    append(bytes, std::string(format ? format : "none") + " " + std::to_string(picture.width()) + "x" +
                      std::to_string(picture.height()) + "\n");
    append(bytes, test::visibleBytes(picture));
}

void append(Bytes& bytes, const AudioBuffer& audio) {
    const int bytesPerSample = av_get_bytes_per_sample(audio.sampleFormat());
    const int interleaved = av_sample_fmt_is_planar(audio.sampleFormat()) ? 1 : audio.numberOfChannels();
    const std::size_t length =
        audio.numberOfSamples() * static_cast<std::size_t>(bytesPerSample * interleaved);
    for (const std::uint8_t* plane : audio.getPointersToPlanes())
        bytes.insert(bytes.end(), plane, plane + length);
}

/// One line: what the operation gives, or that it failed.
void print(const std::string& name, const std::function<Bytes()>& operation) {
    try {
        const Bytes bytes = operation();
        std::cout << name << ' ' << (bytes.empty() ? "empty" : test::md5(bytes)) << '\n';
    } catch (const std::exception& error) {
        std::cout << name << " failed: " << error.what() << '\n';
        failed = true;
    }
}

void print(const std::string& name, const Picture& picture) {
    print(name, [&] {
        Bytes bytes;
        append(bytes, picture);
        return bytes;
    });
}

bool lacksDecoder(const FormatContext& context, unsigned track) {
    const AVCodecID codec = context.trackAtIndex(track)->codecpar->codec_id;
    if (std::string(avcodec_get_name(codec)) == "av1") {  // the decoder of FFmpeg's own needs hardware
        return !avcodec_find_decoder_by_name("libdav1d") && !avcodec_find_decoder_by_name("libaom-av1");
    }
    return codec == AV_CODEC_ID_NONE || !avcodec_find_decoder(codec);
}

/// Pictures and samples of every track that has some.
void decode(const std::string& path) {
    const std::string name = "decode/" + path.substr(path.rfind('/') + 1);
    FormatContext context(path);
    std::map<unsigned, Bytes> tracks;
    std::string ending;
    try {
        context.open();
        while (const auto packet = context.readPacket()) {
            const auto track = static_cast<unsigned>(packet->streamIndex());
            const Frame frame = context.decodePacket(packet);
            if (!frame.picture().empty()) append(tracks[track], frame.picture());
            if (frame.audioBuffer().numberOfSamples() > 0) append(tracks[track], frame.audioBuffer());
        }
    } catch (const std::runtime_error& error) {
        ending = error.what();  // a broken file: also a result
    }
    for (unsigned track = 0; context.isOpened() && track < context.tracksNumber(); ++track) {
        const std::string label = name + ":" + std::to_string(track);
        if (lacksDecoder(context, track)) {
            std::cout << label << " missing\n";
        } else if (!tracks[track].empty()) {
            print(label, [&] { return tracks[track]; });
        }
    }
    if (!ending.empty()) std::cout << name << " ends: " << ending << '\n';
}

const std::vector<std::string> algorithms = {"fast_bilinear", "bilinear", "bicubic",  "x",
                                             "point",         "area",     "bicublin", "gauss",
                                             "sinc",          "lanczos",  "spline"};

void scale() {
    for (const std::string& algorithm : algorithms) {
        for (const auto& [from, to] : {std::pair{AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P},
                                       {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24},
                                       {AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P},
                                       {AV_PIX_FMT_RGBA, AV_PIX_FMT_RGBA},
                                       {AV_PIX_FMT_YUV420P10LE, AV_PIX_FMT_YUV420P}}) {
            for (const rect_size_t size : {rect_size_t{96, 64}, rect_size_t{321, 203}}) {
                Scaler scaler;
                scaler.setAlgorithm(algorithm);
                print("scale/" + algorithm + "/" + av_get_pix_fmt_name(from) + "-" + av_get_pix_fmt_name(to) +
                          "/" + std::to_string(size.w) + "x" + std::to_string(size.h),
                      scaler.scale(test::randomPicture({160, 120}, from), size, to, AVCOL_RANGE_UNSPECIFIED));
            }
        }
    }
    for (const auto& [name, from, to] : {std::tuple{"full-to-limited", AVCOL_RANGE_JPEG, AVCOL_RANGE_MPEG},
                                         {"limited-to-full", AVCOL_RANGE_MPEG, AVCOL_RANGE_JPEG}}) {
        print(std::string("range/yuv420p-yuv444p/") + name,
              Scaler().convertToColorspace(test::randomPicture({160, 120}, AV_PIX_FMT_YUV420P, from),
                                           AV_PIX_FMT_YUV444P, to));
    }
}

/// A saw-tooth with noise, another one in each channel, in S16 or FLTP (a sample of 16 bits over 32768,
/// exactly).
AudioBuffer tone(std::uint64_t layout, AVSampleFormat format, int rate, std::uint64_t samples) {
    AudioBuffer buffer(layout, format);
    buffer.setSampleRate(rate);
    buffer.resize(samples);
    const auto planes = buffer.getPointersToPlanes();
    const auto channels = static_cast<std::size_t>(buffer.numberOfChannels());
    std::uint32_t noise = 1;
    for (std::size_t i = 0; i < samples; ++i) {
        for (std::size_t channel = 0; channel < channels; ++channel) {
            noise = noise * 1664525 + 1013904223;
            const int saw = static_cast<int>(i * (97 + 31 * channel) % 20000) - 10000;
            const auto value = static_cast<std::int16_t>(saw + static_cast<int>(noise >> 24));
            if (format == AV_SAMPLE_FMT_S16) {
                reinterpret_cast<std::int16_t*>(planes[0])[i * channels + channel] = value;
            } else {
                reinterpret_cast<float*>(planes[channel])[i] = static_cast<float>(value) / 32768.0F;
            }
        }
    }
    return buffer;
}

void resample() {
    struct Case {
        const char* name;
        std::uint64_t in;
        AVSampleFormat inFormat;
        int inRate;
        std::uint64_t out;
        AVSampleFormat outFormat;
        int outRate;
    };
    for (const Case& c : {Case{"44100-48000/stereo/s16", AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 44100,
                               AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 48000},
                          Case{"48000-44100/mono/fltp", AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_FLTP, 48000,
                               AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_FLTP, 44100},
                          Case{"48000/5.1-stereo/fltp", AV_CH_LAYOUT_5POINT1, AV_SAMPLE_FMT_FLTP, 48000,
                               AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 48000},
                          Case{"48000/stereo/fltp-s16", AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 48000,
                               AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 48000}}) {
        print(std::string("resample/") + c.name, [&] {
            Resampler resampler;
            Bytes bytes;
            for (int i = 0; i < 4; ++i) {
                append(bytes, resampler.resample(tone(c.in, c.inFormat, c.inRate, 1024), c.outRate, c.out,
                                                 c.outFormat));
            }
            append(bytes, resampler.flush());
            return bytes;
        });
    }
}

void filter() {
    const std::string specifications[] = {"null",
                                          "hflip",
                                          "vflip",
                                          "crop=60:40:3:5",
                                          "pad=200:140:11:7:red",
                                          "scale=80:60:flags=bicubic",
                                          "transpose",
                                          "negate",
                                          "eq=brightness=0.1:contrast=1.2",
                                          "boxblur=2",
                                          "format=rgb24,hue=s=0",
                                          "drawbox=10:10:50:40:yellow:fill",
                                          "unsharp",
                                          "overlay=5:5",
                                          "lutyuv=y=negval"};
    for (const std::string& specification : specifications) {
        // One input only: an overlay lays the picture over itself.
        const std::string text =
            specification == "overlay=5:5" ? "split[a][b];[a][b]overlay=5:5" : specification;
        print("filter/" + specification, [&] {
            FFmpegFilterWrapper wrapper;
            wrapper.setFilterSpec(text);
            Picture picture = test::randomPicture({160, 120}, AV_PIX_FMT_YUV420P);
            Bytes bytes;
            append(bytes, wrapper.processPicture(picture));
            return bytes;
        });
    }
    for (const std::string specification : {"anull", "volume=0.5", "aformat=channel_layouts=mono"}) {
        print("filter/" + specification, [&] {
            FFmpegFilterWrapper wrapper;
            wrapper.setFilterSpec(specification);
            AudioBuffer audio = tone(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 48000, 1000);
            Bytes bytes;
            const AudioBuffer filtered = wrapper.processAudioBuffer(audio);
            if (!filtered.empty()) append(bytes, filtered);
            append(bytes, std::to_string(filtered.numberOfSamples()));
            return bytes;
        });
    }
}

void draw() {
    for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA, AV_PIX_FMT_RGB24, AV_PIX_FMT_NV12,
                                       AV_PIX_FMT_YUV444P, AV_PIX_FMT_GRAY8, AV_PIX_FMT_YUV420P10LE}) {
        Picture picture = test::randomPicture({161, 121}, format);
        DrawUtils::fillRectangle(picture, {10, 6, 77, 55}, Color(200, 100, 50, 128));
        print(std::string("draw/fill/") + av_get_pix_fmt_name(format), picture);
    }
    for (const auto& [destination, overlay] : {std::pair{AV_PIX_FMT_RGBA, AV_PIX_FMT_RGBA},
                                               {AV_PIX_FMT_ARGB, AV_PIX_FMT_ARGB},
                                               {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P},
                                               {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P}}) {
        Picture picture = test::randomPicture({160, 120}, destination);
        DrawUtils::compose(picture, test::randomPicture({71, 53}, overlay), {-7, 19});
        print(std::string("draw/compose/") + av_get_pix_fmt_name(overlay) + "-on-" +
                  av_get_pix_fmt_name(destination),
              picture);
    }
    for (const AVPixelFormat format :
         {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24, AV_PIX_FMT_YUV444P, AV_PIX_FMT_NV12}) {
        Picture picture = test::randomPicture({160, 120}, format);
        picture.compose(test::randomPicture({70, 52}, AV_PIX_FMT_RGBA), {6, 18});
        print(std::string("picture/compose/rgba-on-") + av_get_pix_fmt_name(format), picture);
    }
    std::vector<unsigned char> table(256);
    for (std::size_t i = 0; i < table.size(); ++i) table[i] = static_cast<unsigned char>(255 - i);
    for (const AVPixelFormat format :
         {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA, AV_PIX_FMT_GRAY8, AV_PIX_FMT_RGB565LE}) {
        Picture picture = test::randomPicture({160, 120}, format);
        picture.applyLUT(0, table);
        print(std::string("picture/lut/") + av_get_pix_fmt_name(format), picture);
        print(std::string("picture/crop/") + av_get_pix_fmt_name(format),
              test::randomPicture({160, 120}, format).crop({3, 5, 101, 77}));
    }
    print("key/yuva420p", ImageUtils::chromaKeying(test::randomPicture({160, 120}, AV_PIX_FMT_YUVA420P),
                                                   Color(0, 177, 64), 0.3F, 0.1F));
    print("key/yuv420p", ImageUtils::chromaKeying(test::randomPicture({161, 121}, AV_PIX_FMT_YUV420P),
                                                  Color(0, 177, 64), 0.4F, 0.0F));
}

void write() {
    if (!test::sansFont().empty()) {
        for (const AVPixelFormat format : {AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24}) {
            Picture picture = test::randomPicture({320, 80}, format);
            FreeTypeTextRenderer renderer(test::sansFont(), 28);
            renderer.setFontColor(Color("gold"));
            renderer.setBackgroundColor(Color("navy"));
            renderer.drawTo(picture, "Ærø 12:34\nline", {9, 3});
            print(std::string("text/freetype/") + av_get_pix_fmt_name(format), picture);
        }
    }
    RasterFont font;
    font.load(test::exampleMedia("raster_font.png"));
    TextRenderer renderer;
    renderer.setFont(font);
    print("text/raster", renderer.renderText("*** READY ***\n> RUN"));
}

/// The bytes of the file, and the picture that is read back.
void save() {
    const test::TemporaryFolder folder;
    for (const auto& [ending, format] : {std::pair{"png", AV_PIX_FMT_RGB24},
                                         {"png", AV_PIX_FMT_RGBA},
                                         {"png", AV_PIX_FMT_GRAY8},
                                         {"png", AV_PIX_FMT_YUV420P},
                                         {"bmp", AV_PIX_FMT_RGB24},
                                         {"ppm", AV_PIX_FMT_RGB24},
                                         {"tga", AV_PIX_FMT_RGBA},
                                         {"tiff", AV_PIX_FMT_RGB24},
                                         {"gif", AV_PIX_FMT_RGB24},
                                         {"jpg", AV_PIX_FMT_YUV420P},
                                         {"jpg", AV_PIX_FMT_RGB24}}) {
        const std::string name = std::string(av_get_pix_fmt_name(format)) + "." + ending;
        print("save/file/" + name, [&, pixelFormat = format] {
            savePicture(test::randomPicture({100, 75}, pixelFormat), folder.file(name));
            return test::readFile(folder.file(name));
        });
        print("save/pixels/" + name, loadPicture(folder.file(name)));
    }
}

}  // namespace
}  // namespace kvffmpeg

int main(int count, char** arguments) try {
    const kvffmpeg::test::LogCapture quiet;
    av_log_set_level(AV_LOG_QUIET);
    kvffmpeg::scale();
    kvffmpeg::resample();
    kvffmpeg::filter();
    kvffmpeg::draw();
    kvffmpeg::write();
    kvffmpeg::save();
    for (int i = 1; i < count; ++i) kvffmpeg::decode(arguments[i]);
    return kvffmpeg::failed ? 1 : 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
