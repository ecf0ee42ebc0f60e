#include "kvffmpeg/format_context.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <memory>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/log_capture.h"
#include "support/media.h"
#include "support/temporary_folder.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace kvffmpeg {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;

static_assert(std::is_nothrow_move_constructible_v<FormatContext>);
static_assert(!std::is_copy_constructible_v<FormatContext>);
static_assert(!std::is_copy_assignable_v<FormatContext>);
static_assert(!std::is_move_assignable_v<FormatContext>);

constexpr const char* videoAndAudio =
    "-f lavfi -i testsrc2=size=64x48:rate=25:duration=2 -f lavfi -i sine=duration=2 ";

/// A folder with the files that a test asks for.
class FormatContextTest : public testing::Test {
protected:
    /// Makes a file with the ffmpeg command. @returns its path.
    std::string make(const std::string& name, const std::string& arguments) {
        const std::string path = folder_.file(name);
        test::runFFmpeg(arguments + " " + path);
        return path;
    }

    std::string makeMatroska(const std::string& name = "a.mkv", const std::string& options = "") {
        return make(name, std::string(videoAndAudio) + "-c:v mpeg4 -g 10 -c:a pcm_s16le " + options);
    }

    test::TemporaryFolder folder_;
};

using ClosedFormatContextTest = FormatContextTest;

TEST_F(ClosedFormatContextTest, HasNoTracksAndNoMetadata) {
    const FormatContext context;
    EXPECT_FALSE(context.isOpened());
    EXPECT_FALSE(context.isEOF());
    EXPECT_FALSE(context.isStreamed());
    EXPECT_EQ(context.tracksNumber(), 0u);
    EXPECT_EQ(context.trackAtIndex(0), nullptr);
    EXPECT_EQ(context.metadata("title"), "");
    EXPECT_EQ(context.getAVFormatContext(), nullptr);
    EXPECT_EQ(context.channelsAtIndex(0), 0);
    EXPECT_EQ(context.channelLayoutAtIndex(0), "");
}

TEST_F(ClosedFormatContextTest, ReadPacketThrows) {
    FormatContext context;
    EXPECT_THAT(
        [&] { context.readPacket(); },
        ThrowsMessage<std::runtime_error>(StrEq("Can not read packet from stream that was not opened")));
}

TEST_F(ClosedFormatContextTest, SeekDoesNothing) {
    FormatContext context;
    context.seek(Timestamp(5));
    EXPECT_FALSE(context.isOpened());
}

TEST_F(ClosedFormatContextTest, CloseDoesNothingAndLogsNothing) {
    const test::LogCapture log;
    FormatContext context("some url");
    context.close();
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(ClosedFormatContextTest, DiscardTrackThrows) {
    FormatContext context;
    EXPECT_THAT(
        [&] { context.discardTrackAtIndex(0, AVDISCARD_ALL); },
        ThrowsMessage<std::runtime_error>(StrEq("Can not discard track on stream that was not opened")));
}

TEST_F(ClosedFormatContextTest, SetKeyFrameFlagLeavesThePacketAlone) {
    const FormatContext context;
    Packet packet;
    packet.AVPacket::flags = 6;
    context.setKeyFrameFlag(&packet);
    EXPECT_EQ(packet.flags(), 6);
    context.setKeyFrameFlag(nullptr);
}

TEST_F(FormatContextTest, OpenOfAMissingFileThrowsAndLeavesItClosed) {
    FormatContext context(folder_.file("missing"));
    EXPECT_THAT([&] { context.open(); }, ThrowsMessage<std::runtime_error>(StrEq("can't open input file")));
    EXPECT_FALSE(context.isOpened());
}

TEST_F(FormatContextTest, OpenOfAFileThatIsNoMediaThrows) {
    test::writeFile(folder_.file("text"), std::vector<std::uint8_t>(100, 'a'));
    FormatContext context(folder_.file("text"));
    EXPECT_THAT([&] { context.open(); }, ThrowsMessage<std::runtime_error>(StrEq("can't open input file")));
    EXPECT_FALSE(context.isOpened());
}

TEST_F(FormatContextTest, OpenProbesTheFormatAndReadsStreamInfo) {
    FormatContext context(makeMatroska());
    EXPECT_TRUE(context.open("", true));
    EXPECT_TRUE(context.isOpened());
    EXPECT_FALSE(context.isStreamed());
    ASSERT_EQ(context.tracksNumber(), 2u);
    EXPECT_EQ(context.trackAtIndex(0)->codecpar->codec_id, AV_CODEC_ID_MPEG4);
    EXPECT_EQ(context.trackAtIndex(0)->codecpar->format, AV_PIX_FMT_YUV420P);
    EXPECT_EQ(context.trackAtIndex(1)->codecpar->codec_id, AV_CODEC_ID_PCM_S16LE);
    EXPECT_EQ(context.trackAtIndex(2), nullptr);
    EXPECT_EQ(context.trackAtIndex(static_cast<unsigned>(-1)), nullptr);
}

TEST_F(FormatContextTest, OpenWithAFormatNameAndWithoutStreamInfoForcesTheDemuxer) {
    FormatContext context(make("a.ts", std::string(videoAndAudio) + "-c:v mpeg2video -c:a mp2"));
    ASSERT_TRUE(context.open("mpegts", false));
    EXPECT_STREQ(context.getAVFormatContext()->iformat->name, "mpegts");
    ASSERT_GE(context.tracksNumber(), 1u);
    EXPECT_EQ(context.trackAtIndex(0)->codecpar->width, 0);  // not probed
}

TEST_F(FormatContextTest, ForcedDemuxerThatDoesNotFitThrows) {
    FormatContext context(makeMatroska());
    EXPECT_THAT([&] { context.open("mov", true); },
                ThrowsMessage<std::runtime_error>(StrEq("can't open input file")));
}

TEST_F(FormatContextTest, UnknownFormatNameMeansProbing) {
    FormatContext context(makeMatroska());
    EXPECT_TRUE(context.open("no such format", true));
    EXPECT_EQ(context.tracksNumber(), 2u);
}

TEST_F(FormatContextTest, OpenGivesAudioWithoutALayoutTheDefaultOne) {
    FormatContext context(make("a.wav", "-f lavfi -i sine=duration=0.1 -ac 2"));
    ASSERT_TRUE(context.open("", false));
    EXPECT_EQ(context.channelsAtIndex(0), 2);
    EXPECT_EQ(context.channelLayoutAtIndex(0), "stereo");
}

TEST_F(FormatContextTest, OpenAndCloseAreLoggedAtLevelFive) {
    const std::string path = make("a.wav", "-f lavfi -i sine=duration=0.1");
    const test::LogCapture log;
    FormatContext context(path);
    context.open();
    std::size_t packets = 0;
    while (context.readPacket()) ++packets;
    context.close();
    EXPECT_THAT(log.messages(),
                ElementsAre(std::pair<int, std::string>(5, path + " opened, time origin 0"),
                            std::pair<int, std::string>(
                                5, path + " closed, " + std::to_string(packets) + " packets read")));
    EXPECT_GT(packets, 0u);
}

TEST_F(FormatContextTest, UrlIsNoFormatOfTheLog) {
    const std::string path = make("%d%s%n.wav", "-f lavfi -i sine=duration=0.1");
    const test::LogCapture log;
    FormatContext context(path);
    context.open("wav", false);
    EXPECT_THAT(log.messages(5), ElementsAre(path + " opened, time origin 0"));
}

TEST_F(FormatContextTest, DestructorCloses) {
    const std::string path = make("a.wav", "-f lavfi -i sine=duration=0.1");
    const test::LogCapture log;
    { FormatContext(path).open(); }
    EXPECT_EQ(log.messages(5).back(), path + " closed, 0 packets read");
}

TEST_F(FormatContextTest, ReopeningCountsPacketsAnew) {
    FormatContext context(make("a.wav", "-f lavfi -i sine=duration=0.1"));
    context.open();
    context.readPacket();
    context.close();
    context.open();
    const test::LogCapture log;
    context.close();
    EXPECT_THAT(log.messages(5), ElementsAre(testing::EndsWith(" closed, 0 packets read")));
}

TEST_F(FormatContextTest, OpenDoesNotCloseWhatIsOpen) {
    FormatContext context(makeMatroska());
    context.open();
    AVFormatContext* first = context.getAVFormatContext();
    context.open();
    EXPECT_NE(context.getAVFormatContext(), first);
    EXPECT_EQ(first->nb_streams, 2u);  // still alive, and the caller's to close
    avformat_close_input(&first);
}

TEST_F(FormatContextTest, MetadataIsFoundInAnyCase) {
    FormatContext context(makeMatroska("a.mkv", "-metadata title='A title'"));
    context.open();
    EXPECT_EQ(context.metadata("title"), "A title");
    EXPECT_EQ(context.metadata("TITLE"), "A title");
    EXPECT_EQ(context.metadata("titl"), "");
    EXPECT_EQ(context.metadata(""), "");
}

TEST_F(FormatContextTest, ReadsANumberedSeriesBehindAPattern) {
    make("b%03d.png", "-f lavfi -i testsrc2=size=16x16:rate=25:duration=0.2");
    FormatContext context(folder_.file("b%03d.png"));
    context.open();
    int packets = 0;
    while (context.readPacket()) ++packets;
    EXPECT_EQ(packets, 5);
}

/// A WAV file of three seconds behind a FIFO, which cannot seek.
class StreamedInputTest : public FormatContextTest {
protected:
    StreamedInputTest() : context_(folder_.file("fifo")) {
        const auto wave = test::readFile(make("a.wav", "-f lavfi -i sine=duration=3"));
        if (mkfifo(folder_.file("fifo").c_str(), 0600) != 0) throw std::runtime_error("no FIFO");
        writer_ = std::thread([this, wave] { test::writeFile(folder_.file("fifo"), wave); });
        context_.open("wav", false);
    }
    ~StreamedInputTest() override { writer_.join(); }

    void readToTheEnd() {
        while (context_.readPacket()) {
        }
    }

    std::thread writer_;
    FormatContext context_;
};

TEST_F(StreamedInputTest, IsStreamed) {
    EXPECT_TRUE(context_.isStreamed());
    readToTheEnd();
}

TEST_F(StreamedInputTest, FailedSeekThrowsFFmpegsTextAndKeepsEof) {
    readToTheEnd();
    ASSERT_TRUE(context_.isEOF());
    EXPECT_THAT([&] { context_.seek(Timestamp(0)); },
                ThrowsMessage<std::runtime_error>(testing::Not(StrEq(""))));
    EXPECT_TRUE(context_.isEOF());
}

// --- reading

TEST_F(FormatContextTest, ReadingPastTheEndGivesNullAndSetsEofUntilASeek) {
    FormatContext context(makeMatroska());
    context.open();
    EXPECT_FALSE(context.isEOF());
    while (context.readPacket()) EXPECT_FALSE(context.isEOF());
    EXPECT_TRUE(context.isEOF());
    EXPECT_EQ(context.readPacket(), nullptr);
    context.seek(Timestamp(0));
    EXPECT_FALSE(context.isEOF());
    EXPECT_NE(context.readPacket(), nullptr);
}

TEST_F(FormatContextTest, OpenAloneDoesNotClearEof) {
    FormatContext context(make("a.wav", "-f lavfi -i sine=duration=0.1"));
    context.open();
    while (context.readPacket()) {
    }
    context.close();
    context.open();
    EXPECT_TRUE(context.isEOF());
}

TEST_F(FormatContextTest, PacketsLiveOnWithoutTheInput) {
    std::shared_ptr<Packet> packet;
    {
        FormatContext context(makeMatroska());
        context.open();
        packet = context.readPacket();
    }
    ASSERT_NE(packet, nullptr);
    int sum = 0;
    for (int i = 0; i < packet->size(); ++i) sum += packet->data[i];
    EXPECT_GT(sum, 0);
}

/// What libavformat itself gives for the packets of a file.
struct PlainPacket {
    int track;
    int size;
    int flags;
    std::int64_t pts;
    std::int64_t dts;
    std::int64_t duration;
    AVRational timeBase;
    AVMediaType type;
};

std::vector<PlainPacket> plainPackets(const std::string& path, bool streamInfo) {
    std::vector<PlainPacket> packets;
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) != 0) return packets;
    if (streamInfo) avformat_find_stream_info(input, nullptr);
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(input, packet) >= 0) {
        const AVStream* track = input->streams[packet->stream_index];
        packets.push_back({packet->stream_index, packet->size, packet->flags, packet->pts, packet->dts,
                           packet->duration, track->time_base, track->codecpar->codec_type});
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&input);
    return packets;
}

class PacketTimesTest : public FormatContextTest {
protected:
    /// Compares with libavformat's own packets. @returns how many of those had a dts and no pts.
    int expectTimes(const std::string& path, bool streamInfo, std::int64_t origin) {
        const AVRational microseconds{1, 1000000};
        int withoutPts = 0;
        FormatContext context(path);
        context.open("", streamInfo);
        const auto plain = plainPackets(path, streamInfo);
        EXPECT_GT(plain.size(), 10u);
        for (std::size_t i = 0; i < plain.size(); ++i) {
            SCOPED_TRACE(testing::Message() << path << " packet " << i);
            const auto packet = context.readPacket();
            if (!packet) {
                ADD_FAILURE() << "too few packets";
                return 0;
            }
            const auto time = [&](std::int64_t own, std::int64_t other) {
                const std::int64_t known = own != AV_NOPTS_VALUE ? own : other;
                return known == AV_NOPTS_VALUE
                           ? known
                           : av_rescale_q(known, plain[i].timeBase, microseconds) + origin;
            };
            withoutPts += plain[i].pts == AV_NOPTS_VALUE && plain[i].dts != AV_NOPTS_VALUE ? 1 : 0;
            EXPECT_EQ(packet->streamIndex(), static_cast<unsigned>(plain[i].track));
            EXPECT_EQ(packet->size(), plain[i].size);
            EXPECT_EQ(packet->pts(), time(plain[i].pts, plain[i].dts));
            EXPECT_EQ(packet->dts(), time(plain[i].dts, plain[i].pts));
            EXPECT_EQ(packet->duration(), av_rescale_q(plain[i].duration, plain[i].timeBase, microseconds));
        }
        EXPECT_EQ(context.readPacket(), nullptr);
        return withoutPts;
    }
};

TEST_F(PacketTimesTest, AreMicrosecondsInEveryContainer) {
    expectTimes(makeMatroska(), true, 0);
    expectTimes(make("a.ts", std::string(videoAndAudio) + "-c:v mpeg2video -bf 2 -c:a mp2"), true, 0);
    expectTimes(make("a.mp4", std::string(videoAndAudio) + "-c:v mpeg4 -bf 2 -c:a aac"), true, 0);
}

TEST_F(PacketTimesTest, UnknownPtsIsTheDts) {
    KVFFMPEG_REQUIRE_X264();
    const std::string path = make("a.avi", std::string(videoAndAudio) + "-c:v libx264 -bf 2 -c:a pcm_s16le");
    EXPECT_GT(expectTimes(path, false, 0), 10);  // the container has no pts of its own
}

TEST_F(PacketTimesTest, AreShiftedByTheTimeOriginOfTheMetadata) {
    expectTimes(makeMatroska("a.mkv", "-metadata timeorigin=1500000000000000"), true, 1500000000000000);
}

TEST_F(FormatContextTest, TimeOriginIsLogged) {
    const std::string path = makeMatroska("a.mkv", "-metadata timeorigin=-25");
    const test::LogCapture log;
    FormatContext(path).open();
    EXPECT_EQ(log.messages(5).front(), path + " opened, time origin -25");
}

TEST_F(FormatContextTest, TimeOriginStaysWhenTheNextSourceHasNoneAndZeroResetsIt) {
    const std::string shifted = makeMatroska("shifted.mkv", "-metadata timeorigin=1000000000");
    const std::string plain = makeMatroska("plain.mkv");
    const std::string zero = makeMatroska("zero.mkv", "-metadata timeorigin=0");
    const std::string unparsable = makeMatroska("text.mkv", "-metadata timeorigin=abc");
    FormatContext context;
    const auto firstPts = [&context](const std::string& path) {
        context.close();
        context.setUrl(path);
        context.open();
        return context.readPacket()->pts();
    };
    EXPECT_LT(firstPts(plain), 1000000);
    EXPECT_GE(firstPts(shifted), 1000000000);
    EXPECT_GE(firstPts(plain), 1000000000);
    EXPECT_LT(firstPts(zero), 1000000);
    EXPECT_GE(firstPts(shifted), 1000000000);
    EXPECT_LT(firstPts(unparsable), 1000000);
}

TEST_F(FormatContextTest, SeekLandsOnTheKeyFrameAtOrBeforeATimeOnThePacketsLine) {
    const std::int64_t origin = 1500000000000000;
    FormatContext context(makeMatroska("a.mkv", "-metadata timeorigin=1500000000000000"));
    context.open();
    for (const std::int64_t milliseconds : {0, 500, 1300, 390}) {
        // Key frames are every 10 pictures, that is every 400 ms; the container counts milliseconds.
        context.seek(Timestamp(origin / 1000 + milliseconds, 1, 1000));
        auto packet = context.readPacket();
        while (packet->streamIndex() != 0) packet = context.readPacket();
        EXPECT_EQ(packet->pts() - origin, milliseconds / 400 * 400 * 1000) << milliseconds;
    }
}

// --- key frames

TEST_F(FormatContextTest, EveryPacketOfOtherVideoIsAKeyFrame) {
    const std::string path = makeMatroska();
    FormatContext context(path);
    context.open();
    int notMarked = 0;
    for (const PlainPacket& plain : plainPackets(path, true)) {
        const auto packet = context.readPacket();
        if (plain.type == AVMEDIA_TYPE_VIDEO) {
            EXPECT_TRUE(packet->isKeyFrame());
            notMarked += plain.flags & AV_PKT_FLAG_KEY ? 0 : 1;
        } else {
            EXPECT_EQ(packet->flags(), plain.flags);
        }
    }
    EXPECT_GT(notMarked, 10);  // the container marked some differently
}

TEST_F(FormatContextTest, H264KeyFramesAreThoseWithParameterSetsAndIdrSlice) {
    KVFFMPEG_REQUIRE_X264();
    const std::string options =
        std::string(videoAndAudio) + "-c:v libx264 -g 10 -sc_threshold 0 -bf 0 -c:a mp2";
    FormatContext annexB(make("a.ts", options));
    annexB.open();
    int keyFrames = 0;
    int packets = 0;
    while (const auto packet = annexB.readPacket()) {
        if (annexB.trackAtIndex(packet->streamIndex())->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) continue;
        EXPECT_EQ(packet->isKeyFrame(), packets % 10 == 0) << packets;
        keyFrames += packet->isKeyFrame() ? 1 : 0;
        ++packets;
    }
    EXPECT_EQ(keyFrames, 5);
    EXPECT_EQ(packets, 50);

    FormatContext lengthPrefixed(make("a.mp4", options));
    lengthPrefixed.open();
    while (const auto packet = lengthPrefixed.readPacket()) {
        if (packet->streamIndex() == 0) {
            EXPECT_FALSE(packet->isKeyFrame());
        }
    }
}

TEST_F(FormatContextTest, SetKeyFrameFlagChangesNothingButItsBit) {
    test::writeFile(folder_.file("a.h264"), {0, 0, 0, 1, 9, 0xf0, 0, 0, 1, 0x41});
    FormatContext context(folder_.file("a.h264"));
    context.open("h264", false);
    ASSERT_EQ(context.trackAtIndex(0)->codecpar->codec_id, AV_CODEC_ID_H264);
    Packet packet;
    packet.AVPacket::flags = AV_PKT_FLAG_KEY | AV_PKT_FLAG_CORRUPT;
    context.setKeyFrameFlag(&packet);  // no payload at all
    EXPECT_EQ(packet.flags(), AV_PKT_FLAG_CORRUPT);

    std::uint8_t payload[] = {0, 0, 1, 0x67, 0, 0, 1, 0x68, 0, 0, 1, 0x65};
    packet.data = payload;
    packet.AVPacket::size = sizeof payload;
    context.setKeyFrameFlag(&packet);
    EXPECT_EQ(packet.flags(), AV_PKT_FLAG_CORRUPT | AV_PKT_FLAG_KEY);
    packet.AVPacket::size = 3;
    context.setKeyFrameFlag(&packet);
    EXPECT_EQ(packet.flags(), AV_PKT_FLAG_CORRUPT);

    packet.AVPacket::flags = AV_PKT_FLAG_KEY;
    for (const unsigned int track : {1u, 1000u, static_cast<unsigned>(-1)}) {
        packet.setStreamIndex(track);
        context.setKeyFrameFlag(&packet);
        EXPECT_EQ(packet.flags(), AV_PKT_FLAG_KEY) << track;
    }
}

// --- tracks

TEST_F(FormatContextTest, DiscardedTracksAreNotReturned) {
    FormatContext context(makeMatroska());
    context.open("", false);  // which would read packets ahead
    context.discardTrackAtIndex(0, AVDISCARD_ALL);
    int packets = 0;
    while (const auto packet = context.readPacket()) {
        EXPECT_EQ(packet->streamIndex(), 1u);
        ++packets;
    }
    EXPECT_GT(packets, 0);
}

TEST_F(FormatContextTest, DiscardOfATrackThatIsNotThereThrows) {
    FormatContext context(makeMatroska());
    context.open();
    EXPECT_THAT([&] { context.discardTrackAtIndex(context.tracksNumber(), AVDISCARD_ALL); },
                ThrowsMessage<std::out_of_range>(StrEq("Index in discardTrackAtIndex")));
}

// --- moving

TEST_F(FormatContextTest, MovingTakesTheOpenInputAndLeavesTheSourceClosed) {
    FormatContext source(makeMatroska("a.mkv", "-metadata timeorigin=1000000000"));
    source.open();
    const auto first = source.readPacket();
    AVCodecContext* decoder = source.getCodecContext(0);
    ASSERT_NE(decoder, nullptr);
    FormatContext target(std::move(source));
    EXPECT_TRUE(target.isOpened());
    EXPECT_EQ(target.tracksNumber(), 2u);
    EXPECT_EQ(target.getCodecContext(0), decoder);
    EXPECT_GE(target.readPacket()->pts(), 1000000000);

    EXPECT_FALSE(source.isOpened());
    EXPECT_EQ(source.getCodecContext(0), nullptr);
    EXPECT_EQ(source.tracksNumber(), 0u);
}

TEST_F(FormatContextTest, MovingTakesUrlAndPacketCounter) {
    const std::string path = makeMatroska();
    FormatContext source(path);
    source.open();
    source.readPacket();
    source.readPacket();
    const test::LogCapture log;
    { FormatContext target(std::move(source)); }
    EXPECT_THAT(log.messages(5), ElementsAre(path + " closed, 2 packets read"));
    EXPECT_THROW(source.open(), std::runtime_error);  // its URL is empty now
}

TEST_F(FormatContextTest, MovingDoesNotTakeEofAndInterruptCallback) {
    FormatContext source(make("a.wav", "-f lavfi -i sine=duration=0.1"));
    source.setInterruptCallback();
    source.open();
    while (source.readPacket()) {
    }
    FormatContext target(std::move(source));
    EXPECT_FALSE(target.isEOF());
    EXPECT_TRUE(source.isEOF());
    target.close();
    target.open();
    EXPECT_EQ(target.getAVFormatContext()->interrupt_callback.callback, nullptr);
}

TEST_F(FormatContextTest, MovedInputOutlivesItsSourceAndTheOtherWayRound) {
    const std::string path = makeMatroska();
    for (const bool sourceFirst : {true, false}) {
        auto source = std::make_unique<FormatContext>(path);
        source->setInterruptCallback();
        source->open();
        auto target = std::make_unique<FormatContext>(std::move(*source));
        if (sourceFirst) source.reset();
        EXPECT_NE(target->readPacket(), nullptr);
        target->seek(Timestamp(500000));
        EXPECT_NE(target->readPacket(), nullptr);
        target.reset();
    }
}

TEST_F(FormatContextTest, ChainOfMovesKeepsTheInputReadable) {
    FormatContext first(makeMatroska());
    first.setInterruptCallback();
    first.open();
    auto current = std::make_unique<FormatContext>(std::move(first));
    for (int i = 0; i < 10; ++i) current = std::make_unique<FormatContext>(std::move(*current));
    int packets = 0;
    while (current->readPacket()) ++packets;
    EXPECT_GT(packets, 50);
}

TEST_F(FormatContextTest, GrowingVectorKeepsItsInputsReadable) {
    const std::string path = makeMatroska();
    std::vector<FormatContext> contexts;
    for (int i = 0; i < 9; ++i) {
        contexts.emplace_back(path);
        contexts.back().setInterruptCallback();
        contexts.back().open();
        EXPECT_NE(contexts.back().readPacket(), nullptr);
    }
    for (FormatContext& context : contexts) EXPECT_NE(context.readPacket(), nullptr);
}

}  // namespace
}  // namespace kvffmpeg
