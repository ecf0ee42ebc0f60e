#include "kvffmpeg/frame.h"

#include <gmock/gmock.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "support/media.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace kvffmpeg {
namespace {

static_assert(std::is_enum_v<Frame::FrameFlags>);
static_assert(sizeof(Frame::FrameFlags) == 4, "a 32-bit word");
static_assert(std::is_copy_constructible_v<Frame> && std::is_copy_assignable_v<Frame>);
static_assert(std::is_move_constructible_v<Frame> && std::is_move_assignable_v<Frame>);

struct FreeFrame {
    void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FreeFrame>;
FramePtr blankFrame() {
    return FramePtr(av_frame_alloc());
}

constexpr auto caller = static_cast<Frame::FrameFlags>(0x80000001U);

AudioBuffer audio() {
    AudioBuffer result(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16);
    result.setSampleRate(44100);
    result.loadSamples({1, 2, 3});
    return result;
}
Picture picture() {
    return test::randomPicture({4, 2}, AV_PIX_FMT_RGB24);
}

void expectBareRest(const Frame& frame) {
    EXPECT_EQ(frame.position(), (rect_t{0, 0, 0, 0}));
    EXPECT_EQ(frame.flags(), Frame::none);
    EXPECT_TRUE(frame.metadata().empty());
}

TEST(FrameTest, DefaultIsTheEmptyFrame) {
    const Frame frame;
    EXPECT_TRUE(frame.empty());
    EXPECT_TRUE(frame.picture().empty());
    EXPECT_TRUE(frame.audioBuffer().empty());
    EXPECT_TRUE(frame.PTS().is_nil());
    EXPECT_EQ(frame.PTS().timeBase(), (Timebase{1, 1000000}));
    expectBareRest(frame);
    EXPECT_EQ(static_cast<unsigned>(Frame::none), 0u);
}

TEST(FrameTest, OfAPictureSharesItsPixels) {
    const Picture source = picture();
    const Frame frame(source, Timestamp(3, 1, 25));
    EXPECT_FALSE(frame.empty());
    EXPECT_EQ(frame.picture().buffer(), source.buffer());
    EXPECT_TRUE(frame.audioBuffer().empty());
    EXPECT_EQ(frame.PTS().value(), 3);
    EXPECT_EQ(frame.PTS().timeBase(), (Timebase{1, 25}));
    expectBareRest(frame);
}

TEST(FrameTest, OfAMovedPictureTakesIt) {
    Picture source = picture();
    const unsigned char* const pixels = source.getPlanes()[0];
    Frame frame(std::move(source), Timestamp(7));
    EXPECT_TRUE(source.empty());  // NOLINT: what is left is the point
    EXPECT_EQ(frame.picture().getPlanes()[0], pixels);
    EXPECT_TRUE(frame.picture().editable());
    EXPECT_EQ(frame.PTS().value(), 7);
    expectBareRest(frame);
}

TEST(FrameTest, OfAudioSharesItsSamples) {
    AudioBuffer source = audio();
    const Frame frame(source, Timestamp(7));
    EXPECT_FALSE(frame.empty());
    EXPECT_TRUE(frame.picture().empty());
    EXPECT_EQ(frame.audioBuffer().numberOfSamples(), 3u);
    source.setSample_s16({55, 66}, 0);
    EXPECT_EQ(frame.audioBuffer().getSample_s16(0), (std::vector<std::int16_t>{55, 66}));
    EXPECT_EQ(frame.PTS().value(), 7);
    expectBareRest(frame);
}

TEST(FrameTest, OfMovedAudioTakesIt) {
    AudioBuffer source = audio();
    const Frame frame(std::move(source), Timestamp(7));
    EXPECT_TRUE(source.empty());  // NOLINT
    EXPECT_EQ(frame.audioBuffer().numberOfSamples(), 3u);
}

TEST(FrameTest, OfAnEmptyPictureIsEmpty) {
    const Frame frame{Picture(), Timestamp()};
    EXPECT_TRUE(frame.empty());
    EXPECT_EQ(frame.debugDescription(), "empty frame, pts null pts");
    const FramePtr target = blankFrame();
    EXPECT_THROW(frame.fillAVFrame(target.get()), std::runtime_error);
}

TEST(FrameTest, SetPictureLeavesTheAudio) {
    Frame frame(audio(), Timestamp(7));
    const Picture source = picture();
    frame.setPicture(source);
    EXPECT_EQ(frame.picture().buffer(), source.buffer());
    EXPECT_FALSE(frame.audioBuffer().empty());
    Picture other = picture();
    const unsigned char* const pixels = other.getPlanes()[0];
    frame.setPicture(std::move(other));
    EXPECT_TRUE(other.empty());  // NOLINT
    EXPECT_EQ(frame.picture().getPlanes()[0], pixels);
    EXPECT_FALSE(frame.audioBuffer().empty());
    frame.setPicture(Picture());
    EXPECT_FALSE(frame.empty());
}

TEST(FrameTest, SetAudioBufferLeavesThePicture) {
    const Picture source = picture();
    Frame frame(source, Timestamp(7));
    frame.setAudioBuffer(audio());
    EXPECT_EQ(frame.audioBuffer().numberOfSamples(), 3u);
    EXPECT_EQ(frame.picture().buffer(), source.buffer());
    frame.setAudioBuffer(AudioBuffer());
    EXPECT_TRUE(frame.audioBuffer().empty());
    EXPECT_FALSE(frame.empty());
}

TEST(FrameTest, ContentsCanBeChangedThroughTheMutableAccessors) {
    Frame frame(picture(), Timestamp());
    frame.picture() = Picture({8, 8}, AV_PIX_FMT_GRAY8);
    EXPECT_EQ(std::as_const(frame).picture().width(), 8);
    frame.audioBuffer() = audio();
    EXPECT_EQ(std::as_const(frame).audioBuffer().sampleRate(), 44100);
    frame.metadata().addValue("title", "x");
    EXPECT_EQ(std::as_const(frame).metadata().getValue("title"), "x");
}

TEST(FrameTest, SettersStoreWhatTheyAreGiven) {
    Frame frame;
    rect_t position{1, -2, 3, 4};
    frame.setPosition(position);
    EXPECT_EQ(frame.position(), (rect_t{1, -2, 3, 4}));
    EXPECT_EQ(position, (rect_t{1, -2, 3, 4}));
    frame.setPTS(Timestamp(9, 1, 90000));
    EXPECT_EQ(frame.PTS().value(), 9);
    EXPECT_EQ(frame.PTS().timeBase(), (Timebase{1, 90000}));
    frame.setPTS(Timestamp());
    EXPECT_TRUE(frame.PTS().is_nil());
    frame.setFlags(caller);
    EXPECT_EQ(frame.flags(), caller);
}

TEST(FrameTest, ChangingACopyLeavesTheSource) {
    Frame frame(picture(), Timestamp(1));
    frame.metadata().addValue("key", "old");
    Frame copy = frame;
    EXPECT_EQ(copy.picture().buffer(), frame.picture().buffer());
    copy.setPosition(rect_t{1, 2, 3, 4});
    copy.setFlags(caller);
    copy.setPTS(Timestamp(2));
    copy.metadata().addValue("key", "new");
    copy.picture().makeEditable();
    copy.setAudioBuffer(audio());
    EXPECT_EQ(frame.position(), (rect_t{0, 0, 0, 0}));
    EXPECT_EQ(frame.flags(), Frame::none);
    EXPECT_EQ(frame.PTS().value(), 1);
    EXPECT_EQ(frame.metadata().getValue("key"), "old");
    EXPECT_NE(copy.picture().buffer(), frame.picture().buffer());
    EXPECT_TRUE(frame.audioBuffer().empty());
}

TEST(FrameTest, CopiesAndMovesCarryEverything) {
    Frame frame(picture(), Timestamp(1));
    frame.setAudioBuffer(audio());
    frame.setPosition(rect_t{1, 2, 3, 4});
    frame.setFlags(caller);
    frame.metadata().addValue("key", "value");
    const Frame copy = frame;
    Frame assigned;
    assigned = std::move(frame);
    for (const Frame& other : {std::cref(copy), std::cref(std::as_const(assigned))}) {
        EXPECT_FALSE(other.picture().empty());
        EXPECT_EQ(other.audioBuffer().numberOfSamples(), 3u);
        EXPECT_EQ(other.position(), (rect_t{1, 2, 3, 4}));
        EXPECT_EQ(other.flags(), caller);
        EXPECT_EQ(other.PTS().value(), 1);
        EXPECT_EQ(other.metadata().getValue("key"), "value");
    }
    EXPECT_EQ(copy.picture().buffer(), assigned.picture().buffer());
    EXPECT_EQ(copy.audioBuffer().getPointersToPlanes(),
              std::as_const(assigned).audioBuffer().getPointersToPlanes());
    EXPECT_TRUE(frame.empty());  // NOLINT
}

TEST(FrameExportTest, PictureIsExportedWithTheTicksAsTheyAre) {
    const Frame frame(picture(), Timestamp(3, 1, 25));
    const FramePtr target = blankFrame();
    frame.fillAVFrame(target.get());
    EXPECT_EQ(target->width, 4);
    EXPECT_EQ(target->data[0], frame.picture().getPlanes()[0]);
    EXPECT_EQ(target->pts, 3);
}

TEST(FrameExportTest, AudioIsExportedWithoutAPicture) {
    const Frame frame(audio(), Timestamp(-5));
    const FramePtr target = blankFrame();
    frame.fillAVFrame(target.get());
    EXPECT_EQ(target->nb_samples, 3);
    EXPECT_EQ(target->sample_rate, 44100);
    EXPECT_EQ(target->pts, -5);
}

TEST(FrameExportTest, PictureWinsOverAudio) {
    Frame frame(picture(), Timestamp(1));
    frame.setAudioBuffer(audio());
    const FramePtr target = blankFrame();
    frame.fillAVFrame(target.get());
    EXPECT_EQ(target->width, 4);
    EXPECT_EQ(target->format, AV_PIX_FMT_RGB24);
    EXPECT_EQ(target->nb_samples, 0);
}

TEST(FrameExportTest, NilTimeIsExportedAsItsValue) {
    const FramePtr target = blankFrame();
    Frame(picture(), Timestamp()).fillAVFrame(target.get());
    EXPECT_EQ(target->pts, 0);
    Timestamp nil;
    ++nil;
    const FramePtr other = blankFrame();
    Frame(audio(), nil).fillAVFrame(other.get());
    EXPECT_EQ(other->pts, 1);
}

TEST(FrameExportTest, EmptyFrameThrowsAndLeavesTheTarget) {
    const FramePtr target = blankFrame();
    target->pts = 77;
    std::string text = "(none)";
    try {
        Frame(Picture(), Timestamp(5)).fillAVFrame(target.get());
    } catch (const std::runtime_error& error) {
        text = error.what();
    }
    EXPECT_EQ(text, "Can not fill AVFrame from empty frame");
    EXPECT_EQ(target->pts, 77);
    EXPECT_EQ(target->buf[0], nullptr);
}

TEST(FrameTextTest, DescribesItsContentAndTime) {
    EXPECT_EQ(Frame(picture(), Timestamp(3, 1, 25)).debugDescription(),
              "video frame 4x2, rgb24 (unknown), pts 0.120000 (1/25)");
    EXPECT_EQ(Frame(audio(), Timestamp(1500000)).debugDescription(),
              "audio frame 3 samples 44100Hz stereo s16, pts 1.500000");
    EXPECT_EQ(Frame(Picture(), Timestamp(1)).debugDescription(), "empty frame, pts 0.000001");
    EXPECT_EQ(Frame().debugDescription(), "empty frame, pts null pts");
}

TEST(FrameTextTest, VideoWinsAndTheRestIsNotPartOfIt) {
    Frame frame(picture(), Timestamp());
    frame.setAudioBuffer(audio());
    frame.setPosition(rect_t{1, 2, 3, 4});
    frame.setFlags(caller);
    frame.metadata().addValue("key", "value");
    EXPECT_EQ(frame.debugDescription(), "video frame 4x2, rgb24 (unknown), pts null pts");
}

TEST(FrameTextTest, StreamGetsTheDescriptionAndIsReturned) {
    std::ostringstream out;
    EXPECT_EQ(&(out << Frame()), &out);
    EXPECT_EQ(out.str(), "empty frame, pts null pts");
}

}  // namespace
}  // namespace kvffmpeg
