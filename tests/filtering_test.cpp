#include "kvffmpeg/filtering.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <locale>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/filter_inputs.h"
#include "support/media.h"
#include "support/temporary_folder.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

// libavfilter's headers are left out: the functions below stand in front of its own, whose parameter types
// differ between releases. All are opaque here.

namespace {

/// What the library asked libavfilter.
struct Calls {
    int graphs = 0;
    std::string source;  ///< Filter, name and arguments of the last source.
    std::string sink;
    int pushes = 0;
    int pulls = 0;
};
Calls calls;

/// What libavfilter and libavutil refuse.
struct Refused {
    std::string filter;    ///< Not found.
    std::string instance;  ///< Not created.
    std::string text;      ///< Not duplicated: no memory.
};
Refused refused;

template <typename Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The library finds these before FFmpeg's, unless they are hidden like the rest of the program.
#pragma GCC visibility push(default)
extern "C" {
void* avfilter_graph_alloc() {
    ++calls.graphs;
    return original<decltype(avfilter_graph_alloc)>("avfilter_graph_alloc")();
}
void* avfilter_get_by_name(const char* name) {
    if (name == refused.filter) return nullptr;
    return original<decltype(avfilter_get_by_name)>("avfilter_get_by_name")(name);
}
int avfilter_graph_create_filter(void** context, const char* const* filter, const char* name,
                                 const char* arguments, void* opaque, void* graph) {
    // The first member of a filter is its name.
    (arguments ? calls.source : calls.sink) =
        std::string(*filter) + " " + name + (arguments ? std::string(" ") + arguments : "");
    if (name == refused.instance) return -1;
    return original<decltype(avfilter_graph_create_filter)>("avfilter_graph_create_filter")(
        context, filter, name, arguments, opaque, graph);
}
int av_buffersrc_add_frame_flags(void* source, AVFrame* frame, int flags) {
    ++calls.pushes;
    return original<decltype(av_buffersrc_add_frame_flags)>("av_buffersrc_add_frame_flags")(source, frame,
                                                                                            flags);
}
int av_buffersink_get_frame(void* sink, AVFrame* frame) {
    ++calls.pulls;
    return original<decltype(av_buffersink_get_frame)>("av_buffersink_get_frame")(sink, frame);
}
char* av_strdup(const char* text) {
    if (text && text == refused.text) return nullptr;
    return original<decltype(av_strdup)>("av_strdup")(text);
}
}
#pragma GCC visibility pop

namespace kvffmpeg {
namespace {

using test::mirrored;
using test::picture;
using test::runtimeErrorOf;
static_assert(!std::is_copy_constructible_v<FFmpegFilterWrapper>);
static_assert(!std::is_copy_assignable_v<FFmpegFilterWrapper>);
static_assert(!std::is_move_constructible_v<FFmpegFilterWrapper>);
static_assert(!std::is_move_assignable_v<FFmpegFilterWrapper>);

constexpr Timebase milliseconds{1, 1000};

constexpr const char* cannotParse = "Cannot parse filter spec";
constexpr const char* cannotConfigure = "Cannot configure filter";
constexpr const char* cannotFilter = "Picture filtering failed";

class FilteringTest : public testing::Test {
protected:
    FilteringTest() {
        calls = Calls();
        refused = Refused();
    }
    ~FilteringTest() override { refused = Refused(); }

    /// The graph's counter of frames as times: 0 for the first frame of a graph, then 1, ...
    static constexpr const char* countFrames = "setpts=N";

    std::int64_t filteredTime(const Picture& picture) {
        Frame frame(picture, Timestamp(0));
        return wrapper.processVideoFrame(frame).PTS().value();
    }

    FFmpegFilterWrapper wrapper;
};

/// Packed 16-bit audio; sample i of channel c is 100 i + c.
AudioBuffer audio(std::uint64_t samples = 1024, int rate = 48000,
                  std::uint64_t layout = std::uint64_t{AV_CH_LAYOUT_STEREO}) {
    AudioBuffer buffer(layout, AV_SAMPLE_FMT_S16);
    buffer.setSampleRate(rate);
    buffer.resize(samples);
    const auto channels = static_cast<std::size_t>(buffer.numberOfChannels());
    for (std::size_t i = 0; i < samples * channels; ++i) {
        const auto value = static_cast<std::int16_t>(100 * (i / channels) + i % channels);
        std::memcpy(buffer.getPointersToPlanes()[0] + 2 * i, &value, 2);
    }
    return buffer;
}

std::vector<std::int16_t> shorts(const AudioBuffer& buffer) {
    std::vector<std::int16_t> values(buffer.numberOfSamples() *
                                     static_cast<std::size_t>(buffer.numberOfChannels()));
    std::memcpy(values.data(), buffer.getPointersToPlanes().at(0), values.size() * 2);
    return values;
}

/// Where the samples are: equal for buffers that share them.
std::vector<const std::uint8_t*> planesOf(const AudioBuffer& buffer) {
    return buffer.getPointersToPlanes();
}

/// Digit groups and a decimal comma, as an application may have set them for all its texts.
struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\1"; }
    char do_decimal_point() const override { return ','; }
};
class HostileLocale {
public:
    HostileLocale() : previous_(std::locale::global(std::locale(std::locale(), new Grouping))) {}
    ~HostileLocale() { std::locale::global(previous_); }
    HostileLocale(const HostileLocale&) = delete;
    HostileLocale& operator=(const HostileLocale&) = delete;

private:
    std::locale previous_;
};

// The empty specification, and frames without content.

TEST_F(FilteringTest, EmptySpecificationGivesCopiesThatShareThePixels) {
    Frame frame(picture(), Timestamp(40, milliseconds));
    frame.setFlags(Frame::FrameFlags(5));
    frame.setPosition({1, 2, 3, 4});
    frame.metadata().addValue("key", "value");
    const Frame result = wrapper.processFrame(frame);
    EXPECT_EQ(result.picture().buffer(), frame.picture().buffer());
    EXPECT_EQ(result.PTS(), Timestamp(40, milliseconds));
    EXPECT_EQ(result.PTS().timeBase(), milliseconds);
    EXPECT_EQ(result.flags(), Frame::FrameFlags(5));
    EXPECT_EQ(result.position(), (rect_t{1, 2, 3, 4}));
    EXPECT_EQ(result.metadata().getValue("key"), "value");
    EXPECT_EQ(calls.graphs, 0);
}

TEST_F(FilteringTest, EmptySpecificationGivesCopiesThatShareTheSamples) {
    Frame frame(audio(), Timestamp(7));
    const Frame result = wrapper.processFrame(frame);
    EXPECT_EQ(planesOf(result.audioBuffer()), planesOf(frame.audioBuffer()));
    EXPECT_EQ(result.PTS(), Timestamp(7));
    EXPECT_EQ(calls.graphs, 0);
}

TEST_F(FilteringTest, EmptySpecificationServesVideoAndAudioInTurn) {
    Frame video(picture(), Timestamp(0));
    Frame sound(audio(), Timestamp(0));
    for (int round = 0; round < 2; ++round) {
        EXPECT_FALSE(wrapper.processFrame(video).picture().empty());
        EXPECT_FALSE(wrapper.processFrame(sound).audioBuffer().empty());
    }
    EXPECT_EQ(calls.graphs, 0);
}

TEST_F(FilteringTest, FrameWithoutContentComesBackUnchanged) {
    wrapper.setFilterSpec("hflip");
    Frame frame;
    frame.setPTS(Timestamp(3, milliseconds));
    frame.setFlags(Frame::FrameFlags(9));
    const Frame result = wrapper.processFrame(frame);
    EXPECT_TRUE(result.empty());
    EXPECT_EQ(result.PTS(), Timestamp(3, milliseconds));
    EXPECT_EQ(result.flags(), Frame::FrameFlags(9));
    EXPECT_EQ(calls.graphs, 0);
}

TEST_F(FilteringTest, VideoFrameWithoutPictureComesBackWithItsAudio) {
    wrapper.setFilterSpec("hflip");
    Frame frame(audio(), Timestamp(3));
    const Frame result = wrapper.processVideoFrame(frame);
    EXPECT_EQ(planesOf(result.audioBuffer()), planesOf(frame.audioBuffer()));
    EXPECT_EQ(calls.graphs, 0);
}

TEST_F(FilteringTest, AudioFrameWithoutAudioComesBackWithItsPicture) {
    wrapper.setFilterSpec("volume=0.5");
    Frame frame(picture(), Timestamp(3));
    const Frame result = wrapper.processAudioFrame(frame);
    EXPECT_EQ(result.picture().buffer(), frame.picture().buffer());
    EXPECT_EQ(calls.graphs, 0);
}

TEST_F(FilteringTest, EmptySpecificationAfterAnotherGivesCopiesAgain) {
    wrapper.setFilterSpec("hflip");
    Frame frame(picture(), Timestamp(0));
    wrapper.processFrame(frame);
    wrapper.setFilterSpec("");
    EXPECT_EQ(wrapper.processFrame(frame).picture().buffer(), frame.picture().buffer());
}

// One push and at most one pull a call.

TEST_F(FilteringTest, EachCallPushesOneFrameAndPullsOne) {
    wrapper.setFilterSpec("null");
    Frame frame(picture(), Timestamp(0));
    for (int call = 1; call <= 3; ++call) {
        wrapper.processFrame(frame);
        EXPECT_EQ(calls.pushes, call);
        EXPECT_EQ(calls.pulls, call);
    }
    EXPECT_EQ(calls.graphs, 1);
}

// What the source is told.

TEST_F(FilteringTest, VideoSourceIsToldSizeAndFormatOfTheFirstPicture) {
    wrapper.setFilterSpec("null");
    Frame frame(picture({1280, 720}), Timestamp(0));
    wrapper.processFrame(frame);
    EXPECT_EQ(calls.source, "buffer in video_size=1280x720:pix_fmt=yuv420p:time_base=1/1:pixel_aspect=1/1");
    EXPECT_EQ(calls.sink, "buffersink out");
}

TEST_F(FilteringTest, AudioSourceIsToldRateFormatAndLayoutOfTheFirstBuffer) {
    wrapper.setFilterSpec("anull");
    AudioBuffer buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP);
    buffer.setSampleRate(48000);
    buffer.loadSamples(std::vector<std::int16_t>(1024, 1));
    wrapper.processAudioBuffer(buffer);
    EXPECT_EQ(calls.source,
              "abuffer in time_base=1/1000000:sample_rate=48000:sample_fmt=8:channel_layout=0x3");
    EXPECT_EQ(calls.sink, "abuffersink out");
}

TEST_F(FilteringTest, ChannelLayoutIsToldInLowercaseHexadecimal) {
    wrapper.setFilterSpec("anull");
    AudioBuffer buffer = audio(1024, 44100, AV_CH_LAYOUT_7POINT1_WIDE_BACK);
    wrapper.processAudioBuffer(buffer);
    EXPECT_EQ(calls.source,
              "abuffer in time_base=1/1000000:sample_rate=44100:sample_fmt=1:channel_layout=0xff");
}

TEST_F(FilteringTest, VideoSourceIsToldPlainNumbersWhateverTheGlobalLocale) {
    const HostileLocale hostile;
    wrapper.setFilterSpec("null");
    Picture source = picture({1280, 720});
    EXPECT_EQ(wrapper.processPicture(source), source);
    EXPECT_EQ(calls.source, "buffer in video_size=1280x720:pix_fmt=yuv420p:time_base=1/1:pixel_aspect=1/1");
}

TEST_F(FilteringTest, AudioSourceIsToldPlainNumbersWhateverTheGlobalLocale) {
    const HostileLocale hostile;
    wrapper.setFilterSpec("anull");
    AudioBuffer buffer = audio();
    EXPECT_EQ(shorts(wrapper.processAudioBuffer(buffer)), shorts(buffer));
    EXPECT_EQ(calls.source,
              "abuffer in time_base=1/1000000:sample_rate=48000:sample_fmt=1:channel_layout=0x3");
}

// When the graph is built anew.

TEST_F(FilteringTest, SameSpecificationKeepsTheGraph) {
    wrapper.setFilterSpec(countFrames);
    EXPECT_EQ(filteredTime(picture()), 0);
    EXPECT_EQ(filteredTime(picture()), 1);
    wrapper.setFilterSpec(countFrames);
    EXPECT_EQ(filteredTime(picture()), 2);
    EXPECT_EQ(calls.graphs, 1);
}

TEST_F(FilteringTest, AnotherSpecificationRebuildsTheGraph) {
    wrapper.setFilterSpec(countFrames);
    EXPECT_EQ(filteredTime(picture()), 0);
    EXPECT_EQ(filteredTime(picture()), 1);
    wrapper.setFilterSpec("setpts=N+10");
    EXPECT_EQ(filteredTime(picture()), 10);
    EXPECT_EQ(calls.graphs, 2);
}

TEST_F(FilteringTest, AnotherSpecificationIsBuiltOnlyWithTheNextFrame) {
    wrapper.setFilterSpec(countFrames);
    filteredTime(picture());
    wrapper.setFilterSpec("hflip");
    wrapper.setFilterSpec("vflip");
    EXPECT_EQ(calls.graphs, 1);
}

TEST_F(FilteringTest, SpecificationThatChangesAndComesBackRebuildsTheGraph) {
    wrapper.setFilterSpec(countFrames);
    EXPECT_EQ(filteredTime(picture()), 0);
    wrapper.setFilterSpec("");
    wrapper.setFilterSpec(countFrames);
    EXPECT_EQ(filteredTime(picture()), 0);
}

TEST_F(FilteringTest, AudioGraphIsRebuiltForAnotherSpecificationOnly) {
    Frame frame(audio(), Timestamp(0));
    const auto time = [&](const char* spec) {
        wrapper.setFilterSpec(spec);
        return wrapper.processFrame(frame).PTS().value();
    };
    EXPECT_EQ(time("asetpts=N"), 0);
    EXPECT_EQ(time("asetpts=N"), 1024);  // counts samples
    EXPECT_EQ(time("asetpts=N+5"), 5);
    EXPECT_EQ(calls.graphs, 2);
}

TEST_F(FilteringTest, PictureOfAnotherSizeRebuildsTheGraph) {
    wrapper.setFilterSpec(countFrames);
    EXPECT_EQ(filteredTime(picture({64, 48})), 0);
    EXPECT_EQ(filteredTime(picture({64, 48})), 1);
    EXPECT_EQ(filteredTime(picture({64, 50})), 0) << "another height";
    EXPECT_EQ(filteredTime(picture({66, 50})), 0) << "another width";
    EXPECT_EQ(filteredTime(picture({66, 50})), 1);
    EXPECT_EQ(filteredTime(picture({64, 48})), 0) << "the first size again";
}

TEST_F(FilteringTest, PictureOfAnotherPixelFormatRebuildsTheGraph) {
    wrapper.setFilterSpec(countFrames);
    EXPECT_EQ(filteredTime(picture({64, 48}, AV_PIX_FMT_YUV420P)), 0);
    EXPECT_EQ(filteredTime(picture({64, 48}, AV_PIX_FMT_YUV420P)), 1);
    EXPECT_EQ(filteredTime(picture({64, 48}, AV_PIX_FMT_RGB24)), 0);
    EXPECT_EQ(filteredTime(picture({64, 48}, AV_PIX_FMT_RGB24)), 1);
}

/// Pictures as a decoder gives them, from a file whose size or pixel format changes in the middle.
class ChangingStreamTest : public FilteringTest {
protected:
    /// Three Motion JPEG pictures of each kind ("64x48", "yuvj420p"), one behind the other.
    std::vector<Picture> decode(const std::vector<std::pair<std::string, std::string>>& kinds) {
        std::vector<std::uint8_t> stream;
        for (const auto& [size, format] : kinds) {
            const std::vector<std::uint8_t> part =
                test::readFFmpeg("-f lavfi -i testsrc=size=" + size + ":rate=10 -frames:v 3 -pix_fmt " +
                                 format + " -c:v mjpeg -f mjpeg -");
            stream.insert(stream.end(), part.begin(), part.end());
        }
        const std::string path = folder_.file("changing.mjpeg");
        test::writeFile(path, stream);
        FormatContext input(path);
        input.open("mjpeg");
        std::vector<Picture> pictures;
        while (const auto packet = input.readPacket()) {
            const Frame frame = input.decodePacket(packet);
            if (!frame.picture().empty()) pictures.push_back(frame.picture());
        }
        return pictures;
    }

    void expectMirroredAndCounted(const std::vector<Picture>& pictures) {
        wrapper.setFilterSpec("hflip,setpts=N");
        for (std::size_t i = 0; i < pictures.size(); ++i) {
            SCOPED_TRACE(testing::Message() << "picture " << i << ": " << pictures[i]);
            Frame frame(pictures[i], Timestamp(0));
            const Frame result = wrapper.processFrame(frame);
            EXPECT_EQ(result.picture().size(), pictures[i].size());
            EXPECT_EQ(result.picture().pixelFormat(), pictures[i].pixelFormat());
            EXPECT_EQ(test::visibleBytes(result.picture()), mirrored(pictures[i]));
            EXPECT_EQ(result.PTS().value(), static_cast<std::int64_t>(i % 3));
        }
        EXPECT_EQ(calls.graphs, static_cast<int>(pictures.size()) / 3);
    }

private:
    test::TemporaryFolder folder_;
};

TEST_F(ChangingStreamTest, GraphFollowsAStreamThatChangesSize) {
    const std::vector<Picture> pictures =
        decode({{"64x48", "yuvj420p"}, {"96x64", "yuvj420p"}, {"64x48", "yuvj420p"}});
    ASSERT_EQ(pictures.size(), 9u);
    ASSERT_EQ(pictures[2].size(), (rect_size_t{64, 48}));
    ASSERT_EQ(pictures[3].size(), (rect_size_t{96, 64}));
    expectMirroredAndCounted(pictures);
}

TEST_F(ChangingStreamTest, GraphFollowsAStreamThatChangesPixelFormat) {
    const std::vector<Picture> pictures = decode({{"64x48", "yuvj420p"}, {"64x48", "yuvj444p"}});
    ASSERT_EQ(pictures.size(), 6u);
    ASSERT_NE(pictures[2].pixelFormat(), pictures[3].pixelFormat());
    ASSERT_EQ(pictures[2].size(), pictures[3].size());
    expectMirroredAndCounted(pictures);
}

// The media type.

TEST_F(FilteringTest, AudioAfterVideoIsRefused) {
    wrapper.setFilterSpec("null");
    Frame video(picture(), Timestamp(0));
    Frame sound(audio(), Timestamp(0));
    wrapper.processFrame(video);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processFrame(sound); }),
              "Filter is initialized for processingvideo");
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioFrame(sound); }),
              "Filter is initialized for processingvideo");
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(sound.audioBuffer()); }),
              "Filter is initialized for processingvideo");
}

TEST_F(FilteringTest, VideoAfterAudioIsRefused) {
    wrapper.setFilterSpec("anull");
    Frame video(picture(), Timestamp(0));
    Frame sound(audio(), Timestamp(0));
    wrapper.processFrame(sound);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processFrame(video); }),
              "Filter is initialized for processing audio");
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processVideoFrame(video); }),
              "Filter is initialized for processing audio");
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processPicture(video.picture()); }),
              "Filter is initialized for processing audio");
}

TEST_F(FilteringTest, RefusedMediaLeaveTheGraphAsItWas) {
    wrapper.setFilterSpec(countFrames);
    EXPECT_EQ(filteredTime(picture()), 0);
    Frame sound(audio(), Timestamp(0));
    EXPECT_THROW(wrapper.processFrame(sound), std::runtime_error);
    EXPECT_EQ(filteredTime(picture()), 1);
}

TEST_F(FilteringTest, MediaTypeSurvivesAnotherSpecification) {
    wrapper.setFilterSpec("null");
    Frame video(picture(), Timestamp(0));
    Frame sound(audio(), Timestamp(0));
    wrapper.processFrame(video);
    for (const char* spec : {"anull", ""}) {
        SCOPED_TRACE(testing::Message() << "\"" << spec << "\"");
        wrapper.setFilterSpec(spec);
        EXPECT_EQ(runtimeErrorOf([&] { wrapper.processFrame(sound); }),
                  "Filter is initialized for processingvideo");
    }
}

TEST_F(FilteringTest, MediaTypeGuardComesBeforeTheTestForContent) {
    wrapper.setFilterSpec("null");
    Frame video(picture(), Timestamp(0));
    wrapper.processFrame(video);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioFrame(video); }),
              "Filter is initialized for processingvideo");
}

TEST_F(FilteringTest, MediaTypeIsNotFixedByAFailedBuild) {
    wrapper.setFilterSpec("nosuchfilter");
    Frame video(picture(), Timestamp(0));
    Frame sound(audio(), Timestamp(0));
    EXPECT_THROW(wrapper.processFrame(video), std::runtime_error);
    wrapper.setFilterSpec("anull");
    EXPECT_EQ(shorts(wrapper.processFrame(sound).audioBuffer()), shorts(sound.audioBuffer()));
}

TEST_F(FilteringTest, AudioOfAnotherRateIsRefused) {
    wrapper.setFilterSpec("anull");
    AudioBuffer first = audio(1024, 48000);
    AudioBuffer other = audio(1024, 44100);
    wrapper.processAudioBuffer(first);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(other); }), cannotFilter);
    EXPECT_EQ(calls.pulls, 1) << "nothing is pulled after a failed push";
    EXPECT_EQ(shorts(wrapper.processAudioBuffer(first)), shorts(first)) << "the graph still works";
    EXPECT_EQ(calls.graphs, 1);
}

TEST_F(FilteringTest, AudioOfAnotherLayoutIsRefused) {
    wrapper.setFilterSpec("anull");
    AudioBuffer first = audio();
    AudioBuffer other = audio(1024, 48000, AV_CH_LAYOUT_MONO);
    wrapper.processAudioBuffer(first);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(other); }), cannotFilter);
    EXPECT_EQ(calls.graphs, 1);
}

TEST_F(FilteringTest, AudioOfAnotherSampleFormatIsRefused) {
    wrapper.setFilterSpec("anull");
    AudioBuffer first = audio();
    AudioBuffer other(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP);
    other.setSampleRate(48000);
    other.loadSamples(std::vector<std::int16_t>(1024, 1));
    wrapper.processAudioBuffer(first);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(other); }), cannotFilter);
    EXPECT_EQ(calls.graphs, 1);
}

TEST_F(FilteringTest, AudioOfAnotherRateIsTakenAfterAnotherSpecification) {
    wrapper.setFilterSpec("anull");
    AudioBuffer first = audio(1024, 48000);
    AudioBuffer other = audio(1024, 44100);
    wrapper.processAudioBuffer(first);
    EXPECT_THROW(wrapper.processAudioBuffer(other), std::runtime_error);
    wrapper.setFilterSpec("volume=1");
    EXPECT_EQ(wrapper.processAudioBuffer(other).sampleRate(), 44100);
}

// Builds that fail.

struct BadGraph {
    const char* name;
    const char* spec;
    const char* text;
};
void PrintTo(const BadGraph& graph, std::ostream* out) {
    *out << graph.spec;
}

class BadVideoGraphTest : public FilteringTest, public testing::WithParamInterface<BadGraph> {
protected:
    BadVideoGraphTest() { wrapper.setFilterSpec(GetParam().spec); }
    std::string error() {
        return runtimeErrorOf([&] { wrapper.processFrame(frame); });
    }

    Frame frame{picture(), Timestamp(0)};
};

TEST_P(BadVideoGraphTest, FirstCallSaysWhatIsWrong) {
    EXPECT_EQ(error(), GetParam().text);
}

TEST_P(BadVideoGraphTest, LaterCallsFailWithoutTouchingTheGraph) {
    EXPECT_EQ(error(), GetParam().text);
    EXPECT_EQ(error(), cannotFilter);
    EXPECT_EQ(error(), cannotFilter);
    EXPECT_EQ(calls.graphs, 1);
    EXPECT_EQ(calls.pushes, 0);
    EXPECT_EQ(calls.pulls, 0);
}

TEST_P(BadVideoGraphTest, AudioAtTheHalfBuiltGraphFails) {
    EXPECT_EQ(error(), GetParam().text);
    AudioBuffer sound = audio();
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(sound); }), cannotFilter);
    EXPECT_EQ(calls.pushes, 0);
    wrapper.setFilterSpec("anull");
    EXPECT_EQ(shorts(wrapper.processAudioBuffer(sound)), shorts(sound));
}

TEST_P(BadVideoGraphTest, SameSpecificationDoesNotRecover) {
    EXPECT_EQ(error(), GetParam().text);
    wrapper.setFilterSpec(GetParam().spec);
    EXPECT_EQ(error(), cannotFilter);
    EXPECT_EQ(calls.graphs, 1);
}

TEST_P(BadVideoGraphTest, AnotherSpecificationRecovers) {
    EXPECT_EQ(error(), GetParam().text);
    EXPECT_EQ(error(), cannotFilter);
    wrapper.setFilterSpec("null");
    EXPECT_EQ(wrapper.processFrame(frame).picture(), picture());
}

TEST_P(BadVideoGraphTest, EmptySpecificationRecovers) {
    EXPECT_EQ(error(), GetParam().text);
    wrapper.setFilterSpec("");
    EXPECT_EQ(wrapper.processFrame(frame).picture().buffer(), frame.picture().buffer());
}

TEST_P(BadVideoGraphTest, PictureOfAnotherSizeIsTriedAnew) {
    EXPECT_EQ(error(), GetParam().text);
    frame.setPicture(picture({80, 60}));
    EXPECT_EQ(error(), GetParam().text);
    EXPECT_EQ(error(), cannotFilter);
    EXPECT_EQ(calls.graphs, 2);
}

TEST_P(BadVideoGraphTest, PictureOfAnotherFormatIsTriedAnew) {
    EXPECT_EQ(error(), GetParam().text);
    frame.setPicture(picture({64, 48}, AV_PIX_FMT_RGB24));
    EXPECT_EQ(error(), GetParam().text);
    EXPECT_EQ(calls.graphs, 2);
}

TEST_P(BadVideoGraphTest, WrapperMayGoWithTheHalfBuiltGraph) {
    FFmpegFilterWrapper shortLived;
    shortLived.setFilterSpec(GetParam().spec);
    EXPECT_THROW(shortLived.processFrame(frame), std::runtime_error);
}

TEST_P(BadVideoGraphTest, GraphThatWorkedIsReplacedAndTheTypeStays) {
    wrapper.setFilterSpec("null");
    wrapper.processFrame(frame);
    wrapper.setFilterSpec(GetParam().spec);
    EXPECT_EQ(error(), GetParam().text);
    EXPECT_EQ(error(), cannotFilter);
    AudioBuffer sound = audio();
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(sound); }),
              "Filter is initialized for processingvideo");
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, BadVideoGraphTest,
    testing::Values(BadGraph{"UnknownFilter", "nosuchfilter", cannotParse},
                    BadGraph{"UnknownFilterBehindAnother", "hflip,nosuchfilter", cannotParse},
                    BadGraph{"BadOption", "crop=nosuchoption=1", cannotParse},
                    BadGraph{"MissingFile", "lut3d=file=/nonexistent/missing.cube", cannotParse},
                    BadGraph{"BrokenText", "[in", cannotParse},
                    BadGraph{"UnconnectedInput", "overlay", cannotConfigure},
                    BadGraph{"ImpossibleCrop", "crop=1000:1000", cannotConfigure},
                    BadGraph{"EmptySink", "nullsink", cannotConfigure},
                    BadGraph{"AudioFilter", "volume", cannotParse}),
    [](const testing::TestParamInfo<BadGraph>& kind) { return std::string(kind.param.name); });

class BadAudioGraphTest : public FilteringTest, public testing::WithParamInterface<BadGraph> {
protected:
    BadAudioGraphTest() { wrapper.setFilterSpec(GetParam().spec); }
    std::string error() {
        return runtimeErrorOf([&] { wrapper.processAudioBuffer(buffer); });
    }

    AudioBuffer buffer = audio();
};

TEST_P(BadAudioGraphTest, LaterCallsFailWithoutTouchingTheGraph) {
    EXPECT_EQ(error(), GetParam().text);
    EXPECT_EQ(error(), cannotFilter);
    EXPECT_EQ(error(), cannotFilter);
    EXPECT_EQ(calls.graphs, 1);
    EXPECT_EQ(calls.pushes, 0);
    EXPECT_EQ(calls.pulls, 0);
}

TEST_P(BadAudioGraphTest, AudioOfAnotherRateIsNotTriedAnew) {
    EXPECT_EQ(error(), GetParam().text);
    buffer = audio(1024, 44100);
    EXPECT_EQ(error(), cannotFilter);
    EXPECT_EQ(calls.graphs, 1);
}

TEST_P(BadAudioGraphTest, AnotherSpecificationRecovers) {
    EXPECT_EQ(error(), GetParam().text);
    wrapper.setFilterSpec("anull");
    EXPECT_EQ(shorts(wrapper.processAudioBuffer(buffer)), shorts(buffer));
}

TEST_P(BadAudioGraphTest, VideoIsServedAfterwards) {
    EXPECT_EQ(error(), GetParam().text);
    wrapper.setFilterSpec("null");
    Picture source = picture();
    EXPECT_EQ(wrapper.processPicture(source), source);
}

INSTANTIATE_TEST_SUITE_P(Kinds, BadAudioGraphTest,
                         testing::Values(BadGraph{"UnknownFilter", "nosuchfilter", cannotParse},
                                         BadGraph{"BadOption", "volume=nosuchoption=1", cannotParse},
                                         BadGraph{"UnconnectedInput", "amerge", cannotConfigure},
                                         BadGraph{"EmptySink", "anullsink", cannotConfigure}),
                         [](const testing::TestParamInfo<BadGraph>& kind) {
                             return std::string(kind.param.name);
                         });

TEST_F(FilteringTest, PictureLargeEnoughForTheCropRecovers) {
    wrapper.setFilterSpec("crop=100:100:0:0");
    Frame small(picture({64, 48}), Timestamp(0));
    Frame large(picture({128, 128}), Timestamp(0));
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processFrame(small); }), cannotConfigure);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processFrame(small); }), cannotFilter);
    EXPECT_EQ(wrapper.processFrame(large).picture(), large.picture().crop({0, 0, 100, 100}));
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processFrame(small); }), cannotConfigure);
    EXPECT_EQ(wrapper.processFrame(large).picture(), large.picture().crop({0, 0, 100, 100}));
}

TEST_F(FilteringTest, PictureWithoutFormatCannotBeASource) {
    wrapper.setFilterSpec("null");
    Picture formless;
    formless.setData(std::make_shared<MemBuffer>(64, nullptr));
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processPicture(formless); }), "Cannot create buffer source");
    EXPECT_EQ(calls.source, "buffer in video_size=0x0:pix_fmt=");
    Picture source = picture();
    EXPECT_EQ(wrapper.processPicture(source), source) << "recovers";
}

TEST_F(FilteringTest, AudioWithoutFormatCannotBeASource) {
    wrapper.setFilterSpec("anull");
    AudioBuffer formless(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_NONE);
    formless.setSampleRate(48000);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(formless); }), "Cannot create buffer source");
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(formless); }), cannotFilter);
}

TEST_F(FilteringTest, AudioWithoutLayoutCannotBeASource) {
    wrapper.setFilterSpec("anull");
    AudioBuffer formless(0, AV_SAMPLE_FMT_S16);
    formless.setSampleRate(48000);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(formless); }), "Cannot create buffer source");
    EXPECT_EQ(calls.source,
              "abuffer in time_base=1/1000000:sample_rate=48000:sample_fmt=1:channel_layout=0x0");
}

/// Failures that libavfilter has no reason for: what it was asked is refused in its place.
struct Refusal {
    const char* name;
    Refused refused;
    const char* text;
};
void PrintTo(const Refusal& refusal, std::ostream* out) {
    *out << refusal.name;
}

class RefusalTest : public FilteringTest, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusalTest, OfVideoFailsTheBuildAndAnotherSpecificationRecovers) {
    Picture source = picture();
    wrapper.setFilterSpec("hflip");
    refused = GetParam().refused;
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processPicture(source); }), GetParam().text);
    refused = Refused();
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processPicture(source); }), cannotFilter);
    wrapper.setFilterSpec("null");
    EXPECT_EQ(wrapper.processPicture(source), source);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, RefusalTest,
    testing::Values(
        Refusal{"SourceIsUnknown", {"buffer", "", ""}, "Filtering source or sink element not found"},
        Refusal{"SinkIsUnknown", {"buffersink", "", ""}, "Filtering source or sink element not found"},
        Refusal{"SourceIsNotCreated", {"", "in", ""}, "Cannot create buffer source"},
        Refusal{"SinkIsNotCreated", {"", "out", ""}, "Cannot create buffer sink"},
        Refusal{"NoMemoryForTheName", {"", "", "in"}, "Out of memory"},
        Refusal{"NoMemoryForTheOtherName", {"", "", "out"}, "Out of memory"}),
    [](const testing::TestParamInfo<Refusal>& kind) { return std::string(kind.param.name); });

TEST_F(FilteringTest, UnknownAudioSourceOrSinkFailsTheBuild) {
    for (const char* name : {"abuffer", "abuffersink"}) {
        SCOPED_TRACE(name);
        FFmpegFilterWrapper fresh;
        fresh.setFilterSpec("anull");
        refused.filter = name;
        AudioBuffer source = audio();
        EXPECT_EQ(runtimeErrorOf([&] { fresh.processAudioBuffer(source); }),
                  "Filtering source or sink element not found");
    }
}

}  // namespace
}  // namespace kvffmpeg
