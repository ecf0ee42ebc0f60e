#include "kvffmpeg/audiobuffer.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "support/media.h"
#include "support/temporary_folder.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

namespace kvffmpeg {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Samples = std::vector<std::int16_t>;

struct FreeFrame {
    void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FreeFrame>;
FramePtr blankFrame() {
    return FramePtr(av_frame_alloc());
}

/// FFmpeg refuses allocations of more than a few bytes while it lives.
struct FFmpegWithoutMemory {
    FFmpegWithoutMemory() { av_max_alloc(33); }
    ~FFmpegWithoutMemory() { av_max_alloc(INT_MAX); }
    FFmpegWithoutMemory(const FFmpegWithoutMemory&) = delete;
    FFmpegWithoutMemory& operator=(const FFmpegWithoutMemory&) = delete;
};

/// The text of the std::runtime_error that `action` throws.
template <typename Action>
std::string runtimeErrorOf(Action action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(no std::runtime_error)";
}

AudioBuffer buffer(std::uint64_t layout, AVSampleFormat format, std::uint64_t samples, int rate = 48000) {
    AudioBuffer result(layout, format);
    result.setSampleRate(rate);
    result.resize(samples);
    return result;
}

/// Gives plane p the bytes start + p * 16, start + p * 16 + 1, ...
void number(AudioBuffer& audio, std::size_t bytesPerPlane, unsigned start = 0) {
    const std::vector<std::uint8_t*> planes = audio.getPointersToPlanes();
    for (std::size_t p = 0; p < planes.size(); ++p) {
        for (std::size_t i = 0; i < bytesPerPlane; ++i)
            planes[p][i] = static_cast<std::uint8_t>(start + p * 16 + i);
    }
}

std::vector<std::uint8_t> bytes(const std::uint8_t* data, std::size_t count) {
    return {data, data + count};
}

/// A frame of the given audio whose data are then free to be changed: the way to set a layout in every
/// version.
FramePtr frameOf(const AudioBuffer& audio) {
    FramePtr frame = blankFrame();
    audio.fillAVFrame(frame.get());
    return frame;
}

std::string dumped(const AudioBuffer& audio, int plane) {
    const test::TemporaryFolder folder;
    {
        std::ofstream out(folder.file("plane"), std::ios::binary);
        audio.dumpPlane(out, plane);
    }
    const std::vector<std::uint8_t> content = test::readFile(folder.file("plane"));
    return {content.begin(), content.end()};
}
std::size_t planeSize(const AudioBuffer& audio, int plane) {
    return dumped(audio, plane).size();
}

TEST(AudioBufferTest, DefaultIsEmpty) {
    const AudioBuffer audio;
    EXPECT_TRUE(audio.empty());
    EXPECT_EQ(audio.channelLayout(), 0u);
    EXPECT_EQ(audio.sampleFormat(), AV_SAMPLE_FMT_NONE);
    EXPECT_EQ(audio.sampleRate(), 0);
    EXPECT_EQ(audio.numberOfSamples(), 0u);
    EXPECT_EQ(audio.numberOfChannels(), 0);
    EXPECT_THAT(audio.getPointersToPlanes(), IsEmpty());
}

TEST(AudioBufferTest, ConstructorMakesPlanesWithoutSamples) {
    AudioBuffer audio(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP);
    EXPECT_FALSE(audio.empty());
    EXPECT_EQ(audio.channelLayout(), std::uint64_t{AV_CH_LAYOUT_STEREO});
    EXPECT_EQ(audio.sampleFormat(), AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(audio.sampleRate(), 0);
    EXPECT_EQ(audio.numberOfSamples(), 0u);
    EXPECT_EQ(audio.numberOfChannels(), 2);
    EXPECT_THAT(audio.getPointersToPlanes(), ElementsAre(nullptr, nullptr));
    EXPECT_THAT(std::as_const(audio).getPointersToPlanes(), ElementsAre(nullptr, nullptr));
}

TEST(AudioBufferTest, PlaneCountIsTheChannelCountOnlyForPlanarFormatsOfSeveralChannels) {
    const auto planes = [](std::uint64_t layout, AVSampleFormat format) {
        return AudioBuffer(layout, format).getPointersToPlanes().size();
    };
    EXPECT_EQ(planes(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP), 2u);
    EXPECT_EQ(planes(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16), 1u);
    EXPECT_EQ(planes(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_FLTP), 1u);
    EXPECT_EQ(planes(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16), 1u);
    EXPECT_EQ(planes(AV_CH_LAYOUT_5POINT1, AV_SAMPLE_FMT_S16P), 6u);
    EXPECT_EQ(planes(AV_CH_LAYOUT_5POINT1, AV_SAMPLE_FMT_S32), 1u);
    EXPECT_EQ(planes(0, AV_SAMPLE_FMT_FLTP), 1u);
    EXPECT_EQ(planes(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_NONE), 1u);
}

TEST(AudioBufferTest, NumberOfChannelsIsTheNumberOfBits) {
    EXPECT_EQ(AudioBuffer(0, AV_SAMPLE_FMT_S16).numberOfChannels(), 0);
    EXPECT_EQ(AudioBuffer(0x3FF, AV_SAMPLE_FMT_S16).numberOfChannels(), 10);
    EXPECT_EQ(AudioBuffer(std::uint64_t{1} << 63, AV_SAMPLE_FMT_S16).numberOfChannels(), 1);
}

TEST(AudioBufferTest, ResizeGivesEveryPlaneItsShareWithoutPadding) {
    const AudioBuffer packed = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 1024);
    EXPECT_EQ(packed.numberOfSamples(), 1024u);
    EXPECT_EQ(planeSize(packed, 0), 4096u);
    const AudioBuffer planar = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 1024);
    EXPECT_EQ(planeSize(planar, 0), 4096u);
    EXPECT_EQ(planeSize(planar, 1), 4096u);
    EXPECT_EQ(planeSize(buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_U8, 7), 0), 7u);
}

TEST(AudioBufferTest, ResizeKeepsTheSamplesThatStay) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16, 2);
    audio.setSample_s16({11}, 0);
    audio.setSample_s16({22}, 1);
    audio.resize(3);
    EXPECT_EQ(audio.getSample_s16(0), Samples{11});
    EXPECT_EQ(audio.getSample_s16(1), Samples{22});
    audio.resize(1);
    EXPECT_EQ(audio.numberOfSamples(), 1u);
    EXPECT_EQ(audio.getSample_s16(0), Samples{11});
}

TEST(AudioBufferTest, NeededSizeIsTheOneOfAllPlanes) {
    EXPECT_EQ(AudioBuffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16).getNeededBufferSize(1024), 4096u);
    EXPECT_EQ(AudioBuffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP).getNeededBufferSize(1024), 8192u);
    EXPECT_EQ(AudioBuffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP).getNeededBufferSize(1), 8u);
}

TEST(AudioBufferTest, SampleCountIsHandedOverAs32Bits) {
    const AudioBuffer audio(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16);
    EXPECT_EQ(audio.getNeededBufferSize((std::uint64_t{1} << 32) + 10), 20u);
}

TEST(AudioBufferTest, SizesThatFFmpegRefusesThrow) {
    const auto error = [](std::uint64_t layout, AVSampleFormat format, std::uint64_t samples) {
        return runtimeErrorOf([&] { (void)AudioBuffer(layout, format).getNeededBufferSize(samples); });
    };
    EXPECT_EQ(error(3, AV_SAMPLE_FMT_S16, 0),
              "Could not get buffer size for audio layout 3, sample format 1, samples 0");
    EXPECT_EQ(error(0, AV_SAMPLE_FMT_S16, 5),
              "Could not get buffer size for audio layout 0, sample format 1, samples 5");
    EXPECT_EQ(error(3, AV_SAMPLE_FMT_NONE, 5),
              "Could not get buffer size for audio layout 3, sample format -1, samples 5");
    EXPECT_EQ(error(0x63F, AV_SAMPLE_FMT_FLTP, 2000000000),
              "Could not get buffer size for audio layout 1599, sample format 8, samples 2000000000");
    EXPECT_EQ(error(std::uint64_t{1} << 63, AV_SAMPLE_FMT_S16, 0),
              "Could not get buffer size for audio layout 9223372036854775808, sample format 1, samples 0");
}

TEST(AudioBufferTest, ErrorTextDoesNotDependOnTheGlobalLocale) {
    struct Punctuation : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Punctuation));
    const std::string text =
        runtimeErrorOf([] { (void)AudioBuffer(0, AV_SAMPLE_FMT_S16).getNeededBufferSize(48000); });
    const std::string description = buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16, 1024).debugDescription();
    std::locale::global(before);
    EXPECT_EQ(text, "Could not get buffer size for audio layout 0, sample format 1, samples 48000");
    EXPECT_EQ(description, "1024 samples 48000Hz mono s16");
}

TEST(AudioBufferTest, FailedResizeKeepsTheNewCountAndTheOldPlanes) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 4);
    EXPECT_THROW(audio.resize(0), std::runtime_error);
    EXPECT_EQ(audio.numberOfSamples(), 0u);
    EXPECT_EQ(planeSize(audio, 0), 16u);
    EXPECT_THROW(audio.resize(2000000000), std::runtime_error);
    EXPECT_EQ(audio.numberOfSamples(), 2000000000u);
    EXPECT_EQ(planeSize(audio, 0), 16u);
}

TEST(AudioBufferTest, ResizeOfABufferWithoutStorageCreatesItFirst) {
    AudioBuffer audio;
    EXPECT_THROW(audio.resize(5), std::runtime_error);
    EXPECT_FALSE(audio.empty());
    EXPECT_EQ(audio.numberOfSamples(), 5u);
    EXPECT_THAT(audio.getPointersToPlanes(), ElementsAre(nullptr));
}

TEST(AudioBufferTest, CreatePlanesForgetsSamplesAndDoesNotThrow) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 10);
    audio.createPlanes();
    EXPECT_EQ(audio.numberOfSamples(), 0u);
    EXPECT_THAT(audio.getPointersToPlanes(), ElementsAre(nullptr, nullptr));
    EXPECT_EQ(audio.sampleRate(), 48000);
    AudioBuffer blank;
    blank.createPlanes();
    EXPECT_FALSE(blank.empty());
    EXPECT_THAT(blank.getPointersToPlanes(), SizeIs(1));
}

TEST(AudioBufferTest, CopiesShareSamplesUntilPlanesAreCreated) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 4);
    AudioBuffer copy = audio;
    copy.setSample_s16({5, -6}, 2);
    EXPECT_EQ(audio.getSample_s16(2), (Samples{5, -6}));
    EXPECT_EQ(copy.getPointersToPlanes(), audio.getPointersToPlanes());
    copy.createPlanes();
    copy.resize(4);
    copy.setSample_s16({7, 8}, 2);
    EXPECT_EQ(audio.getSample_s16(2), (Samples{5, -6}));
}

TEST(AudioBufferTest, LoadingGivesACopyStorageOfItsOwn) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16, 2);
    audio.setSample_s16({1}, 0);
    AudioBuffer loaded = audio, fromFrame = audio;
    loaded.loadSamples({9, 9});
    const FramePtr frame = frameOf(buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16, 2));
    fromFrame.loadAVFrame(frame.get());
    EXPECT_NE(loaded.getPointersToPlanes(), audio.getPointersToPlanes());
    EXPECT_NE(fromFrame.getPointersToPlanes(), audio.getPointersToPlanes());
    EXPECT_EQ(audio.getSample_s16(0), Samples{1});
}

TEST(AudioBufferTest, ResizeOfACopyIsSeenExceptForTheCount) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16, 4);
    AudioBuffer copy = audio;
    copy.resize(100);
    EXPECT_EQ(audio.numberOfSamples(), 4u);
    EXPECT_EQ(planeSize(audio, 0), 200u);
    EXPECT_EQ(copy.getPointersToPlanes(), audio.getPointersToPlanes());
}

TEST(AudioBufferTest, MovingLeavesNoStorage) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16, 4);
    const AudioBuffer moved = std::move(audio);
    EXPECT_TRUE(audio.empty());  // NOLINT: what is left is the point
    EXPECT_EQ(moved.numberOfSamples(), 4u);
}

TEST(AudioBufferSampleTest, TwoChannelsAreReadAndWrittenAsPairs) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 3);
    std::memset(audio.getPointersToPlanes()[0], 0, 12);
    audio.setSample_s16({100, -200}, 1);
    Samples raw(6);
    std::memcpy(raw.data(), audio.getPointersToPlanes()[0], 12);
    EXPECT_THAT(raw, ElementsAre(0, 0, 100, -200, 0, 0));
    EXPECT_EQ(audio.getSample_s16(1), (Samples{100, -200}));
}

TEST(AudioBufferSampleTest, OtherChannelCountsUseOneValueAtThePosition) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_2POINT1, AV_SAMPLE_FMT_S16, 2);  // 6 positions
    std::memset(audio.getPointersToPlanes()[0], 0, 12);
    audio.setSample_s16({7, 8, 9}, 4);
    Samples raw(6);
    std::memcpy(raw.data(), audio.getPointersToPlanes()[0], 12);
    EXPECT_THAT(raw, ElementsAre(0, 0, 0, 0, 7, 0));
    EXPECT_EQ(audio.getSample_s16(4), Samples{7});
}

TEST(AudioBufferSampleTest, AccessWithoutStorageIsOutOfRange) {
    AudioBuffer audio;
    EXPECT_THROW(audio.setSample_s16({1, 2}, 0), std::out_of_range);
    EXPECT_THROW((void)audio.getSample_s16(0), std::out_of_range);
    std::ofstream out;
    EXPECT_THROW(audio.dumpPlane(out, 0), std::out_of_range);
    EXPECT_THAT(audio.getPointersToPlanes(), IsEmpty());
}

TEST(AudioBufferSampleTest, AccessBeyondThePlaneIsOutOfRange) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 3);
    for (std::uint64_t index :
         {std::uint64_t{3}, std::uint64_t{6}, UINT64_MAX, UINT64_MAX / 2 + 1, UINT64_MAX / 4 + 1}) {
        EXPECT_THROW((void)audio.getSample_s16(index), std::out_of_range) << index;
        EXPECT_THROW(audio.setSample_s16({1, 2}, index), std::out_of_range) << index;
    }
    EXPECT_NO_THROW((void)audio.getSample_s16(2));
    AudioBuffer withoutSamples(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16);
    EXPECT_THROW((void)withoutSamples.getSample_s16(0), std::out_of_range);
}

TEST(AudioBufferSampleTest, TooFewValuesAreOutOfRange) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 3);
    EXPECT_THROW(audio.setSample_s16({1}, 0), std::out_of_range);
    EXPECT_THROW(audio.setSample_s16({}, 0), std::out_of_range);
}

TEST(AudioBufferSampleTest, AccessIsBoundedByThePlaneAfterAFailedResizeAndACopysResize) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16, 4);
    EXPECT_THROW(audio.resize(2000000000), std::runtime_error);
    EXPECT_THROW((void)audio.getSample_s16(4), std::out_of_range);
    AudioBuffer copy = audio;
    copy.resize(2);
    EXPECT_THROW((void)audio.getSample_s16(2), std::out_of_range);
}

TEST(AudioBufferLoadSamplesTest, PackedS16RepeatsEverySampleForEveryChannel) {
    AudioBuffer audio(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16);
    audio.loadSamples({1000, -2000});
    EXPECT_EQ(audio.numberOfSamples(), 2u);
    Samples raw(4);
    ASSERT_EQ(planeSize(audio, 0), 8u);
    std::memcpy(raw.data(), audio.getPointersToPlanes()[0], 8);
    EXPECT_THAT(raw, ElementsAre(1000, 1000, -2000, -2000));

    AudioBuffer three(AV_CH_LAYOUT_2POINT1, AV_SAMPLE_FMT_S16);
    three.loadSamples({5, 6});
    raw.resize(6);
    std::memcpy(raw.data(), three.getPointersToPlanes()[0], 12);
    EXPECT_THAT(raw, ElementsAre(5, 5, 5, 6, 6, 6));
}

TEST(AudioBufferLoadSamplesTest, PlanarFloatIsTheSampleDividedBy32768InEveryPlane) {
    for (std::uint64_t layout : std::vector<std::uint64_t>{AV_CH_LAYOUT_STEREO, AV_CH_LAYOUT_MONO}) {
        AudioBuffer audio(layout, AV_SAMPLE_FMT_FLTP);
        audio.loadSamples({1000, -2000, -32768, 32767, 0});
        for (const std::uint8_t* plane : audio.getPointersToPlanes()) {
            std::vector<float> values(5);
            std::memcpy(values.data(), plane, 20);
            EXPECT_THAT(values, ElementsAre(1000 * 3.0517578e-5F, -2000 * 3.0517578e-5F,
                                            -32768 * 3.0517578e-5F, 32767 * 3.0517578e-5F, 0.0F));
            EXPECT_FLOAT_EQ(values[0], 1000.0F / 32768.0F);
        }
    }
}

TEST(AudioBufferLoadSamplesTest, OtherFormatsGetTheSizeOnly) {
    for (AVSampleFormat format : {AV_SAMPLE_FMT_U8, AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_S16P,
                                  AV_SAMPLE_FMT_DBLP, AV_SAMPLE_FMT_S32P}) {
        AudioBuffer audio(AV_CH_LAYOUT_STEREO, format);
        audio.loadSamples({1, 2, 3});
        EXPECT_EQ(audio.numberOfSamples(), 3u) << format;
        EXPECT_GT(planeSize(audio, 0), 0u) << format;
    }
}

TEST(AudioBufferLoadSamplesTest, EmptySequenceThrowsTheBufferSizeError) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 4);
    EXPECT_EQ(runtimeErrorOf([&] { audio.loadSamples({}); }),
              "Could not get buffer size for audio layout 3, sample format 1, samples 0");
}

TEST(AudioBufferFrameTest, FrameGetsACopyOfEveryPlane) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16P, 5, 44100);
    number(audio, 10);
    const FramePtr frame = frameOf(audio);
    EXPECT_EQ(frame->sample_rate, 44100);
    EXPECT_EQ(frame->nb_samples, 5);
    EXPECT_EQ(frame->format, AV_SAMPLE_FMT_S16P);
    EXPECT_EQ(frame->linesize[0], 10);
    EXPECT_EQ(frame->extended_data, frame->data);
    ASSERT_NE(frame->buf[0], nullptr);
    EXPECT_EQ(frame->buf[0]->data, frame->data[0]);
    EXPECT_EQ(static_cast<int>(frame->buf[0]->size), frame->linesize[0]);
    const auto planes = audio.getPointersToPlanes();
    for (std::size_t p = 0; p < 2; ++p) {
        EXPECT_NE(frame->data[p], planes[p]);
        EXPECT_EQ(bytes(frame->data[p], 10), bytes(planes[p], 10)) << p;
    }
    EXPECT_EQ(frame->data[2], nullptr);
}

TEST(AudioBufferFrameTest, FrameOutlivesTheBuffer) {
    FramePtr frame;
    {
        AudioBuffer audio = buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_U8, 3);
        number(audio, 3, 5);
        frame = frameOf(audio);
    }
    EXPECT_EQ(bytes(frame->data[0], 3), (std::vector<std::uint8_t>{5, 6, 7}));
}

TEST(AudioBufferFrameTest, LayoutRateAndFormatSurviveTheRoundTrip) {
    for (std::uint64_t layout : std::vector<std::uint64_t>{AV_CH_LAYOUT_MONO, AV_CH_LAYOUT_STEREO,
                                                           AV_CH_LAYOUT_5POINT1, AV_CH_LAYOUT_7POINT1}) {
        for (AVSampleFormat format : {AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLTP}) {
            const AudioBuffer audio = buffer(layout, format, 6, 32000);
            const FramePtr frame = frameOf(audio);
            const FramePtr reference = blankFrame();
            ASSERT_EQ(av_frame_ref(reference.get(), frame.get()), 0)
                << "FFmpeg wants count and layout to agree";
            AudioBuffer loaded;
            loaded.loadAVFrame(reference.get());
            EXPECT_TRUE(loaded.isCompatibleWithBuffer(audio)) << loaded << " and " << audio;
            EXPECT_EQ(loaded.numberOfSamples(), 6u);
            EXPECT_EQ(loaded.numberOfChannels(), audio.numberOfChannels());
        }
    }
}

TEST(AudioBufferFrameTest, MoreThanEightPlanarChannelsGetExtendedDataOfTheirOwn) {
    const std::uint64_t tenChannels = 0x3FF;
    AudioBuffer audio = buffer(tenChannels, AV_SAMPLE_FMT_S16P, 4);
    number(audio, 8);
    const FramePtr frame = frameOf(audio);  // freed by av_frame_free: the leak check sees the array
    ASSERT_NE(frame->extended_data, frame->data);
    const auto planes = audio.getPointersToPlanes();
    ASSERT_THAT(planes, SizeIs(10));
    for (std::size_t p = 0; p < 10; ++p) {
        EXPECT_EQ(bytes(frame->extended_data[p], 8), bytes(planes[p], 8)) << p;
        if (p < 8) {
            EXPECT_EQ(frame->data[p], frame->extended_data[p]) << p;
        }
    }
    AudioBuffer loaded;
    loaded.loadAVFrame(frame.get());
    EXPECT_THAT(loaded.getPointersToPlanes(), SizeIs(10));
    EXPECT_EQ(loaded.channelLayout(), tenChannels);
}

TEST(AudioBufferFrameTest, NineChannelsAreReleasedByUnreferencing) {
    const FramePtr frame = frameOf(buffer(0x1FF, AV_SAMPLE_FMT_FLTP, 4));
    ASSERT_NE(frame->buf[0], nullptr);
    av_frame_unref(frame.get());
    EXPECT_EQ(frame->buf[0], nullptr);
    EXPECT_EQ(frame->extended_data, frame->data);
}

TEST(AudioBufferFrameTest, ManyPackedChannelsNeedNoExtendedData) {
    const FramePtr frame = frameOf(buffer(0x3FF, AV_SAMPLE_FMT_S16, 4));
    EXPECT_EQ(frame->extended_data, frame->data);
    EXPECT_EQ(frame->linesize[0], 80);
}

TEST(AudioBufferFrameTest, WithoutSamplesTheFrameGetsNoData) {
    AudioBuffer failed = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 4);
    EXPECT_THROW(failed.resize(0), std::runtime_error);
    for (const AudioBuffer& audio : {AudioBuffer(), AudioBuffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP),
                                     AudioBuffer(0, AV_SAMPLE_FMT_S16), failed}) {
        const FramePtr frame = frameOf(audio);
        EXPECT_EQ(frame->buf[0], nullptr) << audio;
        EXPECT_EQ(frame->data[0], nullptr) << audio;
        EXPECT_EQ(frame->nb_samples, 0) << audio;
        EXPECT_EQ(frame->format, audio.sampleFormat()) << audio;
        EXPECT_EQ(frame->sample_rate, audio.sampleRate()) << audio;
    }
}

TEST(AudioBufferFrameTest, WithoutMemoryTheFrameGetsNoData) {
    for (std::uint64_t layout : {std::uint64_t{AV_CH_LAYOUT_STEREO}, std::uint64_t{0x3FF}}) {
        const AudioBuffer audio = buffer(layout, AV_SAMPLE_FMT_FLTP, 400);
        const FramePtr frame = blankFrame();
        {
            const FFmpegWithoutMemory outOfMemory;
            audio.fillAVFrame(frame.get());
        }
        EXPECT_EQ(frame->buf[0], nullptr);
        EXPECT_EQ(frame->data[0], nullptr);
        EXPECT_EQ(frame->extended_data, frame->data);
    }
}

TEST(AudioBufferFrameTest, FrameClampsToWhatThePlanesHoldAfterAFailedResize) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 4);
    number(audio, 16);
    EXPECT_THROW(audio.resize(2000000000), std::runtime_error);
    const FramePtr frame = frameOf(audio);
    EXPECT_EQ(frame->nb_samples, 4);
    ASSERT_NE(frame->data[1], nullptr);
    EXPECT_EQ(bytes(frame->data[1], 16), bytes(audio.getPointersToPlanes()[1], 16));
}

TEST(AudioBufferFrameTest, FrameClampsToWhatThePlanesHoldAfterACopysResize) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 100);
    AudioBuffer copy = audio;
    copy.resize(3);
    EXPECT_EQ(audio.numberOfSamples(), 100u);
    EXPECT_EQ(frameOf(audio)->nb_samples, 3);
    copy.resize(200);
    EXPECT_EQ(frameOf(audio)->nb_samples, 100);
}

TEST(AudioBufferLoadFrameTest, EveryPlaneIsFilledFromTheFirst) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16P, 5, 44100);
    number(audio, 10);
    AudioBuffer loaded = buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_U8, 9);
    loaded.loadAVFrame(frameOf(audio).get());
    EXPECT_EQ(loaded.sampleRate(), 44100);
    EXPECT_EQ(loaded.sampleFormat(), AV_SAMPLE_FMT_S16P);
    EXPECT_EQ(loaded.channelLayout(), std::uint64_t{AV_CH_LAYOUT_STEREO});
    EXPECT_EQ(loaded.numberOfSamples(), 5u);
    const auto planes = loaded.getPointersToPlanes();
    ASSERT_THAT(planes, SizeIs(2));
    EXPECT_EQ(bytes(planes[0], 10), bytes(audio.getPointersToPlanes()[0], 10));
    EXPECT_EQ(bytes(planes[1], 10), bytes(audio.getPointersToPlanes()[0], 10));
    EXPECT_NE(planes[0], planes[1]);
}

TEST(AudioBufferLoadFrameTest, PackedFrameIsCopiedWhole) {
    AudioBuffer audio(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16);
    audio.loadSamples({1, 2, 3});
    audio.setSample_s16({7, -8}, 1);
    AudioBuffer loaded;
    loaded.loadAVFrame(frameOf(audio).get());
    EXPECT_EQ(loaded.getSample_s16(0), (Samples{1, 1}));
    EXPECT_EQ(loaded.getSample_s16(1), (Samples{7, -8}));
}

TEST(AudioBufferLoadFrameTest, FrameWithoutSamplesThrowsTheBufferSizeError) {
    const FramePtr frame = frameOf(buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 4));
    frame->nb_samples = 0;
    EXPECT_EQ(runtimeErrorOf([&] { AudioBuffer().loadAVFrame(frame.get()); }),
              "Could not get buffer size for audio layout 3, sample format 1, samples 0");
    EXPECT_EQ(runtimeErrorOf([&] { AudioBuffer().loadAVFrame(blankFrame().get()); }),
              "Could not get buffer size for audio layout 0, sample format -1, samples 0");
}

TEST(AudioBufferLoadFrameTest, FrameWithoutDataGivesSilentPlanesOfTheRightSize) {
    const FramePtr frame = frameOf(buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 4));
    frame->data[0] = nullptr;
    AudioBuffer loaded;
    loaded.loadAVFrame(frame.get());
    EXPECT_EQ(loaded.numberOfSamples(), 4u);
    EXPECT_EQ(planeSize(loaded, 1), 16u);
    for (const std::uint8_t* plane : loaded.getPointersToPlanes()) {
        EXPECT_EQ(bytes(plane, 16), std::vector<std::uint8_t>(16, 0));
    }
}

TEST(AudioBufferLoadFrameTest, NoMoreIsReadThanTheFrameHolds) {
    // More samples than there are bytes, as a damaged stream can claim: the address sanitizer looks on.
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 4);
    number(audio, 16, 1);
    const FramePtr frame = frameOf(audio);
    frame->nb_samples = 1000;
    AudioBuffer loaded;
    loaded.loadAVFrame(frame.get());
    EXPECT_EQ(loaded.numberOfSamples(), 1000u);
    const std::uint8_t* const plane = loaded.getPointersToPlanes()[0];
    EXPECT_EQ(bytes(plane, 16), bytes(audio.getPointersToPlanes()[0], 16));
    EXPECT_THAT(bytes(plane + 16, 4000 - 16), Each(0));

    frame->linesize[0] = 1 << 20;  // the buffer's size counts too
    loaded.loadAVFrame(frame.get());
    EXPECT_EQ(bytes(loaded.getPointersToPlanes()[0], 16), bytes(audio.getPointersToPlanes()[0], 16));

    frame->data[0] += 12;
    loaded.loadAVFrame(frame.get());
    EXPECT_THAT(bytes(loaded.getPointersToPlanes()[0], 6), ElementsAre(13, 14, 15, 16, 0, 0));
}

TEST(AudioBufferTest, DurationIsInMicroseconds) {
    const Timestamp second = buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_U8, 48000).duration();
    EXPECT_EQ(second.value(), 1000000);
    EXPECT_EQ(second.timeBase(), (Timebase{1, 1000000}));
    EXPECT_FALSE(second.is_nil());
    EXPECT_EQ(buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_U8, 1024, 44100).duration().value(),
              23220);  // 23219.95
}

TEST(AudioBufferTest, CompatibleMeansEqualLayoutRateAndFormat) {
    const AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 10);
    EXPECT_TRUE(audio.isCompatibleWithBuffer(buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 99)));
    EXPECT_FALSE(audio.isCompatibleWithBuffer(buffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S16, 10)));
    EXPECT_FALSE(audio.isCompatibleWithBuffer(buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16P, 10)));
    EXPECT_FALSE(audio.isCompatibleWithBuffer(buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 10, 44100)));
    EXPECT_TRUE(AudioBuffer().isCompatibleWithBuffer(AudioBuffer()));
}

TEST(AudioBufferTest, DumpWritesAllBytesOfOnePlane) {
    AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_U8P, 3);
    number(audio, 3, 'A');
    EXPECT_EQ(dumped(audio, 0), "ABC");
    EXPECT_EQ(dumped(audio, 1), "QRS");
    EXPECT_EQ(dumped(AudioBuffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_U8), 0), "");
}

TEST(AudioBufferTest, DumpOfAMissingPlaneIsOutOfRange) {
    const AudioBuffer audio = buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_U8P, 3);
    std::ofstream out;
    for (int plane : {-1, 2, INT_MIN, INT_MAX})
        EXPECT_THROW(audio.dumpPlane(out, plane), std::out_of_range) << plane;
}

TEST(AudioBufferTest, DescribesItself) {
    EXPECT_EQ(AudioBuffer().debugDescription(), "(empty)");
    EXPECT_EQ(buffer(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_FLTP, 1024).debugDescription(),
              "1024 samples 48000Hz stereo fltp");
    EXPECT_EQ(buffer(AV_CH_LAYOUT_5POINT1_BACK, AV_SAMPLE_FMT_S16, 1, 8000).debugDescription(),
              "1 samples 8000Hz 5.1 s16");
    EXPECT_EQ(AudioBuffer(AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_S32P).debugDescription(),
              "0 samples 0Hz mono s32p");
    std::ostringstream out;
    EXPECT_EQ(&(out << AudioBuffer()), &out);
    EXPECT_EQ(out.str(), "(empty)");
}

}  // namespace
}  // namespace kvffmpeg
