// What filters do to the pictures and samples that the wrapper hands them, and what it hands back.

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "kvffmpeg/filtering.h"
#include "support/guard_page.h"
#include "support/media.h"
#include "support/temporary_folder.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg {
namespace {

class FilterGraphTest : public testing::Test {
protected:
    FFmpegFilterWrapper wrapper;
};

Picture picture(rect_size_t size = {64, 48}, AVPixelFormat format = AV_PIX_FMT_YUV420P, unsigned seed = 1) {
    return test::randomPicture(size, format, AVCOL_RANGE_UNSPECIFIED, 1, seed);
}

// Beside the ffmpeg command.

struct Graph {
    const char* name;
    const char* spec;
    AVPixelFormat from = AV_PIX_FMT_YUV420P;
    AVPixelFormat to = AV_PIX_FMT_YUV420P;
};
void PrintTo(const Graph& graph, std::ostream* out) {
    *out << graph.spec << " of " << av_get_pix_fmt_name(graph.from);
}

class BesideTheCommandTest : public testing::TestWithParam<std::tuple<rect_size_t, Graph>> {
protected:
    static constexpr unsigned frames = 3;

    static Picture input(unsigned index) {
        return picture(std::get<0>(GetParam()), std::get<1>(GetParam()).from, index + 1);
    }

    /// What the command gives for the same pictures, one behind the other, without padding.
    static std::vector<std::uint8_t> commandsOutput() {
        const auto& [size, graph] = GetParam();
        const test::TemporaryFolder folder;
        std::vector<std::uint8_t> raw;
        for (unsigned i = 0; i < frames; ++i) {
            const std::vector<std::uint8_t> bytes = test::visibleBytes(input(i));
            raw.insert(raw.end(), bytes.begin(), bytes.end());
        }
        test::writeFile(folder.file("in.raw"), raw);
        return test::readFFmpeg("-f rawvideo -pix_fmt " + std::string(av_get_pix_fmt_name(graph.from)) +
                                " -video_size " + std::to_string(size.w) + "x" + std::to_string(size.h) +
                                " -framerate 25 -i " + folder.file("in.raw") + " -vf '" + graph.spec +
                                "' -pix_fmt " + av_get_pix_fmt_name(graph.to) + " -f rawvideo -");
    }
};

TEST_P(BesideTheCommandTest, FilteredPicturesAreTheSameByteForByte) {
    KVFFMPEG_REQUIRE_COMMAND_OF_THIS_RELEASE();
    const Graph& graph = std::get<1>(GetParam());
    std::vector<std::uint8_t> filtered;
    FFmpegFilterWrapper wrapper;
    wrapper.setFilterSpec(graph.spec);
    for (unsigned i = 0; i < frames; ++i) {
        Frame frame(input(i), Timestamp(i));
        const Frame result = wrapper.processFrame(frame);
        ASSERT_EQ(result.picture().pixelFormat(), graph.to);
        const std::vector<std::uint8_t> bytes = test::visibleBytes(result.picture());
        filtered.insert(filtered.end(), bytes.begin(), bytes.end());
    }
    const std::vector<std::uint8_t> wanted = commandsOutput();
    ASSERT_EQ(filtered.size(), wanted.size());
    const auto [own, theirs] = std::mismatch(filtered.begin(), filtered.end(), wanted.begin());
    EXPECT_TRUE(own == filtered.end()) << "byte " << own - filtered.begin() << " of " << filtered.size()
                                       << " is " << int{*own} << ", the command's " << int{*theirs};
}

std::string nameOf(const testing::TestParamInfo<std::tuple<rect_size_t, Graph>>& test) {
    const auto& [size, graph] = test.param;
    return std::string(graph.name) + "Of" + std::to_string(size.w) + "x" + std::to_string(size.h);
}

// A scaler that a graph gets where formats do not fit has defaults that depend on who builds the graph, so
// every scaler is in the text, with its algorithm.
const Graph graphsForAnySize[] = {
    {"Null", "null"},
    {"NullNv12", "null", AV_PIX_FMT_NV12, AV_PIX_FMT_NV12},
    {"NullRgb24", "null", AV_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},
    {"NullGray", "null", AV_PIX_FMT_GRAY8, AV_PIX_FMT_GRAY8},
    {"NullYuva420p", "null", AV_PIX_FMT_YUVA420P, AV_PIX_FMT_YUVA420P},
    {"NullGbrp", "null", AV_PIX_FMT_GBRP, AV_PIX_FMT_GBRP},
    {"NullRgb48", "null", AV_PIX_FMT_RGB48LE, AV_PIX_FMT_RGB48LE},
    {"ScaleDown", "scale=40:30:flags=bicubic"},
    {"ScaleUp", "scale=200:150:flags=lanczos"},
    {"ScaleByNeighbour", "scale=50:40:flags=neighbor"},
    {"FormatRgb24", "scale=flags=bicubic,format=rgb24", AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24},
    {"FormatGray", "scale=flags=bicubic,format=gray", AV_PIX_FMT_YUV420P, AV_PIX_FMT_GRAY8},
    {"FormatFromNv12", "scale=flags=bicubic,format=yuv420p", AV_PIX_FMT_NV12, AV_PIX_FMT_YUV420P},
    {"FormatYuv444p", "scale=flags=bicubic,format=yuv444p", AV_PIX_FMT_RGB24, AV_PIX_FMT_YUV444P},
    {"FormatBgra", "scale=flags=bicubic,format=bgra", AV_PIX_FMT_RGBA, AV_PIX_FMT_BGRA},
    {"Crop", "crop=20:16:8:4"},
    {"CropAtOddPlace", "crop=21:15:3:5", AV_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},
    {"Pad", "pad=120:80:10:6:red"},
    {"PadRgb24", "pad=121:81:9:5:blue", AV_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},
    {"Hflip", "hflip"},
    {"HflipRgb24", "hflip", AV_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},
    {"HflipRgba", "hflip", AV_PIX_FMT_RGBA, AV_PIX_FMT_RGBA},
    {"HflipRgb48", "hflip", AV_PIX_FMT_RGB48LE, AV_PIX_FMT_RGB48LE},
    {"Vflip", "vflip"},
    {"VflipTwice", "vflip,hflip,vflip"},
    {"Transpose", "transpose=clock"},
    {"TransposeRgb24", "transpose=cclock_flip", AV_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},
    {"Overlay", "[in]split[a][b];[b]crop=24:20:0:0[c];[a][c]overlay=8:6[out]"},
    {"Hstack", "[in]split[a][b];[b]vflip[c];[a][c]hstack[out]"},
    {"Blend", "split[a][b];[b]hflip[c];[a][c]blend=all_mode=multiply"},
    {"Boxblur", "boxblur=2:1"},
    {"Drawbox", "drawbox=5:5:20:12:red"},
    {"Drawgrid", "drawgrid=w=8:h=8:color=green@0.5"},
    {"Negate", "negate"},
    {"Hue", "hue=h=90:s=2"},
    {"Gblur", "gblur=sigma=2"},
    {"Unsharp", "unsharp"},
    {"Lut", "lutyuv=y=val/2:u=255-val"},
    {"LutRgb", "lutrgb=r=negval:g=val/2", AV_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},
    {"Rotate", "rotate=0.5"},
    {"Erosion", "erosion"},
    {"Dilation", "dilation", AV_PIX_FMT_GRAY8, AV_PIX_FMT_GRAY8},
    {"Sobel", "sobel", AV_PIX_FMT_GRAY8, AV_PIX_FMT_GRAY8},
    {"ExtractPlanes", "extractplanes=y", AV_PIX_FMT_YUV420P, AV_PIX_FMT_GRAY8},
    {"SwapUv", "swapuv"},
    {"Curves", "curves=vintage", AV_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},
    {"ChannelMixer", "colorchannelmixer=.3:.4:.3:0:.3:.4:.3:0:.3:.4:.3", AV_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},
    {"ChromaKey", "chromakey=green:0.3", AV_PIX_FMT_YUVA420P, AV_PIX_FMT_YUVA420P},
    {"Field", "field=bottom"},
    {"Framestep", "framestep=1,setsar=1"},
};
INSTANTIATE_TEST_SUITE_P(AnySize, BesideTheCommandTest,
                         testing::Combine(testing::Values(rect_size_t{64, 48}, rect_size_t{101, 67}),
                                          testing::ValuesIn(graphsForAnySize)),
                         nameOf);

// Of a row of odd length, libswscale takes one pixel beyond it into the last chroma sample: the command has
// the next row there, the library the last pixel once more.
const Graph graphsForEvenSizes[] = {
    {"ScaleRgb24", "scale=40:30:flags=bilinear", AV_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},
    {"FormatYuv420p", "scale=flags=bicubic,format=yuv420p", AV_PIX_FMT_RGB24, AV_PIX_FMT_YUV420P},
    {"FormatNv12", "scale=flags=bicubic,format=nv12", AV_PIX_FMT_BGRA, AV_PIX_FMT_NV12},
    {"NullYuyv422", "null", AV_PIX_FMT_YUYV422, AV_PIX_FMT_YUYV422},
};
INSTANTIATE_TEST_SUITE_P(EvenSize, BesideTheCommandTest,
                         testing::Combine(testing::Values(rect_size_t{64, 48}, rect_size_t{90, 50}),
                                          testing::ValuesIn(graphsForEvenSizes)),
                         nameOf);

// Pictures of odd sizes, without padding between their rows.

/// Memory for a picture beside a page that must not be touched. As behind pictures that the library
/// allocates, there are 32 spare bytes.
class GuardedBlock {
public:
    GuardedBlock(const Picture& source, test::GuardedEnd end, unsigned char fill)
        : bytes_(static_cast<unsigned char*>(
              test::allocateGuarded(source.getVideoBufferSize() + 32, end, fill))) {
        std::memcpy(bytes_, source.buffer()->data(), source.getVideoBufferSize());
    }
    ~GuardedBlock() { test::freeGuarded(bytes_); }
    GuardedBlock(const GuardedBlock&) = delete;
    GuardedBlock& operator=(const GuardedBlock&) = delete;

    /// A picture of that kind in it, which is good as long as the block.
    Picture asPicture(const Picture& source) const {
        Picture picture = source;
        picture.setData(std::make_shared<MemBuffer>(source.getVideoBufferSize(), bytes_));
        return picture;
    }

private:
    unsigned char* bytes_;
};

struct Chain {
    const char* name;
    const char* spec;
};
void PrintTo(const Chain& chain, std::ostream* out) {
    *out << chain.spec;
}

class UnpaddedPictureTest : public testing::TestWithParam<std::tuple<AVPixelFormat, Chain>> {
protected:
    /// The last of three filtered pictures. (Some filters give a picture when they know the next one.)
    static std::vector<std::uint8_t> filtered(const Picture& source, test::GuardedEnd end,
                                              unsigned char fill) {
        const GuardedBlock blocks[] = {{source, end, fill}, {source, end, fill}, {source, end, fill}};
        FFmpegFilterWrapper wrapper;
        wrapper.setFilterSpec(std::get<1>(GetParam()).spec);
        std::vector<std::uint8_t> last;
        for (int i = 0; i < 3; ++i) {
            Frame frame(blocks[i].asPicture(source), Timestamp(i));
            try {
                last = test::visibleBytes(wrapper.processFrame(frame).picture());
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(i, 0);
            }
            EXPECT_TRUE(test::isGuarded(frame.picture().buffer()->data())) << "was copied";
        }
        return last;
    }
};

TEST_P(UnpaddedPictureTest, IsFilteredWithoutAGlanceAtWhatLiesAround) {
    for (const rect_size_t size : {rect_size_t{33, 33}, rect_size_t{57, 41}, rect_size_t{101, 67}}) {
        SCOPED_TRACE(testing::Message() << size.w << "x" << size.h);
        const AVPixelFormat format = std::get<0>(GetParam());
        const Picture source = picture(size, format);
        const std::vector<std::uint8_t> first = filtered(source, test::GuardedEnd::front, 0);
        EXPECT_FALSE(first.empty());
        EXPECT_TRUE(filtered(source, test::GuardedEnd::front, 255) == first);
        EXPECT_TRUE(filtered(source, test::GuardedEnd::back, 0) == first);
        EXPECT_TRUE(filtered(source, test::GuardedEnd::back, 255) == first);
    }
}

const Chain chains[] = {
    {"Null", "null"},
    {"Hflip", "hflip"},
    {"Vflip", "vflip"},
    {"Transpose", "transpose"},
    {"Crop", "crop=iw-2:ih-2:1:1"},
    {"Pad", "pad=iw+5:ih+3:1:1"},
    {"ScaleDown", "scale=31:17:flags=bicubic"},
    {"ScaleUp", "scale=203:111:flags=bilinear"},
    {"Boxblur", "boxblur=1:1"},
    {"Gblur", "gblur=sigma=1.5"},
    {"Unsharp", "unsharp"},
    {"Avgblur", "avgblur=2"},
    {"Negate", "negate"},
    {"Drawbox", "drawbox=3:3:20:12:red"},
    // Without threads: at odd rows libavfilter's slices share a row of chroma, and the last one to write it
    // wins.
    {"Overlay", "split[a][b];[b]crop=16:16:0:0[c];[a][c]overlay=5:7:thread_type=0"},
    {"Blend", "split[a][b];[b]vflip[c];[a][c]blend=all_mode=average"},
    {"Hue", "hue=h=45"},
    {"Lut", "lut=c0=255-val"},
    {"Erosion", "erosion"},
    {"Convolution", "convolution"},
    {"Edges", "edgedetect"},
    {"Rotate", "rotate=0.3"},
    {"Deband", "deband"},
    {"Field", "field"},
    {"Yadif", "yadif=mode=send_frame:deint=all,select=1"},
};
INSTANTIATE_TEST_SUITE_P(Filters, UnpaddedPictureTest,
                         testing::Combine(testing::Values(AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV444P,
                                                          AV_PIX_FMT_NV12, AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA,
                                                          AV_PIX_FMT_GRAY8, AV_PIX_FMT_GBRP),
                                          testing::ValuesIn(chains)),
                         [](const testing::TestParamInfo<std::tuple<AVPixelFormat, Chain>>& test) {
                             return std::string(std::get<1>(test.param).name) + "Of" +
                                    av_get_pix_fmt_name(std::get<0>(test.param));
                         });

// Planar audio, whose planes lie one right behind the other in what FFmpeg is handed.

/// What a sample of a format holds for a value from -1 to 1.
template <typename T>
T sampleOf(double value) {
    if (std::is_floating_point_v<T>) return static_cast<T>(value);
    const double half = std::ldexp(1.0, 8 * sizeof(T) - 1);
    return static_cast<T>(std::floor(value * half) + (std::is_unsigned_v<T> ? half : 0));
}

/// The same samples, different ones in each channel, in planes or packed.
template <typename T>
AudioBuffer wave(std::uint64_t layout, AVSampleFormat format, std::uint64_t samples) {
    AudioBuffer buffer(layout, format);
    buffer.setSampleRate(48000);
    buffer.resize(samples);
    const auto channels = static_cast<std::size_t>(buffer.numberOfChannels());
    const std::vector<std::uint8_t*> planes = buffer.getPointersToPlanes();
    std::mt19937 random(1);
    for (std::size_t i = 0; i < samples; ++i) {
        for (std::size_t c = 0; c < channels; ++c) {
            const T sample = sampleOf<T>(static_cast<double>(random()) / 4294967296.0 - 0.5);
            const bool planar = planes.size() > 1;
            std::memcpy(planes[planar ? c : 0] + sizeof(T) * (planar ? i : i * channels + c), &sample,
                        sizeof(T));
        }
    }
    return buffer;
}

struct SampleType {
    AVSampleFormat planar;
    AVSampleFormat packed;
    AudioBuffer (*wave)(std::uint64_t layout, AVSampleFormat format, std::uint64_t samples);
};
void PrintTo(const SampleType& type, std::ostream* out) {
    *out << av_get_sample_fmt_name(type.planar);
}

const SampleType sampleTypes[] = {
    {AV_SAMPLE_FMT_U8P, AV_SAMPLE_FMT_U8, wave<std::uint8_t>},
    {AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_S16, wave<std::int16_t>},
    {AV_SAMPLE_FMT_S32P, AV_SAMPLE_FMT_S32, wave<std::int32_t>},
    {AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_FLT, wave<float>},
    {AV_SAMPLE_FMT_DBLP, AV_SAMPLE_FMT_DBL, wave<double>},
};

/// Tests end their graphs with "aformat=sample_fmts=dbl": packed, since `AudioBuffer` gives all planes of
/// planar output the samples of the first.
std::vector<double> doubles(const AudioBuffer& buffer) {
    EXPECT_EQ(buffer.sampleFormat(), AV_SAMPLE_FMT_DBL);
    std::vector<double> values(buffer.numberOfSamples() *
                               static_cast<std::size_t>(buffer.numberOfChannels()));
    std::memcpy(values.data(), buffer.getPointersToPlanes().at(0), values.size() * sizeof(double));
    return values;
}

class PlanarAudioTest : public testing::TestWithParam<std::tuple<SampleType, const char*>> {
protected:
    /// Three buffers, one behind the other, since some filters keep the last one.
    static std::vector<double> filtered(const AudioBuffer& source) {
        FFmpegFilterWrapper wrapper;
        wrapper.setFilterSpec(std::get<1>(GetParam()) + std::string(",aformat=sample_fmts=dbl"));
        std::vector<double> all;
        for (int i = 0; i < 3; ++i) {
            AudioBuffer copy = source;
            const std::vector<double> part = doubles(wrapper.processAudioBuffer(copy));
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    }
};

TEST_P(PlanarAudioTest, OfAnyLengthIsFilteredLikePackedAudio) {
    const SampleType& type = std::get<0>(GetParam());
    for (const std::uint64_t layout :
         {std::uint64_t{AV_CH_LAYOUT_STEREO}, std::uint64_t{AV_CH_LAYOUT_5POINT1}}) {
        for (const std::uint64_t samples : {1000u, 1001u, 1002u, 1003u, 1024u, 1u}) {
            SCOPED_TRACE(testing::Message() << samples << " samples, layout " << layout);
            const std::vector<double> planar = filtered(type.wave(layout, type.planar, samples));
            const std::vector<double> packed = filtered(type.wave(layout, type.packed, samples));
            ASSERT_FALSE(packed.empty());
            EXPECT_TRUE(planar == packed);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Filters, PlanarAudioTest,
    testing::Combine(testing::ValuesIn(sampleTypes),
                     testing::Values("anull", "volume=0.5", "volume=1.7:precision=double",
                                     "aformat=sample_fmts=s16", "aformat=sample_fmts=fltp",
                                     "aformat=channel_layouts=mono", "aresample=out_sample_fmt=s32p",
                                     "asetrate=24000", "lowpass=f=3000",
                                     "equalizer=f=1000:width_type=h:width=200", "tremolo", "aphaser",
                                     "asplit[a][b];[a][b]amerge")));

TEST_F(FilterGraphTest, VolumeOfPlanarFloatOfAnOddLengthIsExact) {
    // 1001 floats: the second plane does not begin where vectors may.
    wrapper.setFilterSpec("volume=0.5,aformat=sample_fmts=dbl");
    AudioBuffer source = wave<float>(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 1001);
    std::vector<double> wanted;
    for (std::size_t i = 0; i < 1001; ++i) {
        for (const std::uint8_t* plane : source.getPointersToPlanes()) {
            float sample = 0;
            std::memcpy(&sample, plane + sizeof sample * i, sizeof sample);
            wanted.push_back(sample / 2);
        }
    }
    EXPECT_TRUE(doubles(wrapper.processAudioBuffer(source)) == wanted);
}

TEST_F(FilterGraphTest, PlanarOutputHoldsTheFirstChannelInAllPlanes) {
    wrapper.setFilterSpec("anull");
    AudioBuffer source = wave<float>(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 1001);
    const AudioBuffer result = wrapper.processAudioBuffer(source);
    ASSERT_EQ(result.debugDescription(), "1001 samples 48000Hz stereo fltp");
    const std::uint8_t* first = source.getPointersToPlanes()[0];
    for (const std::uint8_t* plane : result.getPointersToPlanes()) {
        EXPECT_EQ(std::memcmp(plane, first, 1001 * sizeof(float)), 0);
    }
}

class ManyChannelsTest : public testing::TestWithParam<int> {
protected:
    std::uint64_t layout = (std::uint64_t{1} << GetParam()) - 1;  ///< The first so many of FFmpeg's channels.
};

TEST_P(ManyChannelsTest, PlanarAudioIsFilteredLikePackedAudio) {
    for (const char* spec : {"anull", "volume=0.5"}) {
        for (const std::uint64_t samples : {1001u, 1024u}) {
            SCOPED_TRACE(testing::Message() << spec << ", " << samples << " samples");
            FFmpegFilterWrapper planar;
            FFmpegFilterWrapper packed;
            for (FFmpegFilterWrapper* wrapper : {&planar, &packed}) {
                wrapper->setFilterSpec(spec + std::string(",aformat=sample_fmts=dbl"));
            }
            AudioBuffer inPlanes = wave<float>(layout, AV_SAMPLE_FMT_FLTP, samples);
            AudioBuffer inTurns = wave<float>(layout, AV_SAMPLE_FMT_FLT, samples);
            ASSERT_EQ(inPlanes.getPointersToPlanes().size(), static_cast<std::size_t>(GetParam()));
            const std::vector<double> result = doubles(planar.processAudioBuffer(inPlanes));
            EXPECT_EQ(result.size(), samples * static_cast<std::size_t>(GetParam()));
            EXPECT_TRUE(result == doubles(packed.processAudioBuffer(inTurns)));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Channels, ManyChannelsTest, testing::Values(8, 9, 10, 16));

TEST_F(FilterGraphTest, BufferWithoutSamplesIsTheBufferSizeError) {
    wrapper.setFilterSpec("anull");
    AudioBuffer source(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP);
    source.setSampleRate(48000);
    EXPECT_THROW(wrapper.processAudioBuffer(source), std::runtime_error);
    AudioBuffer next = wave<float>(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 1001);
    EXPECT_EQ(wrapper.processAudioBuffer(next).numberOfSamples(), 1001u);
}

}  // namespace
}  // namespace kvffmpeg
