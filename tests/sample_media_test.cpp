// Real files that nobody here made: counts, pictures and times against what is known of them, and broken
// copies.

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ffmpeg_compat.h"
#include "support/digest.h"
#include "support/log_capture.h"
#include "support/media.h"
#include "support/temporary_folder.h"

namespace kvffmpeg {
namespace {

using nlohmann::json;

/// What is known of the files, by name; empty without the files.
const json& expectations() {
    static const json all = [] {
        if (test::sampleMedia("").empty()) return json::object();
        return json::parse(std::ifstream(test::sampleMedia("expected.json")));
    }();
    return all;
}

std::vector<std::string> sampleNames() {
    std::vector<std::string> names;
    for (const auto& entry : expectations().items()) names.push_back(entry.key());
    return names;
}

std::string testName(const testing::TestParamInfo<std::string>& info) {
    std::string name = info.param;
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    }
    return name;
}

/// The MD5 of every picture of a video track, as the ffmpeg command decodes it, at most `limit` of them.
std::vector<std::string> commandPictures(const std::string& path, std::size_t track, std::size_t limit) {
    const std::string input = "-threads 1 -noautorotate -i " + path + " -map 0:" + std::to_string(track) +
                              " -frames:v " + std::to_string(limit);
    const std::vector<std::uint8_t> output =
        test::readFFmpeg(input + " " + test::frameRateOption("passthrough") + " -f framemd5 -");
    std::vector<std::string> digests;
    std::istringstream lines(std::string(output.begin(), output.end()));
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') continue;
        const std::size_t comma = line.rfind(',');
        digests.push_back(line.substr(line.find_first_not_of(' ', comma + 1)));
    }
    return digests;
}

class SampleMediaTest : public testing::TestWithParam<std::string> {
protected:
    const json& expected() const { return expectations().at(GetParam()); }
    std::string path() const { return test::sampleMedia(GetParam()); }

    bool missesADecoder() const {
        const json& streams = expected()["streams"];
        return std::any_of(streams.begin(), streams.end(), [](const json& stream) {
            return stream["codec"] == "av1" && !avcodec_find_decoder_by_name("libdav1d") &&
                   !avcodec_find_decoder_by_name("libaom-av1");
        });
    }

    /// This file ends behind its header. Releases before FFmpeg 5 call that an error, and no end.
    bool hasNoPacketAndSaysSo() const { return compat::ffmpegRelease < 5 && GetParam() == "truncated.m4b"; }
};

/// A number that FFmpeg changed with a release.
struct Change {
    const char* file;
    const char* type;  ///< Of the track.
    const char* name;  ///< As in expected.json.
    int since;         ///< The first release that is known to have it; the one before may have.
    std::uint64_t value;
};
constexpr Change changesOfReleases[] = {
    // What there is of the cut picture comes as a packet.
    {"truncated.gif", "video", "packets", 7, 1},
    {"truncated.gif", "video", "frames_without_drain", 7, 1},
    // What the encoder filled up at the end is cut off.
    {"h264_444_aac_chapters.mkv", "audio", "frames_without_drain", 9, 216},
    {"h264_444_aac_chapters.mkv", "audio", "samples_without_drain", 9, 221184},
    {"hevc10_rotated_vfr.mp4", "audio", "samples_without_drain", 9, 112382},
};

/// What is known of a track: one value, or two where it is not known whether the release has the change.
std::vector<std::uint64_t> known(const std::string& file, const json& stream, const char* name) {
    std::vector<std::uint64_t> values{stream[name].get<std::uint64_t>()};
    const bool isSamples = name == std::string("samples_without_drain");
    // Releases before FFmpeg 5 do not cut off what the last page of Vorbis in Ogg has too much.
    const bool isVorbis = file == "vorbis_stereo.ogg" || file == "corrupt_gap.ogg";
    if (compat::ffmpegRelease < 5 && isVorbis && isSamples) values[0] += 208;
    for (const Change& change : changesOfReleases) {
        if (file != change.file || stream["type"] != change.type || change.name != std::string(name))
            continue;
        if (compat::ffmpegRelease >= change.since) values.clear();
        if (compat::ffmpegRelease >= change.since - 1) values.push_back(change.value);
    }
    return values;
}

const char* const invalidData = "Invalid data found when processing input";

TEST_P(SampleMediaTest, GivesTheKnownNumbersOfPacketsFramesAndSamples) {
    FormatContext context(path());
    if (!expected()["opens"]) {
        EXPECT_THAT([&] { context.open(); },
                    testing::ThrowsMessage<std::runtime_error>(testing::StrEq("can't open input file")));
        return;
    }
    if (missesADecoder()) GTEST_SKIP() << "no AV1 decoder in this FFmpeg";
    const test::LogCapture quiet;
    context.open();
    const json& streams = expected()["streams"];
    ASSERT_EQ(context.tracksNumber(), streams.size());
    if (hasNoPacketAndSaysSo()) {
        EXPECT_THAT([&] { context.readPacket(); },
                    testing::ThrowsMessage<std::runtime_error>(testing::StrEq(invalidData)));
        return;
    }
    std::vector<std::uint64_t> packets(streams.size());
    std::vector<std::uint64_t> frames(streams.size());
    std::vector<std::uint64_t> samples(streams.size());
    while (const auto packet = context.readPacket()) {
        const std::size_t track = packet->streamIndex();
        ++packets.at(track);
        const Frame frame = context.decodePacket(packet);
        if (frame.empty()) continue;
        ++frames[track];
        samples[track] += frame.audioBuffer().numberOfSamples();
    }
    for (std::size_t track = 0; track < streams.size(); ++track) {
        SCOPED_TRACE(testing::Message() << "track " << track);
        const json& stream = streams[track];
        // PCM has no packets of its own: FFmpeg 7 cuts it differently.
        const bool ownPackets =
            !stream["codec"].is_string() || stream["codec"].get<std::string>().rfind("pcm_", 0) != 0;
        if (ownPackets) {
            EXPECT_THAT(known(GetParam(), stream, "packets"), testing::Contains(packets[track]));
            if (stream.contains("frames_without_drain")) {
                EXPECT_THAT(known(GetParam(), stream, "frames_without_drain"),
                            testing::Contains(frames[track]));
            }
        } else {
            EXPECT_EQ(packets[track], frames[track]);
        }
        if (stream.contains("samples_without_drain")) {
            EXPECT_THAT(known(GetParam(), stream, "samples_without_drain"),
                        testing::Contains(samples[track]));
        }
        if (stream["type"] == "video" && stream.value("width", 0) > 0) {
            EXPECT_EQ(context.trackAtIndex(static_cast<unsigned>(track))->codecpar->width, stream["width"]);
            EXPECT_EQ(context.trackAtIndex(static_cast<unsigned>(track))->codecpar->height, stream["height"]);
        }
        if (stream["type"] == "audio") {
            EXPECT_EQ(context.channelsAtIndex(static_cast<unsigned>(track)), stream["channels"]);
            // Where the file tells none, the default layout is given.
            const char* const byDefault = stream["channels"] == 1 ? "mono" : "stereo";
            EXPECT_EQ(context.channelLayoutAtIndex(static_cast<unsigned>(track)),
                      stream["layout"].is_null() ? byDefault : stream["layout"].get<std::string>());
        }
    }
}

TEST_P(SampleMediaTest, PicturesEqualThoseOfTheFFmpegCommandByteForByte) {
    if (!expected()["opens"]) return;    // said so by the test above
    if (hasNoPacketAndSaysSo()) return;  // said so by the test above
    KVFFMPEG_REQUIRE_COMMAND_OF_THIS_RELEASE();
    if (missesADecoder()) GTEST_SKIP() << "no AV1 decoder in this FFmpeg";
    const test::LogCapture quiet;
    FormatContext context(path());
    context.open();
    std::vector<std::vector<std::string>> decoded(context.tracksNumber());
    while (const auto packet = context.readPacket()) {
        const Frame frame = context.decodePacket(packet);
        if (!frame.picture().empty()) {
            decoded.at(packet->streamIndex()).push_back(test::md5(test::visibleBytes(frame.picture())));
        }
    }
    std::size_t compared = 0;
    for (std::size_t track = 0; track < decoded.size(); ++track) {
        if (decoded[track].empty()) continue;
        EXPECT_EQ(decoded[track], commandPictures(path(), track, decoded[track].size())) << "track " << track;
        compared += decoded[track].size();
    }
    std::uint64_t least = 0;
    std::uint64_t most = 0;
    for (const json& stream : expected()["streams"]) {
        if (stream["type"] != "video") continue;
        const std::vector<std::uint64_t> values = known(GetParam(), stream, "frames_without_drain");
        least += values.front();
        most += values.back();
    }
    EXPECT_GE(compared, least);
    EXPECT_LE(compared, most);
}

TEST_P(SampleMediaTest, LoadsAsAPictureOrSaysWhyNot) {
    const test::LogCapture log;
    Picture picture;
    try {
        picture = loadPicture(path());
    } catch (const std::runtime_error& error) {
        if (hasNoPacketAndSaysSo()) {
            EXPECT_STREQ(error.what(), invalidData);
        } else {
            EXPECT_STREQ(error.what(), "can't open input file");
            EXPECT_FALSE(expected()["opens"]);
        }
        return;
    }
    const json& streams = expected()["streams"];
    const bool still = streams.size() == 1 && streams[0]["type"] == "video" &&
                       streams[0]["frames_without_drain"] == 1 && streams[0]["packets"] == 1;
    if (still) {
        EXPECT_EQ(picture.width(), streams[0]["width"]);
        EXPECT_EQ(picture.height(), streams[0]["height"]);
        EXPECT_TRUE(picture.editable());
    }
}

/// Cuts and noise, the same for the same seed.
std::vector<std::uint8_t> broken(std::vector<std::uint8_t> bytes, unsigned seed) {
    std::mt19937 random(seed);
    if (seed % 3 == 0) {
        bytes.resize(random() % bytes.size());
        return bytes;
    }
    const std::size_t changes = seed % 3 == 1 ? 3 : bytes.size() / 200;
    for (std::size_t i = 0; i < changes; ++i)
        bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
    return bytes;
}

TEST_P(SampleMediaTest, BrokenCopiesEndInExceptionsOrEmptyFrames) {
    const auto whole = test::readFile(path());
    const test::TemporaryFolder folder;
    // With its ending, which tells some demuxers from others.
    const std::string copy = folder.file("copy" + GetParam().substr(GetParam().rfind('.')));
    const test::LogCapture quiet;
    // One picture of 216 MB is not to be decoded many times.
    const unsigned copies = GetParam() == "huge_16000x9000.webp" ? 1 : 9;
    for (unsigned seed = 0; seed < copies; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        test::writeFile(copy, broken(whole, seed));
        FormatContext context(copy);
        try {
            context.open("", seed % 2 == 0);
            int packets = 0;
            while (const auto packet = context.readPacket()) {
                const Frame frame = context.decodePacket(packet);
                EXPECT_NE(frame.debugDescription(), "");
                if (++packets == 100) context.seek(frame.PTS().is_nil() ? Timestamp(0) : frame.PTS());
                if (packets == 300) break;
            }
        } catch (const std::runtime_error& error) {
            EXPECT_STRNE(error.what(), "");
        }
        try {
            loadPicture(copy);
        } catch (const std::runtime_error& error) {
            EXPECT_STRNE(error.what(), "");
        }
    }
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(SampleMediaTest);
INSTANTIATE_TEST_SUITE_P(Files, SampleMediaTest, testing::ValuesIn(sampleNames()), testName);

// Without the files there is no instance: this one says so.
TEST(SampleMediaFilesTest, AreAtHand) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    EXPECT_GT(sampleNames().size(), 50u);
}

TEST(SampleMediaFilesTest, TruncatedGifLoadsAsWhatThereIsOfItOrAnEmptyFrame) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    const auto pictures = loadPictureAsFrame(test::sampleMedia("truncated.gif")).empty() ? 0U : 1U;
    EXPECT_THAT(known("truncated.gif", expectations().at("truncated.gif")["streams"][0], "packets"),
                testing::Contains(pictures));
}

TEST(SampleMediaFilesTest, PaletteAndGrayPicturesKeepTheirFormats) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    EXPECT_EQ(loadPicture(test::sampleMedia("palette.png")).pixelFormat(), AV_PIX_FMT_PAL8);
    EXPECT_EQ(loadPicture(test::sampleMedia("gray.jpg")).pixelFormat(), AV_PIX_FMT_GRAY8);
    EXPECT_EQ(loadPicture(test::sampleMedia("rgba.png")).pixelFormat(), AV_PIX_FMT_RGBA);
    EXPECT_EQ(loadPicture(test::sampleMedia("alpha.webp")).pixelFormat(), AV_PIX_FMT_YUVA420P);
}

/// The times of the key frames that libavformat itself reports for the first track.
std::vector<std::int64_t> plainKeyFrames(const std::string& path) {
    std::vector<std::int64_t> times;
    FormatContext context(path);  // for the conversion of times
    context.open();
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(context.getAVFormatContext(), packet) >= 0) {
        if (packet->stream_index == 0 && (packet->flags & AV_PKT_FLAG_KEY) != 0) {
            const AVRational timeBase = context.trackAtIndex(0)->time_base;
            times.push_back(Timestamp(packet->pts, timeBase.num, timeBase.den).rescale({1, 1000000}).value());
        }
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    return times;
}

TEST(SampleMediaFilesTest, H264InTransportStreamHasTheKeyFramesThatTheParserSees) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    FormatContext context(test::sampleMedia("h264.ts"));
    context.open("mpegts", false);
    std::vector<std::int64_t> keyFrames;
    while (const auto packet = context.readPacket()) {
        if (packet->isKeyFrame()) keyFrames.push_back(packet->pts());
    }
    EXPECT_EQ(keyFrames, plainKeyFrames(test::sampleMedia("h264.ts")));
    EXPECT_EQ(keyFrames.size(), 3u);
}

TEST(SampleMediaFilesTest, SeekingLandsOnTheLastKeyFrameBefore) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    const std::string path = test::sampleMedia("h264_fullrange_60fps.mp4");
    const std::vector<std::int64_t> keyFrames = plainKeyFrames(path);
    FormatContext context(path);
    context.open();
    for (const std::int64_t target : {4500000, 1000000, 4199000, 2500000, 0}) {
        context.seek(Timestamp(target));
        auto packet = context.readPacket();
        while (packet->streamIndex() != 0) packet = context.readPacket();
        EXPECT_EQ(packet->pts(), *std::prev(std::upper_bound(keyFrames.begin(), keyFrames.end(), target)))
            << target;
    }
}

TEST(SampleMediaFilesTest, SizeThatChangesInMidStreamChangesThePictures) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    const test::TemporaryFolder folder;
    auto bytes = test::readFile(test::sampleMedia("h264.ts"));
    const auto more = test::readFile(test::sampleMedia("h264_mp2.ts"));
    bytes.insert(bytes.end(), more.begin(), more.end());
    test::writeFile(folder.file("a.ts"), bytes);
    FormatContext context(folder.file("a.ts"));
    context.open();
    std::vector<rect_size_t> sizes;
    const test::LogCapture quiet;
    while (const auto packet = context.readPacket()) {
        const Frame frame = context.decodePacket(packet);
        if (!frame.picture().empty() && (sizes.empty() || sizes.back() != frame.picture().size())) {
            sizes.push_back(frame.picture().size());
        }
    }
    EXPECT_THAT(sizes, testing::ElementsAre(rect_size_t{854, 480}, rect_size_t{640, 426}));
}

}  // namespace
}  // namespace kvffmpeg
