#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "kvffmpeg/format_context.h"
#include "support/log_capture.h"
#include "support/media.h"
#include "support/temporary_folder.h"

namespace kvffmpeg {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* testVideo = "-f lavfi -i testsrc2=size=64x48:rate=25:duration=1 ";

/// The bytes of a WAV file of 16-bit PCM.
std::vector<std::uint8_t> waveFile(int channels, int samples) {
    std::vector<std::uint8_t> bytes;
    const auto text = [&bytes](const char* value) {
        for (; *value; ++value) bytes.push_back(static_cast<std::uint8_t>(*value));
    };
    const auto number = [&bytes](unsigned value, int size) {
        for (int i = 0; i < size; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    };
    const auto dataSize = static_cast<unsigned>(channels * samples * 2);
    text("RIFF");
    number(36 + dataSize, 4);
    text("WAVEfmt ");
    number(16, 4);
    number(1, 2);
    number(static_cast<unsigned>(channels), 2);
    number(48000, 4);
    number(static_cast<unsigned>(48000 * channels * 2), 4);
    number(static_cast<unsigned>(channels * 2), 2);
    number(16, 2);
    text("data");
    number(dataSize, 4);
    for (int i = 0; i < samples; ++i) {
        for (int c = 0; c < channels; ++c) number(static_cast<unsigned>(i * 7 + c), 2);
    }
    return bytes;
}

class DecodingTest : public testing::Test {
protected:
    std::string make(const std::string& name, const std::string& arguments) {
        const std::string path = folder_.file(name);
        test::runFFmpeg(arguments + " " + path);
        return path;
    }

    std::string makeWave(int channels, int samples) {
        const std::string path = folder_.file("a.wav");
        test::writeFile(path, waveFile(channels, samples));
        return path;
    }

    static std::vector<Frame> decodeAll(FormatContext& context) {
        std::vector<Frame> frames;
        while (const auto packet = context.readPacket()) {
            Frame frame = context.decodePacket(packet);
            if (!frame.empty()) frames.push_back(std::move(frame));
        }
        return frames;
    }

    test::TemporaryFolder folder_;
};

TEST_F(DecodingTest, VideoPacketsBecomePicturesOnTheMicrosecondLine) {
    FormatContext context(make("a.mkv", std::string(testVideo) + "-c:v mpeg4 -metadata timeorigin=7000000"));
    context.open();
    int index = 0;
    while (const auto packet = context.readPacket()) {
        const Frame frame = context.decodePacket(packet);
        ASSERT_FALSE(frame.empty());
        EXPECT_EQ(frame.picture().size(), (rect_size_t{64, 48}));
        EXPECT_EQ(frame.picture().pixelFormat(), AV_PIX_FMT_YUV420P);
        EXPECT_EQ(frame.picture().alignment(), 1);
        EXPECT_TRUE(frame.picture().editable());
        EXPECT_TRUE(frame.audioBuffer().empty());
        EXPECT_EQ(frame.PTS().value(), packet->pts());
        EXPECT_EQ(frame.PTS().value(), 7000000 + index * 40000);
        EXPECT_EQ(frame.PTS().timeBase(), (Timebase{1, 1000000}));
        EXPECT_EQ(frame.flags(), Frame::none);
        ++index;
    }
    EXPECT_EQ(index, 25);
}

TEST_F(DecodingTest, PicturesEqualThoseOfTheFFmpegCommand) {
    const std::string path = make("a.mkv", std::string(testVideo) + "-c:v ffv1");
    const auto expected = test::readFFmpeg("-i " + path + " -f rawvideo -");
    std::vector<std::uint8_t> decoded;
    FormatContext context(path);
    context.open();
    for (const Frame& frame : decodeAll(context)) {
        const auto bytes = test::visibleBytes(frame.picture());
        decoded.insert(decoded.end(), bytes.begin(), bytes.end());
    }
    EXPECT_TRUE(decoded == expected) << decoded.size() << " bytes, expected " << expected.size();
}

TEST_F(DecodingTest, PicturesLiveOnWithoutTheInput) {
    std::vector<Frame> frames;
    {
        FormatContext context(make("a.mkv", std::string(testVideo) + "-c:v mpeg4"));
        context.open();
        frames = decodeAll(context);
    }
    for (const Frame& frame : frames) EXPECT_FALSE(test::visibleBytes(frame.picture()).empty());
}

TEST_F(DecodingTest, FullRangeFormatsBecomeThePlainOnesAndKeepTheirRange) {
    const std::pair<const char*, AVPixelFormat> cases[] = {
        {"yuvj420p", AV_PIX_FMT_YUV420P}, {"yuvj422p", AV_PIX_FMT_YUV422P}, {"yuvj444p", AV_PIX_FMT_YUV444P}};
    for (const auto& [name, format] : cases) {
        FormatContext context(make(
            "a.jpg", "-f lavfi -i testsrc2=size=64x48 -frames:v 1 -c:v mjpeg -pix_fmt " + std::string(name)));
        context.open();
        const Frame frame = context.decodePacket(context.readPacket());
        EXPECT_EQ(frame.picture().pixelFormat(), format) << name;
        EXPECT_EQ(frame.picture().colorRange(), AVCOL_RANGE_JPEG) << name;
    }
}

TEST_F(DecodingTest, AudioPacketsBecomeBuffersWithTheirTimes) {
    FormatContext context(makeWave(2, 5000));
    context.open();
    std::uint64_t samples = 0;
    for (const Frame& frame : decodeAll(context)) {
        const AudioBuffer& audio = frame.audioBuffer();
        EXPECT_TRUE(frame.picture().empty());
        EXPECT_EQ(audio.sampleFormat(), AV_SAMPLE_FMT_S16);
        EXPECT_EQ(audio.sampleRate(), 48000);
        EXPECT_EQ(audio.numberOfChannels(), 2);
        EXPECT_EQ(frame.PTS().value(), static_cast<std::int64_t>((samples * 1000000 + 24000) / 48000));
        for (std::uint64_t i = 0; i < audio.numberOfSamples(); ++i) {
            const int value = static_cast<int>(samples + i) * 7;
            ASSERT_THAT(audio.getSample_s16(i),
                        ElementsAre(static_cast<std::int16_t>(value), static_cast<std::int16_t>(value + 1)));
        }
        samples += audio.numberOfSamples();
    }
    EXPECT_EQ(samples, 5000u);
}

TEST_F(DecodingTest, PicturesThatTheDecoderHoldsBackComeWithLaterPacketsAndWithoutAWarning) {
    FormatContext context(make("a.ts", std::string(testVideo) + "-c:v mpeg2video -bf 2"));
    context.open();
    const test::LogCapture log;
    EXPECT_TRUE(context.decodePacket(context.readPacket()).empty());
    EXPECT_FALSE(context.decodePacket(context.readPacket()).empty());
    EXPECT_EQ(decodeAll(context).size(), 23u);  // the last one stays in the decoder
    EXPECT_THAT(log.messages(2), IsEmpty());
}

TEST_F(DecodingTest, PictureSizeMayChangeOnTheWay) {
    const auto encode = [this](const std::string& name, const std::string& size) {
        return test::readFile(
            make(name, "-f lavfi -i testsrc2=size=" + size + " -frames:v 2 -c:v mjpeg -f mjpeg"));
    };
    auto bytes = encode("a.mjpeg", "64x48");
    const auto more = encode("b.mjpeg", "32x80");
    bytes.insert(bytes.end(), more.begin(), more.end());
    test::writeFile(folder_.file("c.mjpeg"), bytes);
    FormatContext context(folder_.file("c.mjpeg"));
    context.open("mjpeg", true);
    std::vector<rect_size_t> sizes;
    for (const Frame& frame : decodeAll(context)) sizes.push_back(frame.picture().size());
    EXPECT_THAT(sizes, ElementsAre(rect_size_t{64, 48}, rect_size_t{64, 48}, rect_size_t{32, 80},
                                   rect_size_t{32, 80}));
}

TEST_F(DecodingTest, DecodersRunWithoutThreads) {
    FormatContext context(make("a.mkv", std::string(testVideo) + "-c:v mpeg4"));
    context.open();
    EXPECT_EQ(context.getCodecContext(0)->thread_type, 0);
    EXPECT_EQ(context.getCodecContext(0)->active_thread_type, 0);
}

TEST_F(DecodingTest, DecoderIsOpenedOnce) {
    FormatContext context(make("a.mkv", std::string(testVideo) + "-c:v mpeg4"));
    context.open();
    AVCodecContext* decoder = context.getCodecContext(0);
    ASSERT_NE(decoder, nullptr);
    EXPECT_EQ(context.getCodecContext(0), decoder);
}

TEST_F(DecodingTest, ClosedContextHasNoDecodersAndRemembersNone) {
    FormatContext context(make("a.mkv", std::string(testVideo) + "-c:v mpeg4"));
    EXPECT_EQ(context.getCodecContext(0), nullptr);
    context.open();
    EXPECT_NE(context.getCodecContext(0), nullptr);
    EXPECT_EQ(context.getCodecContext(1), nullptr);
    EXPECT_EQ(context.getCodecContext(static_cast<unsigned>(-1)), nullptr);
}

// --- what does not decode

TEST_F(DecodingTest, TrackWithoutADecoderIsLoggedOnceAndGivesEmptyFrames) {
    FormatContext context(makeWave(1, 3000));
    context.open("", false);
    context.trackAtIndex(0)->codecpar->codec_id = AV_CODEC_ID_PROBE;
    const test::LogCapture log;
    int packets = 0;
    while (const auto packet = context.readPacket()) {
        EXPECT_TRUE(context.decodePacket(packet).empty());
        ++packets;
    }
    EXPECT_GT(packets, 0);
    EXPECT_EQ(context.getCodecContext(0), nullptr);
    EXPECT_THAT(log.messages(),
                ElementsAre(std::pair<int, std::string>(
                    1, "Codec with id " + std::to_string(int{AV_CODEC_ID_PROBE}) + " not found")));
}

TEST_F(DecodingTest, DecoderThatDoesNotOpenIsLoggedOnceAndGivesEmptyFrames) {
    FormatContext context(makeWave(6, 3000));
    context.open("", false);
    context.trackAtIndex(0)->codecpar->codec_id = AV_CODEC_ID_ADPCM_IMA_QT;  // knows two channels
    const test::LogCapture log;
    int packets = 0;
    while (const auto packet = context.readPacket()) {
        EXPECT_TRUE(context.decodePacket(packet).empty());
        ++packets;
    }
    EXPECT_GT(packets, 0);
    EXPECT_THAT(log.messages(),
                ElementsAre(std::pair<int, std::string>(1, "Could not open codec adpcm_ima_qt")));
}

TEST_F(DecodingTest, DecoderIsTriedAgainAfterReopening) {
    FormatContext context(makeWave(1, 3000));
    context.open("", false);
    context.trackAtIndex(0)->codecpar->codec_id = AV_CODEC_ID_PROBE;
    {
        const test::LogCapture quiet;
        EXPECT_EQ(context.getCodecContext(0), nullptr);
    }
    context.close();
    context.open("", false);
    EXPECT_NE(context.getCodecContext(0), nullptr);
}

TEST_F(DecodingTest, SubtitlePacketGivesAnEmptyFrameAndOneWarning) {
    test::writeFile(folder_.file("a.srt"), {'1', '\n', '0', '0', ':', '0', '0', ':',  '0', '0', ',',  '0',
                                            '0', '0',  ' ', '-', '-', '>', ' ', '0',  '0', ':', '0',  '0',
                                            ':', '0',  '1', ',', '0', '0', '0', '\n', 'H', 'i', '\n', '\n'});
    const std::string path = folder_.file("a.srt");
    FormatContext context(path);
    context.open();
    const auto packet = context.readPacket();
    ASSERT_NE(packet, nullptr);
    const test::LogCapture log;
    EXPECT_TRUE(context.decodePacket(packet).empty());
    EXPECT_THAT(log.messages(), ElementsAre(std::pair<int, std::string>(
                                    2, path + ":0 media format \"subtitle\" is not supported")));
}

TEST_F(DecodingTest, VideoThatDoesNotDecodeGivesAnEmptyFrameAndOneWarningAndTheDecoderGoesOn) {
    const std::string path = make("%s.mkv", std::string(testVideo) + "-c:v png");
    FormatContext context(path);
    context.open();
    const auto good = context.readPacket();
    const auto broken = std::make_shared<Packet>(*good);
    std::fill_n(broken->data, broken->size(), std::uint8_t{0x5a});
    const test::LogCapture log;
    EXPECT_TRUE(context.decodePacket(broken).empty());
    EXPECT_THAT(log.messages(),
                ElementsAre(std::pair<int, std::string>(2, "Could not decode video from " + path + ":0")));
    EXPECT_FALSE(context.decodePacket(good).empty());
}

TEST_F(DecodingTest, AudioThatDoesNotDecodeGivesAnEmptyFrameAndOneWarning) {
    const std::string path = make("a.flac", "-f lavfi -i sine=duration=0.5");
    FormatContext context(path);
    context.open();
    const auto packet = context.readPacket();
    std::fill_n(packet->data, packet->size(), std::uint8_t{0x5a});
    const test::LogCapture log;
    EXPECT_TRUE(context.decodePacket(packet).empty());
    EXPECT_THAT(log.messages(),
                ElementsAre(std::pair<int, std::string>(2, "Could not decode audio from " + path + ":0")));
}

TEST_F(DecodingTest, ChannelsWithoutALayoutAreAWarningAndNoException) {
    const std::string path = makeWave(9, 3000);
    FormatContext context(path);
    context.open();
    const test::LogCapture log;
    EXPECT_TRUE(context.decodePacket(context.readPacket()).empty());
    EXPECT_THAT(log.messages(2), ElementsAre("Could not decode audio from " + path + ":0"));
}

TEST_F(DecodingTest, SixteenChannelsHaveADefaultLayout) {
    FormatContext context(makeWave(16, 3000));
    context.open();
    const Frame frame = context.decodePacket(context.readPacket());
    EXPECT_EQ(frame.audioBuffer().channelLayout(), 0x18003f737u);
    EXPECT_EQ(frame.audioBuffer().numberOfChannels(), 16);
}

TEST_F(DecodingTest, PacketsWithoutPayloadNeverDrainTheDecoder) {
    const std::string video = make("a.mkv", std::string(testVideo) + "-c:v mpeg4");
    const std::string audio = makeWave(1, 3000);
    for (const auto& [path, kind] : {std::pair(video, "video"), std::pair(audio, "audio")}) {
        FormatContext context(path);
        context.open();
        const auto good = context.readPacket();
        const auto blank = std::make_shared<Packet>();        // no data at all
        const auto empty = std::make_shared<Packet>(*blank);  // data, of size 0
        const test::LogCapture log;
        EXPECT_TRUE(context.decodePacket(blank).empty());
        EXPECT_TRUE(context.decodePacket(empty).empty());
        EXPECT_THAT(log.messages(2), testing::SizeIs(2));
        EXPECT_THAT(log.messages(2), Each("Could not decode " + std::string(kind) + " from " + path + ":0"));
        EXPECT_FALSE(context.decodePacket(good).empty()) << path;
    }
}

TEST_F(DecodingTest, PacketsOfNoTrackAndNoPacketAtAllGiveEmptyFrames) {
    FormatContext context(make("a.mkv", std::string(testVideo) + "-c:v mpeg4"));
    const auto packet = std::make_shared<Packet>();
    EXPECT_TRUE(context.decodePacket(packet).empty());  // closed
    context.open();
    packet->setStreamIndex(7);
    EXPECT_TRUE(context.decodePacket(packet).empty());
    EXPECT_TRUE(context.decodePacket(nullptr).empty());
}

TEST_F(DecodingTest, EmptyFramesHaveNoTime) {
    FormatContext context;
    EXPECT_TRUE(context.decodePacket(nullptr).PTS().is_nil());
}

TEST_F(DecodingTest, UnknownTimesAreNotNil) {
    // A raw stream has no times: what the decoder gives is AV_NOPTS_VALUE, and passed on.
    FormatContext context(make("a.m4v", std::string(testVideo) + "-c:v mpeg4 -f m4v"));
    context.open("m4v", false);
    const auto packet = context.readPacket();
    packet->setPTS(AV_NOPTS_VALUE);
    packet->setDTS(AV_NOPTS_VALUE);
    const Frame frame = context.decodePacket(packet);
    ASSERT_FALSE(frame.empty());
    EXPECT_FALSE(frame.PTS().is_nil());
    EXPECT_EQ(frame.PTS().value(), AV_NOPTS_VALUE);
}

// --- handing decoders on

class MoveDecodersTest : public DecodingTest {
protected:
    std::string makeBoth(const std::string& name, const std::string& size = "64x48",
                         const std::string& options = "") {
        return make(name, "-f lavfi -i testsrc2=size=" + size +
                              ":rate=25:duration=1 -f lavfi -i sine=duration=1 "
                              "-c:v mpeg4 -c:a pcm_s16le " +
                              options);
    }

    static std::string reused(int index, const std::string& from, const std::string& to) {
        return "Reused decoder for stream " + std::to_string(index) + " from " + from + " in " + to +
               " decoding";
    }
    static std::string notReused(int index, const std::string& from, const std::string& to) {
        return "Could not reuse decoder for stream " + std::to_string(index) + " from " + from + " in " + to +
               " decoding, codec parameters differ";
    }
};

TEST_F(MoveDecodersTest, TakesTheDecodersOfTheSameTracks) {
    const std::string path = makeBoth("a.mkv");
    FormatContext oldInput(path);
    oldInput.open();
    AVCodecContext* video = oldInput.getCodecContext(0);
    AVCodecContext* audio = oldInput.getCodecContext(1);
    FormatContext newInput(path);
    newInput.open();
    const test::LogCapture log;
    newInput.moveDecodersFromContext(&oldInput);
    EXPECT_EQ(newInput.getCodecContext(0), video);
    EXPECT_EQ(newInput.getCodecContext(1), audio);
    EXPECT_THAT(log.messages(5), testing::UnorderedElementsAre(reused(0, path, path), reused(1, path, path)));
    EXPECT_EQ(oldInput.getCodecContext(0), nullptr);
    EXPECT_EQ(oldInput.getCodecContext(1), nullptr);
    oldInput.close();
    EXPECT_GT(decodeAll(newInput).size(), 25u);
}

TEST_F(MoveDecodersTest, DecoderKeepsItsStateAcrossTheMove) {
    const std::string path = makeBoth("a.mkv", "64x48", "-g 100");
    FormatContext oldInput(path);
    oldInput.open();
    FormatContext newInput(path);
    newInput.open();
    // The first picture is decoded by the one, the second, which depends on it, by the other.
    std::vector<Frame> expected;
    {
        FormatContext whole(path);
        whole.open();
        expected = decodeAll(whole);
    }
    auto packet = oldInput.readPacket();
    while (packet->streamIndex() != 0) packet = oldInput.readPacket();
    oldInput.decodePacket(packet);
    newInput.moveDecodersFromContext(&oldInput);
    oldInput.close();
    int seen = 0;
    while ((packet = newInput.readPacket())) {
        if (packet->streamIndex() != 0 || seen++ == 0) continue;
        const Frame frame = newInput.decodePacket(packet);
        ASSERT_FALSE(frame.empty());
        const auto match = std::find_if(expected.begin(), expected.end(), [&](const Frame& other) {
            return !other.picture().empty() && other.PTS() == frame.PTS();
        });
        ASSERT_NE(match, expected.end());
        EXPECT_EQ(frame.picture(), match->picture()) << frame;
    }
    EXPECT_EQ(seen, 25);
}

TEST_F(MoveDecodersTest, LeavesDecodersOfDifferentTracks) {
    const std::string small = makeBoth("small.mkv");
    const std::string large = makeBoth("large.mkv", "96x64");
    FormatContext oldInput(small);
    oldInput.open();
    AVCodecContext* video = oldInput.getCodecContext(0);
    FormatContext newInput(large);
    newInput.open();
    const test::LogCapture log;
    newInput.moveDecodersFromContext(&oldInput);
    EXPECT_THAT(log.messages(5), ElementsAre(notReused(0, small, large)));
    EXPECT_EQ(oldInput.getCodecContext(0), video);
    EXPECT_NE(newInput.getCodecContext(0), video);
    EXPECT_EQ(newInput.getCodecContext(0)->width, 96);
}

TEST_F(MoveDecodersTest, DecoderThatTheOtherKeepsForATrackDecodedHereIsFreed) {
    FormatContext oldInput(makeBoth("small.mkv"));
    oldInput.open();
    ASSERT_NE(oldInput.getCodecContext(0), nullptr);
    FormatContext newInput(makeBoth("large.mkv", "96x64"));
    newInput.open();
    AVCodecContext* own = newInput.getCodecContext(0);
    newInput.moveDecodersFromContext(&oldInput);
    EXPECT_EQ(newInput.getCodecContext(0), own);
    EXPECT_EQ(oldInput.getCodecContext(0), nullptr);  // and not opened anew
}

TEST_F(MoveDecodersTest, ReplacesADecoderOfItsOwn) {
    const std::string path = makeBoth("a.mkv");
    FormatContext oldInput(path);
    oldInput.open();
    AVCodecContext* video = oldInput.getCodecContext(0);
    FormatContext newInput(path);
    newInput.open();
    ASSERT_NE(newInput.getCodecContext(0), nullptr);
    ASSERT_NE(newInput.getCodecContext(1), nullptr);
    newInput.moveDecodersFromContext(&oldInput);
    EXPECT_EQ(newInput.getCodecContext(0), video);
    EXPECT_NE(newInput.getCodecContext(1), nullptr);
    EXPECT_EQ(oldInput.getCodecContext(1), nullptr);  // inserted: that track is decoded here
}

TEST_F(MoveDecodersTest, TakesThatATrackHasNoDecoder) {
    const std::string path = makeBoth("a.mkv");
    FormatContext oldInput(path);
    FormatContext newInput(path);
    for (FormatContext* context : {&oldInput, &newInput}) {
        context->open("", false);
        context->trackAtIndex(0)->codecpar->codec_id = AV_CODEC_ID_PROBE;
    }
    const test::LogCapture log;
    oldInput.getCodecContext(0);
    newInput.moveDecodersFromContext(&oldInput);
    EXPECT_EQ(newInput.getCodecContext(0), nullptr);
    EXPECT_THAT(log.messages(1), testing::SizeIs(1));  // not tried again
    EXPECT_THAT(log.messages(5), ElementsAre(reused(0, path, path)));
}

TEST_F(MoveDecodersTest, DoesNothingForDifferentNumbersOfTracks) {
    FormatContext oldInput(makeBoth("a.mkv"));
    oldInput.open();
    AVCodecContext* video = oldInput.getCodecContext(0);
    FormatContext newInput(make("b.mkv", std::string(testVideo) + "-c:v mpeg4"));
    newInput.open();
    const test::LogCapture log;
    newInput.moveDecodersFromContext(&oldInput);
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_EQ(oldInput.getCodecContext(0), video);
}

TEST_F(MoveDecodersTest, DoesNothingForNullClosedAndItself) {
    const std::string path = makeBoth("a.mkv");
    FormatContext open(path);
    open.open();
    AVCodecContext* video = open.getCodecContext(0);
    FormatContext closed(path);
    const test::LogCapture log;
    open.moveDecodersFromContext(nullptr);
    open.moveDecodersFromContext(&closed);
    open.moveDecodersFromContext(&open);
    closed.moveDecodersFromContext(&open);
    EXPECT_EQ(open.getCodecContext(0), video);
    EXPECT_THAT(log.messages(), IsEmpty());
}

}  // namespace
}  // namespace kvffmpeg
