#include "input_rules.h"

#include <gmock/gmock.h>

#include <cstring>

#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "ffmpeg_compat.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/mem.h>
}

namespace kvffmpeg {
namespace {

constexpr std::int64_t noTime = AV_NOPTS_VALUE;

// --- time origin

class TimeOriginTest : public testing::Test {
protected:
    ~TimeOriginTest() override { avformat_free_context(input_); }

    void setMetadata(const char* value) { av_dict_set(&input_->metadata, "timeorigin", value, 0); }

    AVFormatContext* input_ = avformat_alloc_context();
};

TEST_F(TimeOriginTest, IsTheRealStartTimeOfTheContainer) {
    input_->start_time_realtime = 1500000000000000;
    setMetadata("7");
    EXPECT_EQ(timeOriginOf(*input_, 5), 1500000000000000);
}

TEST_F(TimeOriginTest, UnsetRealStartTimesGiveWayToTheMetadata) {
    setMetadata("1500000000000000");
    for (const std::int64_t unset : {std::int64_t{0}, noTime}) {
        input_->start_time_realtime = unset;
        EXPECT_EQ(timeOriginOf(*input_, 5), 1500000000000000) << unset;
    }
}

TEST_F(TimeOriginTest, MetadataIsReadAsADecimalNumberAsFarAsItIsOne) {
    const std::pair<const char*, std::int64_t> cases[] = {
        {"-12", -12}, {"0", 0}, {"abc", 0}, {"12abc", 12}, {"0x10", 0}, {"99999999999999999999", INT64_MAX}};
    input_->start_time_realtime = noTime;
    for (const auto& [text, origin] : cases) {
        setMetadata(text);
        EXPECT_EQ(timeOriginOf(*input_, 5), origin) << text;
    }
}

TEST_F(TimeOriginTest, StaysWhenTheSourceHasNone) {
    input_->start_time_realtime = noTime;
    EXPECT_EQ(timeOriginOf(*input_, 5), 5);
}

TEST_F(TimeOriginTest, MetadataKeyIsFoundInAnyCase) {
    input_->start_time_realtime = noTime;
    av_dict_set(&input_->metadata, "TIMEORIGIN", "42", 0);
    EXPECT_EQ(timeOriginOf(*input_, 5), 42);
}

// --- times of packets

struct Times {
    std::int64_t pts;
    std::int64_t dts;
    std::int64_t duration;
};

bool operator==(const Times& a, const Times& b) {
    return a.pts == b.pts && a.dts == b.dts && a.duration == b.duration;
}
void PrintTo(const Times& times, std::ostream* out) {
    *out << "pts " << times.pts << ", dts " << times.dts << ", duration " << times.duration;
}

Times rebased(Times times, AVRational timeBase, std::int64_t origin) {
    AVPacket packet = compat::blankPacket();
    packet.pts = times.pts;
    packet.dts = times.dts;
    packet.duration = times.duration;
    rebasePacket(packet, timeBase, origin);
    return {packet.pts, packet.dts, packet.duration};
}

TEST(RebasePacketTest, ConvertsToMicrosecondsAndShiftsByTheOrigin) {
    EXPECT_EQ(rebased({900000, 450000, 9000}, {1, 90000}, 3), (Times{10000003, 5000003, 100000}));
}

TEST(RebasePacketTest, RoundsToTheNearestMicrosecond) {
    EXPECT_EQ(rebased({1, 2, 2}, {1, 3}, 0), (Times{333333, 666667, 666667}));
}

TEST(RebasePacketTest, UnknownPtsTakesTheShiftedDts) {
    EXPECT_EQ(rebased({noTime, 900000, 0}, {1, 90000}, 70), (Times{10000070, 10000070, 0}));
}

TEST(RebasePacketTest, UnknownDtsTakesTheShiftedPts) {
    EXPECT_EQ(rebased({900000, noTime, 0}, {1, 90000}, 70), (Times{10000070, 10000070, 0}));
}

TEST(RebasePacketTest, UnknownTimesStayUnknownWhateverTheOrigin) {
    EXPECT_EQ(rebased({noTime, noTime, 90000}, {1, 90000}, 70), (Times{noTime, noTime, 1000000}));
}

TEST(RebasePacketTest, TimesThatWrapToUnknownTakeTheOther) {
    EXPECT_EQ(rebased({0, 10, 0}, {1, 1000000}, noTime), (Times{noTime + 10, noTime + 10, 0}));
    EXPECT_EQ(rebased({10, 0, 0}, {1, 1000000}, noTime), (Times{noTime + 10, noTime + 10, 0}));
    EXPECT_EQ(rebased({0, 0, 0}, {1, 1000000}, noTime), (Times{noTime, noTime, 0}));
}

TEST(RebasePacketTest, ShiftWrapsAround) {
    EXPECT_EQ(rebased({INT64_MAX, 0, 0}, {1, 1000000}, 2), (Times{INT64_MIN + 1, 2, 0}));
}

TEST(RebasePacketTest, LongDurationsWrapAt32Bits) {
    EXPECT_EQ(rebased({0, 0, 2147483647}, {1, 1000000}, 0).duration, 2147483647);
    EXPECT_EQ(rebased({0, 0, 2147483648}, {1, 1000000}, 0).duration, -2147483648);
    EXPECT_EQ(rebased({0, 0, 3600}, {1, 1}, 0).duration, 3600000000 - 4294967296);
}

TEST(RebasePacketTest, DurationIsNotShifted) {
    EXPECT_EQ(rebased({0, 0, 0}, {1, 1000}, 99).duration, 0);
    EXPECT_EQ(rebased({0, 0, 5}, {1, 1000}, 99).duration, 5000);
}

// --- key frames

using Bytes = std::vector<std::uint8_t>;

/// In a block of exactly the payload's size, so that the address sanitizer sees any step beyond it.
bool isKeyFrame(const Bytes& payload) {
    const std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[payload.size()]);
    std::copy(payload.begin(), payload.end(), exact.get());
    return isH264KeyFrame(exact.get(), static_cast<int>(payload.size()));
}

Bytes nals(std::initializer_list<int> headers) {
    Bytes payload;
    for (const int header : headers) {
        for (const int byte : {0, 0, 1, header, 0x9a, 0x5b})
            payload.push_back(static_cast<std::uint8_t>(byte));
    }
    return payload;
}

TEST(H264KeyFrameTest, NeedsSpsThenPpsThenIdrSlice) {
    EXPECT_TRUE(isKeyFrame(nals({0x67, 0x68, 0x65})));
    EXPECT_TRUE(isKeyFrame(nals({0x09, 0x67, 0x06, 0x68, 0x06, 0x65, 0x65})));
    EXPECT_FALSE(isKeyFrame(nals({0x41})));
    EXPECT_FALSE(isKeyFrame(nals({0x65})));
    EXPECT_FALSE(isKeyFrame(nals({0x67, 0x65})));
    EXPECT_FALSE(isKeyFrame(nals({0x68, 0x65})));
    EXPECT_FALSE(isKeyFrame(nals({0x68, 0x67, 0x65})));
    EXPECT_FALSE(isKeyFrame(nals({0x67, 0x65, 0x68})));
    EXPECT_TRUE(isKeyFrame(nals({0x65, 0x68, 0x67, 0x68, 0x67, 0x65})));
}

TEST(H264KeyFrameTest, OnlyTheLowFiveBitsOfTheHeaderTellTheType) {
    EXPECT_TRUE(isKeyFrame(nals({0x07, 0xe8, 0x25})));
    EXPECT_FALSE(isKeyFrame(nals({0x47, 0x48, 0x46})));
}

TEST(H264KeyFrameTest, StartCodesOfFourBytesCountAsWell) {
    EXPECT_TRUE(isKeyFrame({0, 0, 0, 1, 0x67, 0, 0, 0, 1, 0x68, 0, 0, 0, 1, 0x65}));
}

TEST(H264KeyFrameTest, HeaderInTheLastByteCounts) {
    EXPECT_TRUE(isKeyFrame({0, 0, 1, 0x67, 0, 0, 1, 0x68, 0, 0, 1, 0x65}));
    EXPECT_FALSE(isKeyFrame({0, 0, 1, 0x67, 0, 0, 1, 0x68, 0, 0, 1}));
}

TEST(H264KeyFrameTest, LengthPrefixesAreNoStartCodes) {
    EXPECT_FALSE(isKeyFrame({0, 0, 0, 2, 0x67, 9, 0, 0, 0, 2, 0x68, 9, 0, 0, 0, 2, 0x65, 9}));
}

TEST(H264KeyFrameTest, PayloadsShorterThanFourBytesAreNone) {
    for (const Bytes& payload : {Bytes{}, Bytes{0}, Bytes{0, 0}, Bytes{0, 0, 1}}) {
        EXPECT_FALSE(isKeyFrame(payload)) << payload.size();
    }
}

TEST(H264KeyFrameTest, NothingButStartCodesStaysInsideThePayload) {
    for (int count = 1; count <= 200; ++count) {
        Bytes payload;
        for (int i = 0; i < count; ++i) payload.insert(payload.end(), {0, 0, 1, 0x41});
        EXPECT_FALSE(isKeyFrame(payload)) << count;
    }
}

/// The rule by its own words: size - 3 steps, start codes move by four, zeros behind the payload.
bool byTheWords(const Bytes& payload) {
    if (payload.size() < 4) return false;
    Bytes padded = payload;
    padded.resize(payload.size() * 5 + 8);
    int state = 0;
    std::size_t cursor = 0;
    for (std::size_t step = 0; step < payload.size() - 3; ++step) {
        const std::uint8_t* p = &padded[cursor];
        if (p[0] == 0 && p[1] == 0 && p[2] == 1) {
            const int type = p[3] & 31;
            if (type == 7) state |= 1;
            if (type == 8 && state == 1) state = 3;
            if (type == 5 && (state & 2)) state |= 4;
            cursor += 4;
        } else {
            cursor += 1;
        }
        if (state == 7) return true;
    }
    return false;
}

TEST(H264KeyFrameTest, AgreesWithTheRuleOnRandomPayloads) {
    std::mt19937 random(20261121);
    const Bytes types{0x67, 0x68, 0x65, 0x41, 0, 1};
    int keyFrames = 0;
    for (int round = 0; round < 100000; ++round) {
        Bytes payload;
        while (random() % 12 != 0) {
            if (random() % 4 != 0) payload.insert(payload.end(), {0, 0, 1});
            payload.push_back(types[random() % types.size()]);
        }
        const bool expected = byTheWords(payload);
        keyFrames += expected ? 1 : 0;
        ASSERT_EQ(isH264KeyFrame(payload.data(), static_cast<int>(payload.size())), expected)
            << testing::PrintToString(payload);
    }
    EXPECT_GT(keyFrames, 1000);  // both answers were asked for
}

// --- formats and decoder parameters

TEST(WithoutFullRangeTest, MapsTheFullRangeFormatsByName) {
    EXPECT_EQ(withoutFullRange(AV_PIX_FMT_YUVJ420P), AV_PIX_FMT_YUV420P);
    EXPECT_EQ(withoutFullRange(AV_PIX_FMT_YUVJ422P), AV_PIX_FMT_YUV422P);
    EXPECT_EQ(withoutFullRange(AV_PIX_FMT_YUVJ444P), AV_PIX_FMT_YUV444P);
    EXPECT_EQ(withoutFullRange(AV_PIX_FMT_YUVJ440P), AV_PIX_FMT_YUV440P);
    EXPECT_EQ(withoutFullRange(AV_PIX_FMT_YUVJ411P), AV_PIX_FMT_YUV411P);
    EXPECT_EQ(withoutFullRange(AV_PIX_FMT_YUV420P), AV_PIX_FMT_YUV420P);
    EXPECT_EQ(withoutFullRange(AV_PIX_FMT_RGBA), AV_PIX_FMT_RGBA);
    EXPECT_EQ(withoutFullRange(AV_PIX_FMT_NONE), AV_PIX_FMT_NONE);
}

class SameDecodingTest : public testing::Test {
protected:
    SameDecodingTest() {
        for (AVCodecParameters* parameters : {a_, b_}) {
            parameters->codec_id = AV_CODEC_ID_H264;
            setExtradata(parameters, {1, 2, 3});
        }
    }
    ~SameDecodingTest() override {
        avcodec_parameters_free(&a_);
        avcodec_parameters_free(&b_);
    }

    void setType(AVMediaType type) {
        a_->codec_type = type;
        b_->codec_type = type;
    }

    static void setExtradata(AVCodecParameters* parameters, const Bytes& bytes) {
        av_freep(&parameters->extradata);
        parameters->extradata_size = static_cast<int>(bytes.size());
        parameters->extradata =
            static_cast<std::uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        std::copy(bytes.begin(), bytes.end(), parameters->extradata);
    }

    /// True when a change of the member makes the two different.
    template <typename Member, typename Value>
    bool compares(Member AVCodecParameters::*member, Value value) {
        const Member before = b_->*member;
        b_->*member = static_cast<Member>(value);
        const bool different = !sameDecoding(*a_, *b_);
        b_->*member = before;
        EXPECT_TRUE(sameDecoding(*a_, *b_));
        return different;
    }

    AVCodecParameters* a_ = avcodec_parameters_alloc();
    AVCodecParameters* b_ = avcodec_parameters_alloc();
};

TEST_F(SameDecodingTest, ComparesWhatEveryTrackHas) {
    setType(AVMEDIA_TYPE_SUBTITLE);
    EXPECT_TRUE(compares(&AVCodecParameters::codec_type, AVMEDIA_TYPE_DATA));
    EXPECT_TRUE(compares(&AVCodecParameters::codec_id, AV_CODEC_ID_HEVC));
    EXPECT_TRUE(compares(&AVCodecParameters::codec_tag, 7));
    EXPECT_TRUE(compares(&AVCodecParameters::format, 7));
    EXPECT_TRUE(compares(&AVCodecParameters::bits_per_coded_sample, 7));
    EXPECT_TRUE(compares(&AVCodecParameters::bits_per_raw_sample, 7));
    EXPECT_TRUE(compares(&AVCodecParameters::profile, 7));
    EXPECT_TRUE(compares(&AVCodecParameters::level, 7));
}

TEST_F(SameDecodingTest, BitRateDoesNotCount) {
    setType(AVMEDIA_TYPE_VIDEO);
    EXPECT_FALSE(compares(&AVCodecParameters::bit_rate, 7));
}

TEST_F(SameDecodingTest, ComparesThePictureOfVideoOnly) {
    for (const AVMediaType type : {AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO}) {
        setType(type);
        const bool counts = type == AVMEDIA_TYPE_VIDEO;
        EXPECT_EQ(compares(&AVCodecParameters::width, 7), counts);
        EXPECT_EQ(compares(&AVCodecParameters::height, 7), counts);
        EXPECT_EQ(compares(&AVCodecParameters::sample_aspect_ratio, AVRational{7, 1}), counts);
        EXPECT_EQ(compares(&AVCodecParameters::sample_aspect_ratio, AVRational{0, 7}), counts);
        EXPECT_EQ(compares(&AVCodecParameters::field_order, AV_FIELD_TT), counts);
        EXPECT_EQ(compares(&AVCodecParameters::color_range, AVCOL_RANGE_JPEG), counts);
        EXPECT_EQ(compares(&AVCodecParameters::color_primaries, AVCOL_PRI_BT709), counts);
        EXPECT_EQ(compares(&AVCodecParameters::color_trc, AVCOL_TRC_BT709), counts);
        EXPECT_EQ(compares(&AVCodecParameters::color_space, AVCOL_SPC_BT709), counts);
        EXPECT_EQ(compares(&AVCodecParameters::chroma_location, AVCHROMA_LOC_LEFT), counts);
        EXPECT_EQ(compares(&AVCodecParameters::video_delay, 7), counts);
    }
}

TEST_F(SameDecodingTest, ComparesTheSoundOfAudioOnly) {
    for (const AVMediaType type : {AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO}) {
        setType(type);
        const bool counts = type == AVMEDIA_TYPE_AUDIO;
        EXPECT_EQ(compares(&AVCodecParameters::sample_rate, 7), counts);
        EXPECT_EQ(compares(&AVCodecParameters::block_align, 7), counts);
        EXPECT_EQ(compares(&AVCodecParameters::frame_size, 7), counts);
        EXPECT_EQ(compares(&AVCodecParameters::initial_padding, 7), counts);
        EXPECT_EQ(compares(&AVCodecParameters::trailing_padding, 7), counts);
        EXPECT_EQ(compares(&AVCodecParameters::seek_preroll, 7), counts);
    }
}

TEST_F(SameDecodingTest, ComparesTheExtradataByteForByte) {
    setType(AVMEDIA_TYPE_VIDEO);
    EXPECT_TRUE(sameDecoding(*a_, *b_));
    setExtradata(b_, {1, 2, 4});
    EXPECT_FALSE(sameDecoding(*a_, *b_));
    setExtradata(b_, {1, 2});
    EXPECT_FALSE(sameDecoding(*a_, *b_));
    av_freep(&b_->extradata);
    b_->extradata_size = 0;
    EXPECT_FALSE(sameDecoding(*a_, *b_));
    av_freep(&a_->extradata);
    a_->extradata_size = 0;
    EXPECT_TRUE(sameDecoding(*a_, *b_));
    setExtradata(b_, {});  // no bytes, but a pointer
    EXPECT_FALSE(sameDecoding(*a_, *b_));
}

// Found by fuzzing, in a file whose header says 205.
TEST_F(SameDecodingTest, ComparesColourPrimariesThatNoEnumeratorHas) {
    a_->codec_type = b_->codec_type = AVMEDIA_TYPE_VIDEO;
    const int number = 205;
    std::memcpy(&a_->color_primaries, &number, sizeof number);
    EXPECT_FALSE(sameDecoding(*a_, *b_));
    std::memcpy(&b_->color_primaries, &number, sizeof number);
    EXPECT_TRUE(sameDecoding(*a_, *b_));
}

}  // namespace
}  // namespace kvffmpeg
