#include "kvffmpeg/audio_resampler.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
}

namespace kvffmpeg {
namespace {

using testing::StrEq;
using testing::ThrowsMessage;

static_assert(!std::is_copy_constructible<Resampler>::value, "libswresample keeps pointers into a resampler");
static_assert(!std::is_copy_assignable<Resampler>::value, "libswresample keeps pointers into a resampler");
static_assert(!std::is_move_constructible<Resampler>::value, "libswresample keeps pointers into a resampler");
static_assert(!std::is_move_assignable<Resampler>::value, "libswresample keeps pointers into a resampler");

/// Packed 16-bit samples, channel after channel.
using Samples = std::vector<std::int16_t>;

constexpr std::uint64_t mono = AV_CH_LAYOUT_MONO;
constexpr std::uint64_t stereo = AV_CH_LAYOUT_STEREO;
constexpr AVSampleFormat s16 = AV_SAMPLE_FMT_S16;

AudioBuffer bufferOf(const Samples& samples, std::uint64_t layout, int rate) {
    AudioBuffer buffer(layout, s16);
    buffer.setSampleRate(rate);
    const std::size_t count = samples.size() / static_cast<std::size_t>(buffer.numberOfChannels());
    if (count == 0) return buffer;
    buffer.resize(count);
    std::memcpy(buffer.getPointersToPlanes().at(0), samples.data(), samples.size() * sizeof(std::int16_t));
    return buffer;
}

Samples samplesOf(const AudioBuffer& buffer) {
    Samples samples(buffer.readableSamples() * static_cast<std::size_t>(buffer.numberOfChannels()));
    if (!samples.empty())
        std::memcpy(samples.data(), buffer.getPointersToPlanes().at(0),
                    samples.size() * sizeof(std::int16_t));
    return samples;
}

/// A 1 kHz sine in the first channel, and 100 Hz more in each further one.
Samples sine(std::size_t count, int rate, int channels = 2) {
    Samples samples;
    samples.reserve(count * static_cast<std::size_t>(channels));
    for (std::size_t i = 0; i < count; ++i) {
        for (int c = 0; c < channels; ++c) {
            const double turns = (1000.0 + 100.0 * c) * static_cast<double>(i) / rate;
            samples.push_back(static_cast<std::int16_t>(std::lround(16384 * std::sin(2 * M_PI * turns))));
        }
    }
    return samples;
}

AudioBuffer stereoSine(std::size_t count, int rate = 44100) {
    return bufferOf(sine(count, rate), stereo, rate);
}

void append(Samples& to, const AudioBuffer& buffer) {
    const Samples more = samplesOf(buffer);
    to.insert(to.end(), more.begin(), more.end());
}

const char* const stereoGaveNothing =
    "Could not get buffer size for audio layout 3, sample format 1, samples 0";

AudioBuffer to48000(Resampler& resampler, const AudioBuffer& input) {
    return resampler.resample(input, 48000, stereo, s16);
}

/// What comes out of a whole stream that is fed in pieces, and how many calls gave nothing.
struct Fed {
    Samples samples;
    int callsWithoutSamples = 0;
};

Fed feed(Resampler& resampler, const Samples& stream, std::size_t piece) {
    Fed fed;
    for (std::size_t at = 0; at < stream.size(); at += 2 * piece) {
        const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(at);
        const auto size = static_cast<std::ptrdiff_t>(std::min(2 * piece, stream.size() - at));
        try {
            append(fed.samples, to48000(resampler, bufferOf(Samples(begin, begin + size), stereo, 44100)));
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), stereoGaveNothing);
            ++fed.callsWithoutSamples;
        }
    }
    append(fed.samples, resampler.flush());
    return fed;
}

Samples resampledAtOnce(const Samples& stream) {
    Resampler resampler;
    Samples samples = samplesOf(to48000(resampler, bufferOf(stream, stereo, 44100)));
    append(samples, resampler.flush());
    return samples;
}

TEST(ResamplerTest, ResultHasTheRequestedParameters) {
    Resampler resampler;
    const AudioBuffer result = resampler.resample(stereoSine(1024), 22050, mono, AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(result.sampleRate(), 22050);
    EXPECT_EQ(result.channelLayout(), mono);
    EXPECT_EQ(result.sampleFormat(), AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(result.readableSamples(), result.numberOfSamples());
}

TEST(ResamplerTest, FirstCallHoldsBackHalfTheFilter) {
    Resampler resampler;
    const std::uint64_t samples = to48000(resampler, stereoSine(1024)).numberOfSamples();
    EXPECT_LE(samples, 1115u);
    EXPECT_EQ(samples, 1098u);
}

TEST(ResamplerTest, SecondCallStartsWithWhatTheFirstHeldBack) {
    const Samples stream = sine(2048, 44100);
    Resampler resampler;
    Samples samples = samplesOf(
        to48000(resampler, bufferOf(Samples(stream.begin(), stream.begin() + 2048), stereo, 44100)));
    const AudioBuffer second =
        to48000(resampler, bufferOf(Samples(stream.begin() + 2048, stream.end()), stereo, 44100));
    EXPECT_GE(second.numberOfSamples(), 1114u);
    EXPECT_LE(second.numberOfSamples(), 1115u);
    append(samples, second);
    Resampler atOnce;
    EXPECT_EQ(samples, samplesOf(to48000(atOnce, bufferOf(stream, stereo, 44100))));
}

TEST(ResamplerTest, InputIsNotChanged) {
    Resampler resampler;
    const AudioBuffer input = stereoSine(1024);
    to48000(resampler, input);
    EXPECT_EQ(samplesOf(input), sine(1024, 44100));
    EXPECT_EQ(input.sampleRate(), 44100);
}

TEST(ResamplerTest, DelayIsZeroBeforeAnyCall) {
    const Resampler resampler;
    EXPECT_EQ(resampler.getDelay(), Timestamp(0));
    EXPECT_FALSE(resampler.getDelay().is_nil());
}

TEST(ResamplerTest, DelayIsWhatIsInsideInMicroseconds) {
    Resampler resampler;
    to48000(resampler, stereoSine(1024));
    EXPECT_EQ(resampler.getDelay().timeBase(), (Timebase{1, 1000000}));
    // Between 15 and 16 samples at 44100 Hz.
    EXPECT_GE(resampler.getDelay().value(), 340);
    EXPECT_LE(resampler.getDelay().value(), 363);
}

TEST(ResamplerTest, NothingIsHeldBackWithoutAChangeOfRate) {
    Resampler resampler;
    EXPECT_EQ(resampler.resample(stereoSine(1000), 44100, mono, AV_SAMPLE_FMT_FLT).numberOfSamples(), 1000u);
    EXPECT_EQ(resampler.getDelay(), Timestamp(0));
}

class ResamplerPieceTest : public testing::TestWithParam<std::size_t> {};

TEST_P(ResamplerPieceTest, SineInPiecesIsTheSineAtOnce) {
    const Samples stream = sine(3 * 4096 + 17, 44100);
    const Samples expected = resampledAtOnce(stream);
    Resampler resampler;
    const Fed fed = feed(resampler, stream, GetParam());
    EXPECT_EQ(fed.samples, expected);
    if (GetParam() >= 64) {
        EXPECT_EQ(fed.callsWithoutSamples, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Of, ResamplerPieceTest,
                         testing::Values(1, 2, 7, 33, 64, 65, 100, 128, 441, 512, 1000, 1023, 1024, 2048,
                                         4096));

TEST(ResamplerTest, ResampledSineIsASine) {
    const Samples resampled = resampledAtOnce(sine(44100, 44100));
    const Samples expected = sine(48000, 48000);
    ASSERT_EQ(resampled.size(), expected.size());
    // The ends are less exact, since the filter reaches beyond them.
    for (std::size_t i = 200; i + 200 < expected.size(); ++i) ASSERT_NEAR(resampled[i], expected[i], 60) << i;
}

TEST(ResamplerTest, CallWithoutOutputThrows) {
    Resampler resampler;
    EXPECT_THAT([&] { to48000(resampler, stereoSine(1)); },
                ThrowsMessage<std::runtime_error>(StrEq(stereoGaveNothing)));
}

TEST(ResamplerTest, SingleSamplesThrowAtTimesAndLoseNothing) {
    const Samples stream = sine(500, 44100);
    Resampler resampler;
    const Fed fed = feed(resampler, stream, 1);
    EXPECT_GT(fed.callsWithoutSamples, 0);
    EXPECT_LT(fed.callsWithoutSamples, 100);
    EXPECT_EQ(fed.samples, resampledAtOnce(stream));
}

TEST(ResamplerTest, BufferWithoutSamplesThrowsBeforeAnyOther) {
    Resampler resampler;
    EXPECT_THAT([&] { to48000(resampler, bufferOf({}, stereo, 44100)); },
                ThrowsMessage<std::runtime_error>(StrEq(stereoGaveNothing)));
    EXPECT_EQ(resampler.getDelay(), Timestamp(0));
}

TEST(ResamplerTest, BufferWithoutSamplesInAStreamThrowsAndLosesNothing) {
    Resampler resampler;
    Resampler undisturbed;
    EXPECT_EQ(samplesOf(to48000(resampler, stereoSine(1024))),
              samplesOf(to48000(undisturbed, stereoSine(1024))));
    EXPECT_THAT([&] { to48000(resampler, bufferOf({}, stereo, 44100)); },
                ThrowsMessage<std::runtime_error>(StrEq(stereoGaveNothing)));
    EXPECT_EQ(samplesOf(to48000(resampler, stereoSine(1024))),
              samplesOf(to48000(undisturbed, stereoSine(1024))));
    EXPECT_EQ(samplesOf(resampler.flush()), samplesOf(undisturbed.flush()));
}

TEST(ResamplerTest, BufferThatWasMovedFromThrowsAndLosesNothing) {
    AudioBuffer planar(AV_CH_LAYOUT_7POINT1, AV_SAMPLE_FMT_S16P);
    planar.setSampleRate(44100);
    planar.resize(1024);
    for (std::uint8_t* plane : planar.getPointersToPlanes()) std::memset(plane, 1, 2048);
    Resampler resampler;
    const AudioBuffer first = to48000(resampler, planar);
    const AudioBuffer moved = std::move(planar);
    // NOLINTNEXTLINE(bugprone-use-after-move): that is the point
    EXPECT_THAT([&] { to48000(resampler, planar); },
                ThrowsMessage<std::runtime_error>(StrEq(stereoGaveNothing)));
    Resampler undisturbed;
    EXPECT_EQ(samplesOf(to48000(undisturbed, moved)), samplesOf(first));
    EXPECT_EQ(samplesOf(to48000(resampler, moved)), samplesOf(to48000(undisturbed, moved)));
}

TEST(ResamplerTest, CountThatThePlanesDoNotHoldIsClamped) {
    AudioBuffer input = stereoSine(500);
    EXPECT_THROW(input.resize(INT_MAX), std::runtime_error);  // stores the count all the same
    ASSERT_EQ(input.numberOfSamples(), static_cast<std::uint64_t>(INT_MAX));
    Resampler resampler;
    Resampler expected;
    EXPECT_EQ(samplesOf(to48000(resampler, input)), samplesOf(to48000(expected, stereoSine(500))));
    EXPECT_EQ(samplesOf(resampler.flush()), samplesOf(expected.flush()));
}

TEST(ResamplerTest, CountOfACopyWhosePlanesWereShrunkIsClamped) {
    const AudioBuffer input = stereoSine(1000);
    AudioBuffer sharing = input;
    sharing.resize(500);
    ASSERT_EQ(input.numberOfSamples(), 1000u);
    Resampler resampler;
    Resampler expected;
    EXPECT_EQ(samplesOf(to48000(resampler, input)), samplesOf(to48000(expected, stereoSine(500))));
    EXPECT_EQ(samplesOf(resampler.flush()), samplesOf(expected.flush()));
}

/// A call with 1024 samples.
struct Call {
    const char* what;
    int inRate = 44100;
    std::uint64_t inLayout = stereo;
    AVSampleFormat inFormat = s16;
    int outRate = 48000;
    std::uint64_t outLayout = stereo;
    AVSampleFormat outFormat = s16;

    AudioBuffer operator()(Resampler& resampler) const {
        AudioBuffer input(inLayout, inFormat);
        input.setSampleRate(inRate);
        input.resize(1024);
        unsigned value = 0;
        const std::vector<std::uint8_t*> planes = input.getPointersToPlanes();
        const std::size_t bytes = input.getNeededBufferSize(1024) / planes.size();
        for (std::uint8_t* plane : planes) {
            for (std::size_t i = 0; i < bytes; ++i) plane[i] = static_cast<std::uint8_t>(value++ * 7 % 64);
        }
        return resampler.resample(input, outRate, outLayout, outFormat);
    }
};

void PrintTo(const Call& call, std::ostream* out) {
    *out << call.what;
}

class ResamplerChangeTest : public testing::TestWithParam<Call> {};

TEST_P(ResamplerChangeTest, StartsAfresh) {
    Resampler resampler;
    Call{"same"}(resampler);
    const AudioBuffer changed = GetParam()(resampler);
    Resampler fresh;
    const AudioBuffer expected = GetParam()(fresh);
    ASSERT_EQ(changed.debugDescription(), expected.debugDescription());
    const std::size_t bytes =
        expected.getNeededBufferSize(expected.numberOfSamples()) / expected.getPointersToPlanes().size();
    EXPECT_EQ(std::memcmp(changed.getPointersToPlanes()[0], expected.getPointersToPlanes()[0], bytes), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, ResamplerChangeTest,
                         testing::Values(Call{"InputRate", 32000}, Call{"InputLayout", 44100, mono},
                                         Call{"InputFormat", 44100, stereo, AV_SAMPLE_FMT_S16P},
                                         Call{"OutputRate", 44100, stereo, s16, 32000},
                                         Call{"OutputLayout", 44100, stereo, s16, 48000, mono},
                                         Call{"OutputFormat", 44100, stereo, s16, 48000, stereo,
                                              AV_SAMPLE_FMT_S32P}),
                         [](const auto& tested) { return std::string(tested.param.what); });

struct Impossible {
    Call call;
    std::string text;
};

void PrintTo(const Impossible& impossible, std::ostream* out) {
    *out << impossible.call.what;
}

class ResamplerImpossibleTest : public testing::TestWithParam<Impossible> {};

TEST_P(ResamplerImpossibleTest, ThrowsAndTheResamplerStaysUsable) {
    Resampler resampler;
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT([&] { GetParam().call(resampler); },
                    ThrowsMessage<std::runtime_error>(StrEq(GetParam().text)));
        EXPECT_EQ(resampler.getDelay(), Timestamp(0));
    }
    resampler.setCompensation(10, 1000);
    EXPECT_TRUE(resampler.flush().empty());
    EXPECT_EQ(Call{"possible"}(resampler).numberOfSamples(), 1098u);
}

TEST_P(ResamplerImpossibleTest, ThrowsInTheMiddleOfAStream) {
    Resampler resampler;
    Call{"possible"}(resampler);
    EXPECT_THAT([&] { GetParam().call(resampler); },
                ThrowsMessage<std::runtime_error>(StrEq(GetParam().text)));
    EXPECT_GE(Call{"possible"}(resampler).numberOfSamples(), 1098u);
}

INSTANTIATE_TEST_SUITE_P(
    Of, ResamplerImpossibleTest,
    testing::Values(
        Impossible{{"InputRateZero", 0}, stereoGaveNothing},
        Impossible{{"InputRateNegative", -44100}, stereoGaveNothing},
        Impossible{{"InputRateLowest", INT_MIN}, stereoGaveNothing},
        Impossible{{"OutputRateZero", 44100, stereo, s16, 0}, stereoGaveNothing},
        Impossible{{"OutputRateNegative", 44100, stereo, s16, -48000}, stereoGaveNothing},
        Impossible{{"BothRatesZero", 0, stereo, s16, 0}, stereoGaveNothing},
        Impossible{{"NoOutputLayout", 44100, stereo, s16, 48000, 0},
                   "Could not get buffer size for audio layout 0, sample format 1, samples 1115"},
        Impossible{{"NoOutputFormat", 44100, stereo, s16, 48000, stereo, AV_SAMPLE_FMT_NONE},
                   "Could not get buffer size for audio layout 3, sample format -1, samples 1115"},
        // libswresample mixes no layouts without front channels, and its error code ends up as the count.
        Impossible{{"LayoutsThatDoNotMix", 44100, AV_CH_BACK_LEFT | AV_CH_BACK_RIGHT},
                   "Could not get buffer size for audio layout 3, sample format 1, samples " +
                       std::to_string(static_cast<std::uint64_t>(AVERROR(EINVAL)))}),
    [](const auto& tested) { return std::string(tested.param.call.what); });

TEST(ResamplerTest, BadRateInAStreamLosesNothing) {
    Resampler resampler;
    Resampler undisturbed;
    to48000(resampler, stereoSine(1024));
    to48000(undisturbed, stereoSine(1024));
    EXPECT_THROW(to48000(resampler, stereoSine(1024, 0)), std::runtime_error);
    EXPECT_EQ(samplesOf(to48000(resampler, stereoSine(1024))),
              samplesOf(to48000(undisturbed, stereoSine(1024))));
}

TEST(ResamplerTest, DefaultBufferThrows) {
    Resampler resampler;
    EXPECT_THAT([&] { to48000(resampler, AudioBuffer()); },
                ThrowsMessage<std::runtime_error>(StrEq(stereoGaveNothing)));
    EXPECT_THAT([&] { resampler.remap(AudioBuffer()); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("Could not get buffer size for audio layout 0, sample format -1, samples 0")));
}

TEST(ResamplerFlushTest, IsEmptyBeforeAnyCall) {
    Resampler resampler;
    EXPECT_TRUE(resampler.flush().empty());
}

TEST(ResamplerFlushTest, HasTheParametersOfTheOutput) {
    Resampler resampler;
    resampler.resample(stereoSine(1024), 48000, mono, AV_SAMPLE_FMT_FLTP);
    const AudioBuffer rest = resampler.flush();
    EXPECT_EQ(rest.sampleRate(), 48000);
    EXPECT_EQ(rest.channelLayout(), mono);
    EXPECT_EQ(rest.sampleFormat(), AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(rest.readableSamples(), rest.numberOfSamples());
}

TEST(ResamplerFlushTest, IsEmptyAfterAFlush) {
    Resampler resampler;
    to48000(resampler, stereoSine(1024));
    EXPECT_FALSE(resampler.flush().empty());
    EXPECT_EQ(resampler.getDelay(), Timestamp(0));
    EXPECT_TRUE(resampler.flush().empty());
}

TEST(ResamplerFlushTest, IsEmptyWhenNothingIsHeldBack) {
    Resampler resampler;
    resampler.remap(stereoSine(1024));
    EXPECT_TRUE(resampler.flush().empty());
}

TEST(ResamplerFlushTest, SamplesAddUpToTheRatioOfTheRates) {
    for (const std::size_t count : {33U, 64U, 441U, 1000U, 1024U, 44100U}) {
        const double expected = static_cast<double>(count) * 48000 / 44100;
        EXPECT_NEAR(static_cast<double>(resampledAtOnce(sine(count, 44100)).size()) / 2, expected, 1)
            << count;
    }
}

TEST(ResamplerFlushTest, ReachesTheEndForEveryRatioOfRates) {
    for (const auto& [inRate, outRate] :
         {std::pair{1, 48000}, std::pair{100, 192000}, std::pair{8000, 192000}, std::pair{192000, 8000}}) {
        Resampler resampler;
        std::uint64_t total = 0;
        for (int i = 0; i < 4; ++i) {
            total += resampler.resample(bufferOf(sine(1000, inRate, 1), mono, inRate), outRate, mono, s16)
                         .numberOfSamples();
        }
        total += resampler.flush().numberOfSamples();
        EXPECT_NEAR(static_cast<double>(total), 4000.0 * outRate / inRate, 1) << inRate << " to " << outRate;
    }
}

TEST(ResamplerFlushTest, GivesAlsoLessThanAFilterLength) {
    for (std::size_t count = 1; count <= 40; ++count) {
        Resampler inPieces;
        const Samples stream = sine(count, 44100);
        const Fed fed = feed(inPieces, stream, 1);
        EXPECT_NEAR(static_cast<double>(fed.samples.size()) / 2, static_cast<double>(count) * 48000 / 44100,
                    1)
            << count;
    }
}

TEST(ResamplerFlushTest, LessThanAFilterLengthKeepsItsValues) {
    Resampler resampler;
    EXPECT_THROW(to48000(resampler, bufferOf(Samples(40, 8000), stereo, 44100)), std::runtime_error);
    const Samples samples = samplesOf(resampler.flush());
    ASSERT_EQ(samples.size(), 44u);
    // Towards the end the silence beyond it makes itself felt.
    for (std::size_t i = 0; i < 20; ++i) EXPECT_NEAR(samples[i], 8000, 1600) << i;
}

TEST(ResamplerFlushTest, GivesLessThanAFilterLengthOfAHighRate) {
    Resampler resampler;
    const AudioBuffer input = bufferOf(sine(2000, 192000, 1), mono, 192000);
    EXPECT_THROW(resampler.resample(input, 100, mono, s16), std::runtime_error);
    EXPECT_NEAR(static_cast<double>(resampler.flush().numberOfSamples()), 2000.0 * 100 / 192000, 0.5);
}

TEST(ResamplerFlushTest, NextCallStartsAfresh) {
    Resampler resampler;
    to48000(resampler, stereoSine(1024));
    resampler.flush();
    Resampler fresh;
    EXPECT_EQ(samplesOf(to48000(resampler, stereoSine(2000))), samplesOf(to48000(fresh, stereoSine(2000))));
    EXPECT_EQ(samplesOf(resampler.flush()), samplesOf(fresh.flush()));
}

TEST(ResamplerFlushTest, IsEmptyAfterTheMapIsSet) {
    Resampler resampler;
    to48000(resampler, stereoSine(1024));
    resampler.setChannelMapping("FR|FL");
    EXPECT_TRUE(resampler.flush().empty());
}

/// Samples of 16 buffers of 1024, after a first one that is followed by `setCompensation`.
std::int64_t samplesWithCompensation(int delta, int distance, int outRate = 48000) {
    Resampler resampler;
    const AudioBuffer input = stereoSine(1024);
    std::uint64_t total = resampler.resample(input, outRate, stereo, s16).numberOfSamples();
    resampler.setCompensation(delta, distance);
    for (int i = 0; i < 16; ++i) total += resampler.resample(input, outRate, stereo, s16).numberOfSamples();
    return static_cast<std::int64_t>(total + resampler.flush().numberOfSamples());
}

TEST(ResamplerCompensationTest, AddsSamples) {
    const std::int64_t plain = samplesWithCompensation(0, 0);
    EXPECT_NEAR(static_cast<double>(samplesWithCompensation(10, 1000) - plain), 10, 1);
    EXPECT_NEAR(static_cast<double>(samplesWithCompensation(200, 10000) - plain), 200, 1);
}

TEST(ResamplerCompensationTest, DropsSamples) {
    const std::int64_t plain = samplesWithCompensation(0, 0);
    EXPECT_NEAR(static_cast<double>(samplesWithCompensation(-10, 1000) - plain), -10, 1);
    EXPECT_NEAR(static_cast<double>(samplesWithCompensation(-200, 10000) - plain), -200, 1);
}

TEST(ResamplerCompensationTest, WorksWithoutAChangeOfRate) {
    const std::int64_t plain = samplesWithCompensation(0, 0, 44100);
    EXPECT_EQ(plain, 17 * 1024);
    EXPECT_NEAR(static_cast<double>(samplesWithCompensation(10, 1000, 44100) - plain), 10, 1);
    EXPECT_NEAR(static_cast<double>(samplesWithCompensation(-10, 1000, 44100) - plain), -10, 1);
}

TEST(ResamplerCompensationTest, LeavesTheMapAlone) {
    Resampler resampler;
    resampler.setChannelMapping("FR|XX");
    resampler.remap(stereoSine(1024));
    resampler.setCompensation(10, 1000);
    const Samples samples = samplesOf(resampler.remap(bufferOf(Samples(4096, 5000), stereo, 44100)));
    ASSERT_GT(samples.size(), 3000u);
    for (std::size_t i = 1000; i < 3000; i += 2) {
        ASSERT_NEAR(samples[i], 5000, 100) << i;
        ASSERT_EQ(samples[i + 1], 0) << i;
    }
}

TEST(ResamplerCompensationTest, DoesNothingBeforeTheFirstCall) {
    Resampler resampler;
    resampler.setCompensation(100, 1000);
    Resampler plain;
    EXPECT_EQ(samplesOf(to48000(resampler, stereoSine(4096))), samplesOf(to48000(plain, stereoSine(4096))));
    EXPECT_EQ(samplesOf(resampler.flush()), samplesOf(plain.flush()));
}

TEST(ResamplerCompensationTest, IsIgnoredWhenItAsksForMoreThanTheDistance) {
    const std::int64_t plain = samplesWithCompensation(0, 0);
    for (const auto& [delta, distance] :
         {std::pair{1000, 1000}, std::pair{2000, 1000}, std::pair{-1001, 1000}, std::pair{1, 1},
          std::pair{INT_MAX, 1}, std::pair{INT_MIN, 1}, std::pair{INT_MIN + 1, 1},
          std::pair{INT_MAX, INT_MAX}, std::pair{INT_MIN, INT_MAX}, std::pair{10, 0}, std::pair{10, -1000},
          std::pair{INT_MIN, INT_MIN}}) {
        EXPECT_EQ(samplesWithCompensation(delta, distance), plain) << delta << " over " << distance;
    }
}

TEST(ResamplerCompensationTest, SqueezesToHalfAtMost) {
    EXPECT_NEAR(static_cast<double>(samplesWithCompensation(-1000, 1000) - samplesWithCompensation(0, 0)),
                -1000, 2);
}

}  // namespace
}  // namespace kvffmpeg
