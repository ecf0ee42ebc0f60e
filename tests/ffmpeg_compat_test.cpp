#include "ffmpeg_compat.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>

#include "ffmpeg_ptr.h"
#include "support/media.h"
#include "support/temporary_folder.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace kvffmpeg {
namespace {

TEST(ChannelLayoutTest, DefaultsAreTheSameOnEveryRelease) {
    const std::uint64_t expected[] = {0, 0x4, 0x3, 0xb, 0x107, 0x37, 0x3f, 0x70f, 0x63f, 0, 0};
    for (int channels = 0; channels <= 10; ++channels) {
        EXPECT_EQ(compat::defaultChannelLayout(channels), expected[channels]) << channels;
    }
    EXPECT_EQ(compat::defaultChannelLayout(-1), 0u);
    EXPECT_EQ(compat::defaultChannelLayout(16), 0x18003f737u);
    EXPECT_EQ(compat::defaultChannelLayout(17), 0u);
}

TEST(ChannelLayoutTest, ChannelsAreTheBitsOfTheMask) {
    EXPECT_EQ(compat::channelsOfLayout(0), 0);
    EXPECT_EQ(compat::channelsOfLayout(AV_CH_LAYOUT_STEREO), 2);
    EXPECT_EQ(compat::channelsOfLayout(~std::uint64_t{0}), 64);
}

TEST(ChannelLayoutTest, DescriptionsAreFFmpegs) {
    EXPECT_EQ(compat::describeChannelLayout(AV_CH_LAYOUT_MONO), "mono");
    EXPECT_EQ(compat::describeChannelLayout(AV_CH_LAYOUT_STEREO), "stereo");
    EXPECT_EQ(compat::describeChannelLayout(AV_CH_LAYOUT_5POINT1_BACK), "5.1");
    EXPECT_EQ(compat::describeChannelLayout(AV_CH_LAYOUT_5POINT1), "5.1(side)");
    EXPECT_EQ(compat::describeChannelLayout(AV_CH_FRONT_LEFT | AV_CH_LOW_FREQUENCY), "2 channels (FL+LFE)");
    EXPECT_EQ(compat::describeChannelLayout(0), "0 channels");
}

TEST(ChannelLayoutTest, FramesGiveBackTheLayoutThatTheyWereGiven) {
    const FramePtr frame = makeFrame();
    for (const std::uint64_t layout :
         {std::uint64_t{AV_CH_LAYOUT_STEREO}, std::uint64_t{AV_CH_LAYOUT_7POINT1}, std::uint64_t{0}}) {
        compat::setChannelLayout(*frame, layout);
        EXPECT_EQ(compat::channelLayout(*frame), layout);
    }
}

TEST(ChannelLayoutTest, ParametersWithoutAChannelCountStayAsTheyAre) {
    AVCodecParameters* parameters = avcodec_parameters_alloc();
    parameters->codec_type = AVMEDIA_TYPE_AUDIO;
    compat::completeChannelLayout(*parameters);
    EXPECT_EQ(compat::channelLayout(*parameters), 0u);
    EXPECT_EQ(compat::channelCount(*parameters), 0);
    avcodec_parameters_free(&parameters);
}

struct ChannelName {
    const char* name;
    std::uint64_t mask;  // of the one channel that it names; 0: none
};

void PrintTo(const ChannelName& channel, std::ostream* out) {
    *out << "\"" << channel.name << "\"";
}

class ChannelIndexTest : public testing::TestWithParam<ChannelName> {};

TEST_P(ChannelIndexTest, IsThePlaceInTheReferenceOrInvalid) {
    const ChannelName channel = GetParam();
    for (const std::uint64_t reference :
         {std::uint64_t{0}, std::uint64_t{AV_CH_LAYOUT_MONO}, std::uint64_t{AV_CH_LAYOUT_STEREO},
          std::uint64_t{AV_CH_LAYOUT_2POINT1}, std::uint64_t{AV_CH_LAYOUT_4POINT0},
          std::uint64_t{AV_CH_LAYOUT_5POINT1_BACK}, std::uint64_t{AV_CH_LAYOUT_7POINT1}, ~std::uint64_t{0}}) {
        int expected = AVERROR(EINVAL);
        if ((channel.mask & reference) != 0) {
            expected = 0;
            for (std::uint64_t below = 1; below != channel.mask; below <<= 1)
                expected += (reference & below) != 0;
        }
        EXPECT_EQ(compat::channelIndex(channel.name, reference), expected) << std::hex << reference;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Names, ChannelIndexTest,
    testing::Values(ChannelName{"FL", AV_CH_FRONT_LEFT}, ChannelName{"FR", AV_CH_FRONT_RIGHT},
                    ChannelName{"FC", AV_CH_FRONT_CENTER}, ChannelName{"LFE", AV_CH_LOW_FREQUENCY},
                    ChannelName{"BL", AV_CH_BACK_LEFT}, ChannelName{"BC", AV_CH_BACK_CENTER},
                    ChannelName{"SR", AV_CH_SIDE_RIGHT}));
INSTANTIATE_TEST_SUITE_P(LayoutsOfOneChannelAndNumbers, ChannelIndexTest,
                         testing::Values(ChannelName{"mono", AV_CH_FRONT_CENTER},
                                         ChannelName{"1c", AV_CH_FRONT_CENTER},
                                         ChannelName{"0x1", AV_CH_FRONT_LEFT},
                                         ChannelName{"1", AV_CH_FRONT_LEFT},
                                         ChannelName{"4", AV_CH_FRONT_CENTER}));
INSTANTIATE_TEST_SUITE_P(NotOneChannel, ChannelIndexTest,
                         testing::Values(ChannelName{"stereo", 0}, ChannelName{"FL+FR", 0},
                                         ChannelName{"3", 0}, ChannelName{"2c", 0}, ChannelName{"0", 0}));
INSTANTIATE_TEST_SUITE_P(NoChannel, ChannelIndexTest,
                         testing::Values(ChannelName{"", 0}, ChannelName{"fl", 0}, ChannelName{" FL", 0},
                                         ChannelName{"\tFL", 0}, ChannelName{"XX", 0},
                                         ChannelName{"FLL", 0}));

TEST(ChannelPlaceTest, PlacesInStereoAndFivePointOne) {
    EXPECT_EQ(compat::channelIndex("FL", AV_CH_LAYOUT_STEREO), 0);
    EXPECT_EQ(compat::channelIndex("FR", AV_CH_LAYOUT_STEREO), 1);
    EXPECT_EQ(compat::channelIndex("FC", AV_CH_LAYOUT_STEREO), AVERROR(EINVAL));
    EXPECT_EQ(compat::channelIndex("BR", AV_CH_LAYOUT_5POINT1_BACK), 5);
    EXPECT_EQ(compat::channelIndex("SR", AV_CH_LAYOUT_5POINT1_BACK), AVERROR(EINVAL));
}

TEST(BlankPacketTest, HasNoPayloadAndNoTimes) {
    const AVPacket packet = compat::blankPacket();
    EXPECT_EQ(packet.data, nullptr);
    EXPECT_EQ(packet.size, 0);
    EXPECT_EQ(packet.buf, nullptr);
    EXPECT_EQ(packet.pts, AV_NOPTS_VALUE);
    EXPECT_EQ(packet.dts, AV_NOPTS_VALUE);
    EXPECT_EQ(packet.pos, -1);
    EXPECT_EQ(packet.flags, 0);
    EXPECT_EQ(packet.side_data_elems, 0);
}

TEST(BufferTest, ReleaseCallbackGetsWhatTheBufferWasMadeWith) {
    struct Released {
        std::uint8_t* data = nullptr;
    } released;
    std::uint8_t bytes[8] = {};
    AVBufferRef* buffer = compat::createBuffer(
        bytes, sizeof bytes,
        [](void* opaque, std::uint8_t* data) { static_cast<Released*>(opaque)->data = data; }, &released);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->data, bytes);
    EXPECT_EQ(static_cast<std::size_t>(buffer->size), sizeof bytes);
    av_buffer_unref(&buffer);
    EXPECT_EQ(released.data, bytes);
}

class EncoderFormatsTest : public testing::Test {
protected:
    EncoderFormatsTest() { compat::registerAll(); }
};

TEST_F(EncoderFormatsTest, MjpegTakesTheFullRangeFormatsOnly) {
    EXPECT_THAT(compat::encoderPixelFormats(avcodec_find_encoder(AV_CODEC_ID_MJPEG)),
                testing::ElementsAre(AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUVJ444P));
}

TEST_F(EncoderFormatsTest, OtherListsAreFFmpegsOwn) {
    const auto png = compat::encoderPixelFormats(avcodec_find_encoder(AV_CODEC_ID_PNG));
    ASSERT_FALSE(png.empty());
    EXPECT_EQ(png.front(), AV_PIX_FMT_RGB24);
    EXPECT_THAT(png, testing::Contains(AV_PIX_FMT_RGBA));
    EXPECT_EQ(compat::encoderPixelFormats(avcodec_find_encoder(AV_CODEC_ID_BMP)).front(), AV_PIX_FMT_BGRA);
}

TEST_F(EncoderFormatsTest, EncodersWithoutAListTakeAnything) {
    EXPECT_THAT(compat::encoderPixelFormats(avcodec_find_encoder(AV_CODEC_ID_RAWVIDEO)), testing::IsEmpty());
}

/// An open decoder, and packets for it.
class DecodeRuleTest : public testing::Test {
protected:
    void openDecoder(AVCodecID id) {
        compat::registerAll();
        const AVCodec* codec = avcodec_find_decoder(id);
        decoder_.reset(avcodec_alloc_context3(codec));
        ASSERT_EQ(avcodec_open2(decoder_.get(), codec, nullptr), 0);
    }

    static PacketPtr packetOf(const std::vector<std::uint8_t>& bytes) {
        PacketPtr packet = makePacket();
        if (av_new_packet(packet.get(), static_cast<int>(bytes.size())) < 0) throw std::bad_alloc();
        std::copy(bytes.begin(), bytes.end(), packet->data);
        return packet;
    }

    /// The frames of a raw AAC stream, with their ADTS headers.
    static std::vector<std::vector<std::uint8_t>> adtsFrames() {
        const auto stream = test::readFFmpeg("-f lavfi -i sine=duration=2 -c:a aac -f adts -");
        std::vector<std::vector<std::uint8_t>> frames;
        for (std::size_t at = 0; at + 7 <= stream.size();) {
            const auto length = static_cast<std::size_t>((stream[at + 3] & 3) << 11 | stream[at + 4] << 3 |
                                                         stream[at + 5] >> 5);
            const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(at);
            frames.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(length));
            at += length;
        }
        return frames;
    }

    CodecContextPtr decoder_;
    FramePtr frame_ = makeFrame();
};

TEST_F(DecodeRuleTest, AudioFramesThatShareAPacketComeOutOnePerCallAndNeverJamTheDecoder) {
    openDecoder(AV_CODEC_ID_AAC);
    const auto frames = adtsFrames();
    ASSERT_GT(frames.size(), 60u);
    int calls = 0;
    int decoded = 0;
    for (std::size_t i = 0; i + 3 <= frames.size(); i += 3) {
        std::vector<std::uint8_t> joined;
        for (std::size_t k = i; k < i + 3; ++k)
            joined.insert(joined.end(), frames[k].begin(), frames[k].end());
        const PacketPtr packet = packetOf(joined);
        ++calls;
        if (compat::decodeAudio(decoder_.get(), packet.get(), frame_.get()) == compat::Decoded::frame) {
            ++decoded;
            EXPECT_EQ(frame_->nb_samples, 1024);
        }
    }
    // FFmpeg 3 needs a few calls before the first frame.
    EXPECT_GE(decoded, calls - 3) << calls << " calls";
}

TEST_F(DecodeRuleTest, OneAudioFramePerPacketGivesOneFramePerCall) {
    openDecoder(AV_CODEC_ID_AAC);
    int decoded = 0;
    const auto frames = adtsFrames();
    for (const auto& frame : frames) {
        const PacketPtr packet = packetOf(frame);
        if (compat::decodeAudio(decoder_.get(), packet.get(), frame_.get()) == compat::Decoded::frame)
            ++decoded;
    }
    EXPECT_GE(decoded, static_cast<int>(frames.size()) - 1);
}

TEST_F(DecodeRuleTest, EmptyPacketIsAnErrorAndTheDecoderGoesOn) {
    openDecoder(AV_CODEC_ID_AAC);
    const auto frames = adtsFrames();
    const PacketPtr empty = packetOf({});
    ASSERT_NE(empty->data, nullptr);
    EXPECT_EQ(compat::decodeAudio(decoder_.get(), empty.get(), frame_.get()), compat::Decoded::error);
    int decoded = 0;
    for (const auto& frame : frames) {
        const PacketPtr packet = packetOf(frame);
        if (compat::decodeAudio(decoder_.get(), packet.get(), frame_.get()) == compat::Decoded::frame)
            ++decoded;
    }
    EXPECT_GE(decoded, static_cast<int>(frames.size()) - 1);
}

TEST_F(DecodeRuleTest, VideoPacketThatDoesNotDecodeIsAnErrorAndTheDecoderGoesOn) {
    openDecoder(AV_CODEC_ID_PNG);
    const auto png = test::readFFmpeg("-f lavfi -i testsrc2=size=32x16 -frames:v 1 -c:v png -f image2pipe -");
    const PacketPtr broken =
        packetOf({'n', 'o', ' ', 'p', 'n', 'g', '.', '.', '.', '.', '.', '.', '.', '.', '.', '.'});
    EXPECT_EQ(compat::decodeVideo(decoder_.get(), broken.get(), frame_.get()), compat::Decoded::error);
    const PacketPtr good = packetOf(png);
    EXPECT_EQ(compat::decodeVideo(decoder_.get(), good.get(), frame_.get()), compat::Decoded::frame);
    EXPECT_EQ(frame_->width, 32);
}

TEST(ChannelIndexTest, NeedsNoMemoryForTheNameOfAChannel) {
    compat::registerAll();
    av_max_alloc(1);
    const int right = compat::channelIndex("FR", AV_CH_LAYOUT_STEREO);
    const int unknown = compat::channelIndex("XX", AV_CH_LAYOUT_STEREO);
    av_max_alloc(INT_MAX);
    EXPECT_EQ(right, 1);
    EXPECT_EQ(unknown, AVERROR(EINVAL));
}

TEST(ChannelIndexTest, TextsThatAreNoNamesOfChannelsAreRefused) {
    for (const char* text : {"USR0", "USR1", "AMBI0", "fl", " FL", "FL ", "NONE", "UNK"}) {
        EXPECT_EQ(compat::channelIndex(text, AV_CH_LAYOUT_STEREO), AVERROR(EINVAL)) << text;
    }
}

}  // namespace
}  // namespace kvffmpeg
