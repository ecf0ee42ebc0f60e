// What the wrapper makes of the frames that it is given.

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvffmpeg/filtering.h"
#include "support/filter_inputs.h"
#include "support/media.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace kvffmpeg {
namespace {

using test::mirrored;
using test::picture;
using test::runtimeErrorOf;
using testing::ElementsAre;

constexpr Timebase milliseconds{1, 1000};
constexpr Timebase microseconds{1, 1000000};

/// What `AudioBuffer` says of a blank frame.
constexpr const char* noAudio = "Could not get buffer size for audio layout 0, sample format -1, samples 0";

class FilteredFrameTest : public testing::Test {
protected:
    FFmpegFilterWrapper wrapper;
};

/// Packed 16-bit audio; sample i of channel c is 100 i + c.
AudioBuffer audio(std::uint64_t samples = 1024, std::uint64_t layout = std::uint64_t{AV_CH_LAYOUT_STEREO}) {
    AudioBuffer buffer(layout, AV_SAMPLE_FMT_S16);
    buffer.setSampleRate(48000);
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

// Times.

TEST_F(FilteredFrameTest, TimeComesBackInTheInputsTimeBase) {
    wrapper.setFilterSpec("null");
    Frame frame(picture(), Timestamp(40, milliseconds));
    const Timestamp time = wrapper.processFrame(frame).PTS();
    EXPECT_FALSE(time.is_nil());
    EXPECT_EQ(time.value(), 40);
    EXPECT_EQ(time.timeBase(), milliseconds);
}

TEST_F(FilteredFrameTest, TimeOfAudioComesBackInTheInputsTimeBase) {
    wrapper.setFilterSpec("anull");
    Frame frame(audio(), Timestamp(40, milliseconds));
    const Timestamp time = wrapper.processFrame(frame).PTS();
    EXPECT_FALSE(time.is_nil());
    EXPECT_EQ(time.value(), 40);
    EXPECT_EQ(time.timeBase(), milliseconds);
}

TEST_F(FilteredFrameTest, TimeThatIsNegativeComesBack) {
    wrapper.setFilterSpec("null");
    Frame frame(picture(), Timestamp(-40, milliseconds));
    EXPECT_EQ(wrapper.processFrame(frame).PTS().value(), -40);
}

TEST_F(FilteredFrameTest, TimeIsRoundedToMicrosecondsOnItsWay) {
    wrapper.setFilterSpec("null");
    Frame frame(picture(), Timestamp(14, 1, 10000000));
    const Timestamp time = wrapper.processFrame(frame).PTS();
    EXPECT_EQ(time.value(), 10);
    EXPECT_EQ(time.timeBase(), (Timebase{1, 10000000}));
}

TEST_F(FilteredFrameTest, NilTimeStaysNil) {
    wrapper.setFilterSpec("setpts=PTS+7");
    Frame frame(picture(), Timestamp());
    EXPECT_TRUE(wrapper.processFrame(frame).PTS().is_nil());
}

TEST_F(FilteredFrameTest, NilTimeOfAudioStaysNil) {
    wrapper.setFilterSpec("asetpts=PTS+7");
    Frame frame(audio(), Timestamp());
    EXPECT_TRUE(wrapper.processFrame(frame).PTS().is_nil());
}

TEST_F(FilteredFrameTest, NilTimeIsPushedAsZero) {
    wrapper.setFilterSpec("select='eq(pts,0)'");
    Frame later(picture(), Timestamp(5));
    EXPECT_THROW(wrapper.processFrame(later), std::bad_alloc);
    Frame nil(picture(), Timestamp());
    EXPECT_FALSE(wrapper.processFrame(nil).picture().empty());
}

TEST_F(FilteredFrameTest, TimesArePushedInMicroseconds) {
    wrapper.setFilterSpec("select='eq(pts,40000)'");
    Frame frame(picture(), Timestamp(40, milliseconds));
    EXPECT_FALSE(wrapper.processFrame(frame).picture().empty());
}

TEST_F(FilteredFrameTest, ChangedTimesAreRescaledFromMicroseconds) {
    wrapper.setFilterSpec("setpts=PTS+3000");
    Frame frame(picture(), Timestamp(40, milliseconds));
    EXPECT_EQ(wrapper.processFrame(frame).PTS().value(), 43);
}

TEST_F(FilteredFrameTest, TimesOfAnotherTimeBaseAreReadAsPlainNumbers) {
    // To the filter the pictures are one second apart. It gives ten per second, which it counts, each once it
    // knows the next picture.
    wrapper.setFilterSpec("fps=10");
    Frame first(picture(), Timestamp(0));
    EXPECT_THROW(wrapper.processFrame(first), std::bad_alloc);
    for (std::int64_t call = 1; call <= 3; ++call) {
        Frame frame(picture(), Timestamp(call));
        const Timestamp time = wrapper.processFrame(frame).PTS();
        EXPECT_EQ(time.value(), call - 1);
        EXPECT_EQ(time.timeBase(), microseconds);
    }
}

// What else a frame carries.

TEST_F(FilteredFrameTest, PositionFlagsAndMetadataAreNotCarriedOver) {
    wrapper.setFilterSpec("null");
    Frame frame(picture(), Timestamp(1));
    frame.setPosition({1, 2, 3, 4});
    frame.setFlags(Frame::FrameFlags(5));
    frame.metadata().addValue("key", "value");
    const Frame result = wrapper.processFrame(frame);
    EXPECT_EQ(result.position(), (rect_t{0, 0, 0, 0}));
    EXPECT_EQ(result.flags(), Frame::none);
    EXPECT_TRUE(result.metadata().empty());
}

TEST_F(FilteredFrameTest, PositionFlagsAndMetadataOfAudioAreNotCarriedOver) {
    wrapper.setFilterSpec("anull");
    Frame frame(audio(), Timestamp(1));
    frame.setPosition({1, 2, 3, 4});
    frame.setFlags(Frame::FrameFlags(5));
    frame.metadata().addValue("key", "value");
    const Frame result = wrapper.processFrame(frame);
    EXPECT_EQ(result.position(), (rect_t{0, 0, 0, 0}));
    EXPECT_EQ(result.flags(), Frame::none);
    EXPECT_TRUE(result.metadata().empty());
}

TEST_F(FilteredFrameTest, InputFrameKeepsItsTimePositionAndFlags) {
    wrapper.setFilterSpec("setpts=PTS+7");
    Frame frame(picture(), Timestamp(1));
    frame.setPosition({1, 2, 3, 4});
    frame.setFlags(Frame::FrameFlags(5));
    wrapper.processFrame(frame);
    EXPECT_EQ(frame.PTS(), Timestamp(1));
    EXPECT_EQ(frame.position(), (rect_t{1, 2, 3, 4}));
    EXPECT_EQ(frame.flags(), Frame::FrameFlags(5));
}

TEST_F(FilteredFrameTest, PictureWinsInAFrameWithBoth) {
    wrapper.setFilterSpec("hflip");
    Frame frame(picture(), Timestamp(1));
    frame.setAudioBuffer(audio());
    const Frame result = wrapper.processFrame(frame);
    EXPECT_EQ(test::visibleBytes(result.picture()), mirrored(frame.picture()));
    EXPECT_TRUE(result.audioBuffer().empty());
    EXPECT_FALSE(frame.audioBuffer().empty());
}

TEST_F(FilteredFrameTest, AudioOfAFrameWithBothIsFilteredOnDemand) {
    wrapper.setFilterSpec("volume=2:precision=fixed");
    Frame frame(picture(), Timestamp(1));
    frame.setAudioBuffer(audio(4));
    const Frame result = wrapper.processAudioFrame(frame);
    EXPECT_THAT(shorts(result.audioBuffer()), ElementsAre(0, 2, 200, 202, 400, 402, 600, 602));
    EXPECT_TRUE(result.picture().empty());
    EXPECT_FALSE(frame.picture().empty());
}

TEST_F(FilteredFrameTest, BothOfAFrameWithoutSpecificationComeBack) {
    Frame frame(picture(), Timestamp(1));
    frame.setAudioBuffer(audio());
    const Frame result = wrapper.processFrame(frame);
    EXPECT_FALSE(result.picture().empty());
    EXPECT_FALSE(result.audioBuffer().empty());
}

// The caller's pixels.

TEST_F(FilteredFrameTest, CallersPictureIsMadeEditable) {
    wrapper.setFilterSpec("null");
    const Picture shared = picture();
    Frame frame(shared, Timestamp(1));
    wrapper.processFrame(frame);
    EXPECT_NE(frame.picture().buffer(), shared.buffer());
    EXPECT_EQ(frame.picture(), shared);
    EXPECT_TRUE(frame.picture().editable());
}

TEST_F(FilteredFrameTest, EditablePictureKeepsItsBuffer) {
    wrapper.setFilterSpec("null");
    Frame frame(picture(), Timestamp(1));
    const MemBuffer* buffer = frame.picture().buffer().get();
    wrapper.processFrame(frame);
    EXPECT_EQ(frame.picture().buffer().get(), buffer);
}

TEST_F(FilteredFrameTest, FiltersThatWorkInPlaceLeaveTheCallersPixelsAlone) {
    wrapper.setFilterSpec("drawbox=0:0:40:40:white:t=fill");
    Frame frame(picture(), Timestamp(1));
    const Frame result = wrapper.processFrame(frame);
    EXPECT_NE(result.picture(), frame.picture());
    EXPECT_EQ(frame.picture(), picture());
}

TEST_F(FilteredFrameTest, ResultHasStorageOfItsOwn) {
    wrapper.setFilterSpec("null");
    Frame frame(picture(), Timestamp(1));
    Frame result = wrapper.processFrame(frame);
    EXPECT_TRUE(result.picture().editable());
    EXPECT_NE(result.picture().buffer(), frame.picture().buffer());
}

TEST_F(FilteredFrameTest, CropsAreFilteredWithoutWhatTheyHide) {
    wrapper.setFilterSpec("null");
    const Picture whole = picture({64, 48}, AV_PIX_FMT_YUV444P);
    Frame frame(whole.crop({11, 7, 33, 21}), Timestamp(1));
    EXPECT_EQ(wrapper.processFrame(frame).picture(), whole.crop({11, 7, 33, 21}));
}

TEST_F(FilteredFrameTest, CropThatOwnsTheWholeBufferIsFiltered) {
    wrapper.setFilterSpec("hflip");
    Picture whole = picture({64, 48}, AV_PIX_FMT_YUV444P);
    Frame frame(whole.crop({11, 7, 33, 21}), Timestamp(1));
    whole = Picture();
    ASSERT_TRUE(frame.picture().editable());
    const std::vector<std::uint8_t> want = mirrored(frame.picture());
    EXPECT_EQ(test::visibleBytes(wrapper.processFrame(frame).picture()), want);
}

// Single pictures and buffers.

TEST_F(FilteredFrameTest, ProcessPictureGivesTheFilteredPicture) {
    wrapper.setFilterSpec("hflip");
    Picture source = picture();
    const MemBuffer* buffer = source.buffer().get();
    EXPECT_EQ(test::visibleBytes(wrapper.processPicture(source)), mirrored(source));
    EXPECT_EQ(source.buffer().get(), buffer);
    EXPECT_EQ(source, picture());
}

TEST_F(FilteredFrameTest, ProcessPictureWithoutSpecificationSharesThePixels) {
    Picture source = picture();
    EXPECT_EQ(wrapper.processPicture(source).buffer(), source.buffer());
}

TEST_F(FilteredFrameTest, ProcessPictureOfAnEmptyPictureGivesAnEmptyOne) {
    wrapper.setFilterSpec("hflip");
    Picture source;
    EXPECT_TRUE(wrapper.processPicture(source).empty());
}

TEST_F(FilteredFrameTest, ProcessPicturePushesTimeZero) {
    wrapper.setFilterSpec("select='eq(pts,0)'");
    Picture source = picture();
    EXPECT_EQ(wrapper.processPicture(source), source);
    EXPECT_EQ(wrapper.processPicture(source), source);
}

TEST_F(FilteredFrameTest, ProcessAudioBufferGivesTheFilteredAudio) {
    wrapper.setFilterSpec("volume=2:precision=fixed");
    AudioBuffer source = audio(3);
    EXPECT_THAT(shorts(wrapper.processAudioBuffer(source)), ElementsAre(0, 2, 200, 202, 400, 402));
    EXPECT_THAT(shorts(source), ElementsAre(0, 1, 100, 101, 200, 201));
}

TEST_F(FilteredFrameTest, ProcessAudioBufferWithoutSpecificationSharesTheSamples) {
    AudioBuffer source = audio(1024);
    EXPECT_EQ(planesOf(wrapper.processAudioBuffer(source)), planesOf(source));
}

TEST_F(FilteredFrameTest, ProcessAudioBufferOfAnEmptyBufferGivesAnEmptyOne) {
    wrapper.setFilterSpec("volume=2:precision=fixed");
    AudioBuffer source;
    EXPECT_TRUE(wrapper.processAudioBuffer(source).empty());
}

TEST_F(FilteredFrameTest, RateFormatAndLayoutOfAudioComeFromTheGraph) {
    wrapper.setFilterSpec("pan=mono|c0=c1,asetrate=24000,aformat=sample_fmts=dbl");
    AudioBuffer source = audio(1024);
    const AudioBuffer result = wrapper.processAudioBuffer(source);
    EXPECT_EQ(result.debugDescription(), "1024 samples 24000Hz mono dbl");
}

// Filters that give nothing for a frame, or several.

TEST_F(FilteredFrameTest, VideoThatIsHeldBackIsBadAlloc) {
    wrapper.setFilterSpec("tile=2x1");
    Frame first(picture({64, 48}, AV_PIX_FMT_YUV420P, 1), Timestamp(0));
    Frame second(picture({64, 48}, AV_PIX_FMT_YUV420P, 2), Timestamp(1));
    EXPECT_THROW(wrapper.processFrame(first), std::bad_alloc);
    const Picture both = wrapper.processFrame(second).picture();
    EXPECT_EQ(both.size(), (rect_size_t{128, 48}));
    EXPECT_EQ(both.crop({0, 0, 64, 48}), first.picture());
    EXPECT_EQ(both.crop({64, 0, 64, 48}), second.picture());
}

TEST_F(FilteredFrameTest, VideoThatIsDroppedIsFreed) {
    wrapper.setFilterSpec("select='gte(n,2)'");
    for (int call = 0; call < 2; ++call) {
        Frame frame(picture(), Timestamp(call));
        EXPECT_THROW(wrapper.processFrame(frame), std::bad_alloc);
        EXPECT_TRUE(frame.picture().editable()) << "something still holds the pixels";
    }
    Frame frame(picture(), Timestamp(2));
    EXPECT_EQ(wrapper.processFrame(frame).picture(), picture());
}

TEST_F(FilteredFrameTest, HeldFramesGoWithTheGraph) {
    wrapper.setFilterSpec("reverse");  // waits for the end of the stream
    Frame frame(picture({64, 48}), Timestamp(0));
    EXPECT_THROW(wrapper.processFrame(frame), std::bad_alloc);
    EXPECT_THROW(wrapper.processFrame(frame), std::bad_alloc);
    wrapper.setFilterSpec("null");
    EXPECT_EQ(wrapper.processFrame(frame).picture(), frame.picture());
}

TEST_F(FilteredFrameTest, HeldFramesAreNotWrittenByTheCaller) {
    wrapper.setFilterSpec("tile=2x1");
    Frame frame(picture(), Timestamp(0));
    EXPECT_THROW(wrapper.processFrame(frame), std::bad_alloc);
    frame.picture().makeEditable();
    std::memset(frame.picture().getPlanes()[0], 0, 64);
    EXPECT_EQ(wrapper.processFrame(frame).picture().crop({0, 0, 64, 48}), picture());
}

TEST_F(FilteredFrameTest, WrapperMayGoWithFramesHeldBack) {
    Frame frame(picture(), Timestamp(0));
    {
        FFmpegFilterWrapper shortLived;
        shortLived.setFilterSpec("reverse");
        EXPECT_THROW(shortLived.processFrame(frame), std::bad_alloc);
    }
    EXPECT_TRUE(frame.picture().editable());
}

TEST_F(FilteredFrameTest, AudioThatIsHeldBackIsTheBufferSizeError) {
    wrapper.setFilterSpec("asetnsamples=n=1500");
    AudioBuffer buffer = audio(1000);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(buffer); }), noAudio);
    const std::vector<std::int16_t> result = shorts(wrapper.processAudioBuffer(buffer));
    std::vector<std::int16_t> want = shorts(buffer);
    const std::vector<std::int16_t> again = want;
    want.insert(want.end(), again.begin(), again.begin() + 1000);
    EXPECT_EQ(result, want);
}

TEST_F(FilteredFrameTest, AudioThatIsDroppedIsTheBufferSizeError) {
    wrapper.setFilterSpec("aselect='gte(n,2)'");
    AudioBuffer buffer = audio(3);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(buffer); }), noAudio);
    EXPECT_EQ(runtimeErrorOf([&] { wrapper.processAudioBuffer(buffer); }), noAudio);
    EXPECT_EQ(shorts(wrapper.processAudioBuffer(buffer)), shorts(buffer));
}

TEST_F(FilteredFrameTest, SeveralFramesForOneComeOutOnePerCall) {
    wrapper.setFilterSpec("fps=2");
    Frame first(picture({64, 48}, AV_PIX_FMT_YUV420P, 1), Timestamp(0));
    Frame second(picture({64, 48}, AV_PIX_FMT_YUV420P, 2), Timestamp(1));
    Frame third(picture({64, 48}, AV_PIX_FMT_YUV420P, 3), Timestamp(2));
    EXPECT_THROW(wrapper.processFrame(first), std::bad_alloc);
    EXPECT_EQ(wrapper.processFrame(second).picture(), first.picture());
    EXPECT_EQ(wrapper.processFrame(third).picture(), first.picture()) << "its second copy";
    EXPECT_EQ(wrapper.processFrame(third).picture(), second.picture());
}

TEST_F(FilteredFrameTest, SeveralAudioFramesForOneComeOutOnePerCall) {
    wrapper.setFilterSpec("asetnsamples=n=2");
    AudioBuffer first = audio(4, AV_CH_LAYOUT_MONO);
    AudioBuffer second = first;
    second.createPlanes();
    second.loadSamples({-1, -2, -3, -4});
    EXPECT_THAT(shorts(wrapper.processAudioBuffer(first)), ElementsAre(0, 100));
    EXPECT_THAT(shorts(wrapper.processAudioBuffer(second)), ElementsAre(200, 300));
    EXPECT_THAT(shorts(wrapper.processAudioBuffer(second)), ElementsAre(-1, -2));
}

// Labels.

TEST_F(FilteredFrameTest, LabelsInAndOutNameTheFreeEnds) {
    wrapper.setFilterSpec("[in]hflip[out]");
    Picture source = picture();
    EXPECT_EQ(test::visibleBytes(wrapper.processPicture(source)), mirrored(source));
}

TEST_F(FilteredFrameTest, LabelInAloneNamesTheFreeInput) {
    wrapper.setFilterSpec("[in]hflip");
    Picture source = picture();
    EXPECT_EQ(test::visibleBytes(wrapper.processPicture(source)), mirrored(source));
}

TEST_F(FilteredFrameTest, LabelOutAloneNamesTheFreeOutput) {
    wrapper.setFilterSpec("hflip[out]");
    Picture source = picture();
    EXPECT_EQ(test::visibleBytes(wrapper.processPicture(source)), mirrored(source));
}

TEST_F(FilteredFrameTest, LabelsMayLinkSeveralChains) {
    wrapper.setFilterSpec("[in]split[a][b];[b]hflip[c];[a][c]hstack[out]");
    Picture source = picture();
    const Picture result = wrapper.processPicture(source);
    EXPECT_EQ(result.crop({0, 0, 64, 48}), source);
    EXPECT_EQ(test::visibleBytes(result.crop({64, 0, 64, 48})), mirrored(source));
}

TEST_F(FilteredFrameTest, LabelsServeAudioToo) {
    wrapper.setFilterSpec("[in]volume=2:precision=fixed[out]");
    AudioBuffer source = audio(2);
    EXPECT_THAT(shorts(wrapper.processAudioBuffer(source)), ElementsAre(0, 2, 200, 202));
}

}  // namespace
}  // namespace kvffmpeg
