// The resampler over sample formats, rates and layouts, and with channel maps.

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "kvffmpeg/audio_resampler.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

namespace kvffmpeg {
namespace {

using testing::StrEq;
using testing::ThrowsMessage;

constexpr AVSampleFormat formats[] = {AV_SAMPLE_FMT_U8,   AV_SAMPLE_FMT_S16,  AV_SAMPLE_FMT_S32,
                                      AV_SAMPLE_FMT_S64,  AV_SAMPLE_FMT_FLT,  AV_SAMPLE_FMT_DBL,
                                      AV_SAMPLE_FMT_U8P,  AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_S32P,
                                      AV_SAMPLE_FMT_S64P, AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_DBLP};
constexpr std::uint64_t layouts[] = {AV_CH_LAYOUT_MONO, AV_CH_LAYOUT_STEREO, AV_CH_LAYOUT_5POINT1,
                                     AV_CH_LAYOUT_7POINT1};
constexpr int rates[] = {8000, 22050, 44100, 48000, 96000};

std::string nameOf(AVSampleFormat format) {
    return av_get_sample_fmt_name(format);
}

/// -1 ... 1 as a sample of an integer type.
template <typename T>
void store(std::uint8_t* at, double value) {
    T sample{};
    if (std::numeric_limits<T>::is_integer) {
        sample = static_cast<T>(std::ldexp(value, static_cast<int>(sizeof(T) * 8 - 1)));
    } else {
        sample = static_cast<T>(value);
    }
    std::memcpy(at, &sample, sizeof sample);
}

template <typename T>
double load(const std::uint8_t* at) {
    T sample{};
    std::memcpy(&sample, at, sizeof sample);
    const auto value = static_cast<double>(sample);
    return std::numeric_limits<T>::is_integer ? std::ldexp(value, 1 - static_cast<int>(sizeof(T) * 8))
                                              : value;
}

/// Where the samples of one channel are.
template <typename Byte>
struct Strided {
    Byte* first;
    std::size_t step;
    Byte* operator[](std::size_t index) const { return first + index * step; }
};

template <typename Buffer>
auto stridedChannel(Buffer& buffer, std::size_t channel) {
    const auto planes = buffer.getPointersToPlanes();
    const auto size = static_cast<std::size_t>(av_get_bytes_per_sample(buffer.sampleFormat()));
    using Byte = std::remove_pointer_t<typename decltype(buffer.getPointersToPlanes())::value_type>;
    if (planes.size() > 1) return Strided<Byte>{planes[channel], size};
    return Strided<Byte>{planes[0] + channel * size,
                         size * static_cast<std::size_t>(buffer.numberOfChannels())};
}

/// Fills a buffer with `wave(channel, index)`, of -1 ... 1.
template <typename Wave>
AudioBuffer filled(std::uint64_t layout, AVSampleFormat format, int rate, std::size_t samples, Wave wave) {
    AudioBuffer buffer(layout, format);
    buffer.setSampleRate(rate);
    buffer.resize(samples);
    for (std::size_t c = 0; c < static_cast<std::size_t>(buffer.numberOfChannels()); ++c) {
        const auto channel = stridedChannel(buffer, c);
        for (std::size_t i = 0; i < samples; ++i) {
            std::uint8_t* at = channel[i];
            const double value = wave(c, i);
            switch (av_get_packed_sample_fmt(format)) {
                case AV_SAMPLE_FMT_U8:
                    *at = static_cast<std::uint8_t>(128 + std::lround(value * 127));
                    break;
                case AV_SAMPLE_FMT_S16:
                    store<std::int16_t>(at, value);
                    break;
                case AV_SAMPLE_FMT_S32:
                    store<std::int32_t>(at, value);
                    break;
                case AV_SAMPLE_FMT_S64:
                    store<std::int64_t>(at, value);
                    break;
                case AV_SAMPLE_FMT_FLT:
                    store<float>(at, value);
                    break;
                default:
                    store<double>(at, value);
                    break;
            }
        }
    }
    return buffer;
}

/// The samples of one channel, as -1 ... 1, appended.
void appendChannel(std::vector<double>& to, const AudioBuffer& buffer, std::size_t channel) {
    const auto count = static_cast<std::size_t>(buffer.readableSamples());
    if (count == 0) return;
    const auto samples = stridedChannel(buffer, channel);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t* at = samples[i];
        switch (av_get_packed_sample_fmt(buffer.sampleFormat())) {
            case AV_SAMPLE_FMT_U8:
                to.push_back((*at - 128) / 127.0);
                break;
            case AV_SAMPLE_FMT_S16:
                to.push_back(load<std::int16_t>(at));
                break;
            case AV_SAMPLE_FMT_S32:
                to.push_back(load<std::int32_t>(at));
                break;
            case AV_SAMPLE_FMT_S64:
                to.push_back(load<std::int64_t>(at));
                break;
            case AV_SAMPLE_FMT_FLT:
                to.push_back(load<float>(at));
                break;
            default:
                to.push_back(load<double>(at));
                break;
        }
    }
}

std::vector<double> channelOf(const AudioBuffer& buffer, std::size_t channel) {
    std::vector<double> values;
    appendChannel(values, buffer, channel);
    return values;
}

/// All bytes, plane after plane.
std::vector<std::uint8_t> bytesOf(const AudioBuffer& buffer) {
    const auto planes = buffer.getPointersToPlanes();
    const std::size_t perPlane = buffer.getNeededBufferSize(buffer.readableSamples()) / planes.size();
    std::vector<std::uint8_t> bytes;
    for (const std::uint8_t* plane : planes) bytes.insert(bytes.end(), plane, plane + perPlane);
    return bytes;
}

constexpr double amplitude = 0.5;

AudioBuffer tone(std::uint64_t layout, AVSampleFormat format, int rate, std::size_t samples,
                 std::size_t start = 0) {
    std::vector<double> values;
    for (std::size_t i = 0; i < samples; ++i)
        values.push_back(amplitude * std::sin(2 * M_PI * 1000 * static_cast<double>(start + i) / rate));
    return filled(layout, format, rate, samples,
                  [&](std::size_t /*channel*/, std::size_t i) { return values[i]; });
}

/// Root of the mean square of the middle half.
double energy(const std::vector<double>& values) {
    const std::size_t begin = values.size() / 4;
    const std::size_t end = values.size() - begin;
    double sum = 0;
    for (std::size_t i = begin; i < end; ++i) sum += values[i] * values[i];
    return std::sqrt(sum / static_cast<double>(end - begin));
}

struct Conversion {
    int inRate;
    std::uint64_t inLayout;
    AVSampleFormat inFormat;
    int outRate;
    std::uint64_t outLayout;
    AVSampleFormat outFormat;

    std::string name() const {
        return std::to_string(inRate) + " Hz, " +
               std::to_string(AudioBuffer(inLayout, inFormat).numberOfChannels()) + " channels, " +
               nameOf(inFormat) + " to " + std::to_string(outRate) + " Hz, " +
               std::to_string(AudioBuffer(outLayout, outFormat).numberOfChannels()) + " channels, " +
               nameOf(outFormat);
    }
};

/// Resamples 40 ms of a tone in two calls and a flush, checks the sizes on the way, and returns
/// the energy of every output channel.
std::vector<double> energiesOf(const Conversion& conversion) {
    const auto& [inRate, inLayout, inFormat, outRate, outLayout, outFormat] = conversion;
    const auto samples = static_cast<std::size_t>(inRate / 50);
    Resampler resampler;
    std::vector<std::vector<double>> channels(
        static_cast<std::size_t>(AudioBuffer(outLayout, outFormat).numberOfChannels()));
    std::uint64_t total = 0;
    const auto take = [&](const AudioBuffer& output) {
        total += output.numberOfSamples();
        for (std::size_t c = 0; c < channels.size(); ++c) appendChannel(channels[c], output, c);
    };
    for (std::size_t call = 0; call < 2; ++call) {
        // What is inside, in input samples, rounded up.
        const std::int64_t inside =
            call == 0 ? 0 : av_rescale_rnd(resampler.getDelay().value() + 1, inRate, 1000000, AV_ROUND_UP);
        const AudioBuffer output = resampler.resample(
            tone(inLayout, inFormat, inRate, samples, call * samples), outRate, outLayout, outFormat);
        EXPECT_EQ(output.sampleRate(), outRate);
        EXPECT_EQ(output.channelLayout(), outLayout);
        EXPECT_EQ(output.sampleFormat(), outFormat);
        EXPECT_EQ(output.readableSamples(), output.numberOfSamples());
        EXPECT_LE(static_cast<std::int64_t>(output.numberOfSamples()),
                  av_rescale_rnd(inside + static_cast<std::int64_t>(samples), outRate, inRate, AV_ROUND_UP));
        take(output);
    }
    take(resampler.flush());
    EXPECT_NEAR(static_cast<double>(total), 2.0 * static_cast<double>(samples) * outRate / inRate, 1);
    std::vector<double> energies;
    for (const std::vector<double>& channel : channels) energies.push_back(energy(channel));
    return energies;
}

class RatePairTest : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(RatePairTest, KeepsLengthAndEnergyInEveryFormatAndLayout) {
    for (const AVSampleFormat format : formats) {
        for (const std::uint64_t layout : layouts) {
            const Conversion conversion{std::get<0>(GetParam()), layout, format,
                                        std::get<1>(GetParam()), layout, format};
            SCOPED_TRACE(conversion.name());
            EXPECT_THAT(energiesOf(conversion),
                        testing::Each(testing::DoubleNear(amplitude * M_SQRT1_2, 0.01)));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, RatePairTest,
                         testing::Combine(testing::ValuesIn(rates), testing::ValuesIn(rates)),
                         [](const auto& tested) {
                             return std::to_string(std::get<0>(tested.param)) + "To" +
                                    std::to_string(std::get<1>(tested.param));
                         });

class SampleFormatTest : public testing::TestWithParam<AVSampleFormat> {
protected:
    /// Channel c carries steps of (c + 1) / 32.
    static AudioBuffer steps(std::uint64_t layout, std::size_t samples = 100) {
        return filled(layout, GetParam(), 48000, samples, [](std::size_t channel, std::size_t i) {
            return static_cast<double>(channel + 1) / 32 * (static_cast<double>(i % 5) - 2) / 2;
        });
    }
};

TEST_P(SampleFormatTest, ConvertsToEveryFormatInEveryLayout) {
    for (const AVSampleFormat outFormat : formats) {
        for (const std::uint64_t layout : layouts) {
            for (const int outRate : {44100, 48000}) {
                const Conversion conversion{44100, layout, GetParam(), outRate, layout, outFormat};
                SCOPED_TRACE(conversion.name());
                EXPECT_THAT(energiesOf(conversion),
                            testing::Each(testing::DoubleNear(amplitude * M_SQRT1_2, 0.01)));
            }
        }
    }
}

TEST_P(SampleFormatTest, MixesEveryLayoutToEveryOther) {
    for (const std::uint64_t inLayout : layouts) {
        for (const std::uint64_t outLayout : layouts) {
            const Conversion conversion{44100, inLayout, GetParam(), 48000, outLayout, GetParam()};
            SCOPED_TRACE(conversion.name());
            const std::vector<double> energies = energiesOf(conversion);
            // Channels that the input has nothing for stay silent, and no input channel counts for more than
            // itself.
            const int inChannels = AudioBuffer(inLayout, GetParam()).numberOfChannels();
            EXPECT_THAT(energies, testing::Each(testing::Le(inChannels * amplitude * M_SQRT1_2 + 0.01)));
            EXPECT_THAT(energies, testing::Contains(testing::Ge(0.4 * amplitude)));
        }
    }
}

TEST_P(SampleFormatTest, RemapWithoutAMapIsTheIdentity) {
    for (const std::uint64_t layout : layouts) {
        Resampler resampler;
        const AudioBuffer input = tone(layout, GetParam(), 48000, 1000);
        const AudioBuffer output = resampler.remap(input);
        EXPECT_TRUE(output.isCompatibleWithBuffer(input));
        EXPECT_EQ(bytesOf(output), bytesOf(input)) << input;
    }
}

TEST_P(SampleFormatTest, MapSwapsChannels) {
    Resampler resampler;
    resampler.setChannelMapping("FR|FL");
    const AudioBuffer input = steps(AV_CH_LAYOUT_STEREO);
    const AudioBuffer output = resampler.remap(input);
    EXPECT_TRUE(output.isCompatibleWithBuffer(input));
    EXPECT_EQ(channelOf(output, 0), channelOf(input, 1));
    EXPECT_EQ(channelOf(output, 1), channelOf(input, 0));
}

TEST_P(SampleFormatTest, MapSilencesChannels) {
    Resampler resampler;
    resampler.setChannelMapping("XX|FR");
    const AudioBuffer input = steps(AV_CH_LAYOUT_STEREO);
    const AudioBuffer output = resampler.remap(input);
    EXPECT_EQ(channelOf(output, 0), std::vector<double>(100));
    EXPECT_EQ(channelOf(output, 1), channelOf(input, 1));
}

TEST_P(SampleFormatTest, SixteenChannelsKeepTheirPlaces) {
    constexpr std::uint64_t sixteen = 0xffff;
    const AudioBuffer input = steps(sixteen, 333);
    ASSERT_EQ(input.numberOfChannels(), 16);
    Resampler resampler;
    EXPECT_EQ(bytesOf(resampler.remap(input)), bytesOf(input));
}

TEST_P(SampleFormatTest, SixteenChannelsAreResampledEachOnItsOwn) {
    constexpr std::uint64_t sixteen = 0xffff;
    EXPECT_THAT(energiesOf({44100, sixteen, GetParam(), 48000, sixteen, GetParam()}),
                testing::Each(testing::DoubleNear(amplitude * M_SQRT1_2, 0.01)));
}

TEST_P(SampleFormatTest, MapOfEightNamesSilencesFurtherChannels) {
    constexpr std::uint64_t sixteen = 0xffff;
    Resampler resampler;
    resampler.setChannelMapping("SR|SL|BR|BL|LFE|FC|FR|FL");
    const AudioBuffer input = steps(sixteen);
    const AudioBuffer output = resampler.remap(input);
    ASSERT_EQ(output.numberOfSamples(), 100u);
    for (std::size_t c = 0; c < 8; ++c) EXPECT_EQ(channelOf(output, c), channelOf(input, 7 - c)) << c;
    for (std::size_t c = 8; c < 16; ++c) EXPECT_EQ(channelOf(output, c), std::vector<double>(100)) << c;
}

INSTANTIATE_TEST_SUITE_P(All, SampleFormatTest, testing::ValuesIn(formats),
                         [](const auto& tested) { return nameOf(tested.param); });

/// Where the channels of the output of `remap` came from: the input's channel, -1 for silence, -2 for
/// anything else.
class ChannelMapTest : public testing::Test {
protected:
    static constexpr int silence = -1;

    static AudioBuffer levels(std::uint64_t layout) {
        return filled(layout, AV_SAMPLE_FMT_S16, 48000, 50, [](std::size_t channel, std::size_t) {
            return static_cast<double>(channel + 1) / 128;
        });
    }

    static std::vector<int> sources(const AudioBuffer& output) {
        std::vector<int> result;
        for (std::size_t c = 0; c < static_cast<std::size_t>(output.numberOfChannels()); ++c) {
            const std::vector<double> values = channelOf(output, c);
            const double first = values.at(0) * 128;
            const bool constant =
                std::all_of(values.begin(), values.end(), [&](double value) { return value * 128 == first; });
            const bool whole = first == std::floor(first);
            result.push_back(constant && whole && values.size() == 50 ? static_cast<int>(first) - 1 : -2);
        }
        return result;
    }

    std::vector<int> sourcesWith(const std::string& map, std::uint64_t layout) {
        resampler_.setChannelMapping(map);
        return sources(resampler_.remap(levels(layout)));
    }

    Resampler resampler_;
};

using Sources = std::vector<int>;

TEST_F(ChannelMapTest, IsTheIdentityWhenNoneIsSet) {
    EXPECT_EQ(sources(resampler_.remap(levels(AV_CH_LAYOUT_5POINT1))), (Sources{0, 1, 2, 3, 4, 5}));
}

TEST_F(ChannelMapTest, SwapsChannels) {
    EXPECT_EQ(sourcesWith("FR|FL", AV_CH_LAYOUT_STEREO), (Sources{1, 0}));
}

TEST_F(ChannelMapTest, KeepsChannels) {
    EXPECT_EQ(sourcesWith("FL|FR", AV_CH_LAYOUT_STEREO), (Sources{0, 1}));
}

TEST_F(ChannelMapTest, PicksOneChannelForSeveral) {
    EXPECT_EQ(sourcesWith("FL|FL", AV_CH_LAYOUT_STEREO), (Sources{0, 0}));
    EXPECT_EQ(sourcesWith("FR|FR", AV_CH_LAYOUT_STEREO), (Sources{1, 1}));
}

TEST_F(ChannelMapTest, NamesStandForPlacesInTheDefaultLayoutOfAsManyChannels) {
    EXPECT_EQ(sourcesWith("BR|BL|LFE|FC|FR|FL", AV_CH_LAYOUT_5POINT1_BACK), (Sources{5, 4, 3, 2, 1, 0}));
    // The default layout of three channels is 2.1, whatever the input has.
    EXPECT_EQ(sourcesWith("LFE|FL|FR", AV_CH_LAYOUT_SURROUND), (Sources{2, 0, 1}));
    EXPECT_EQ(sourcesWith("FC|FL|FR", AV_CH_LAYOUT_SURROUND), (Sources{silence, 0, 1}));
    EXPECT_EQ(sourcesWith("FL|SL", AV_CH_LAYOUT_STEREO), (Sources{0, silence}));
}

TEST_F(ChannelMapTest, EightNamesSucceed) {
    EXPECT_EQ(sourcesWith("SR|SL|BR|BL|LFE|FC|FR|FL", AV_CH_LAYOUT_7POINT1),
              (Sources{7, 6, 5, 4, 3, 2, 1, 0}));
}

TEST_F(ChannelMapTest, OneNameIsOfMono) {
    EXPECT_EQ(sourcesWith("FC", AV_CH_LAYOUT_MONO), Sources{0});
    EXPECT_EQ(sourcesWith("FC", AV_CH_LAYOUT_STEREO), (Sources{0, silence}));
    EXPECT_EQ(sourcesWith("mono", AV_CH_LAYOUT_MONO), Sources{0});
}

TEST_F(ChannelMapTest, LeftAloneSilences) {
    EXPECT_EQ(sourcesWith("FL", AV_CH_LAYOUT_MONO), Sources{silence});
    EXPECT_EQ(sourcesWith("FL", AV_CH_LAYOUT_STEREO), (Sources{silence, silence}));
}

TEST_F(ChannelMapTest, EmptyTextSilences) {
    EXPECT_EQ(sourcesWith("", AV_CH_LAYOUT_MONO), Sources{silence});
    EXPECT_EQ(sourcesWith("", AV_CH_LAYOUT_STEREO), (Sources{silence, silence}));
}

TEST_F(ChannelMapTest, UnknownNamesSilence) {
    EXPECT_EQ(sourcesWith("XX|YY", AV_CH_LAYOUT_STEREO), (Sources{silence, silence}));
    EXPECT_EQ(sourcesWith("XX|FL", AV_CH_LAYOUT_STEREO), (Sources{silence, 0}));
}

TEST_F(ChannelMapTest, NothingIsTrimmedNorFolded) {
    EXPECT_EQ(sourcesWith(" FL|fr", AV_CH_LAYOUT_STEREO), (Sources{silence, silence}));
}

TEST_F(ChannelMapTest, EmptyNamesCount) {
    EXPECT_EQ(sourcesWith("|FL", AV_CH_LAYOUT_STEREO), (Sources{silence, 0}));
    EXPECT_EQ(sourcesWith("FR|", AV_CH_LAYOUT_STEREO), (Sources{1, silence}));
    EXPECT_EQ(sourcesWith("FR||", AV_CH_LAYOUT_SURROUND), (Sources{1, silence, silence}));
}

TEST_F(ChannelMapTest, FewerNamesThanChannelsSilenceTheRest) {
    EXPECT_EQ(sourcesWith("FR|FL", AV_CH_LAYOUT_5POINT1),
              (Sources{1, 0, silence, silence, silence, silence}));
}

TEST_F(ChannelMapTest, PlacesThatTheInputDoesNotHaveAreSilent) {
    EXPECT_EQ(sourcesWith("FR|FL", AV_CH_LAYOUT_MONO), Sources{silence});
    EXPECT_EQ(sourcesWith("LFE|BR|FL|FR|FC|BL", AV_CH_LAYOUT_STEREO), (Sources{silence, silence}));
    EXPECT_EQ(sourcesWith("FR|SR|SL|BR|BL|FC|FL|LFE", AV_CH_LAYOUT_STEREO), (Sources{1, silence}));
}

TEST_F(ChannelMapTest, HoldsForEveryInputThatFollows) {
    EXPECT_EQ(sourcesWith("FR|FL", AV_CH_LAYOUT_STEREO), (Sources{1, 0}));
    EXPECT_EQ(sources(resampler_.remap(levels(AV_CH_LAYOUT_MONO))), Sources{silence});
    EXPECT_EQ(sources(resampler_.remap(levels(AV_CH_LAYOUT_STEREO))), (Sources{1, 0}));
    resampler_.flush();
    EXPECT_EQ(sources(resampler_.remap(levels(AV_CH_LAYOUT_STEREO))), (Sources{1, 0}));
}

TEST_F(ChannelMapTest, NewMapReplacesTheOld) {
    EXPECT_EQ(sourcesWith("FR|FR", AV_CH_LAYOUT_STEREO), (Sources{1, 1}));
    EXPECT_EQ(sourcesWith("FL|FL", AV_CH_LAYOUT_STEREO), (Sources{0, 0}));
    EXPECT_EQ(sourcesWith("FC", AV_CH_LAYOUT_STEREO), (Sources{0, silence}));
}

TEST_F(ChannelMapTest, NineNamesThrowAndLeaveNoMap) {
    EXPECT_EQ(sourcesWith("FR|FL", AV_CH_LAYOUT_STEREO), (Sources{1, 0}));
    for (const char* map : {"FL|FR|FC|LFE|BL|BR|SL|SR|BC", "||||||||", "FR|FL|||||||||||||||"}) {
        EXPECT_THAT([&] { resampler_.setChannelMapping(map); },
                    ThrowsMessage<std::runtime_error>(StrEq("Too many channels in channel map")));
        EXPECT_EQ(sources(resampler_.remap(levels(AV_CH_LAYOUT_STEREO))), (Sources{0, 1})) << map;
    }
}

TEST_F(ChannelMapTest, StartsAfreshAlsoWhenItThrows) {
    const AudioBuffer input = tone(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 44100, 1024);
    const auto resampled = [&] {
        return bytesOf(resampler_.resample(input, 48000, AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16));
    };
    const std::vector<std::uint8_t> first = resampled();
    EXPECT_GT(resampler_.getDelay(), Timestamp(0));
    EXPECT_THROW(resampler_.setChannelMapping("||||||||"), std::runtime_error);
    EXPECT_EQ(resampler_.getDelay(), Timestamp(0));
    EXPECT_EQ(resampled(), first);
    resampler_.setChannelMapping("FL|FR");
    EXPECT_EQ(resampler_.getDelay(), Timestamp(0));
}

TEST_F(ChannelMapTest, ActsBeforeTheMix) {
    resampler_.setChannelMapping("FR|XX");
    const AudioBuffer output =
        resampler_.resample(levels(AV_CH_LAYOUT_STEREO), 48000, AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_DBL);
    Resampler unmapped;
    const AudioBuffer silentRight = filled(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 48000, 50,
                                           [](std::size_t c, std::size_t) { return c == 0 ? 2.0 / 128 : 0; });
    EXPECT_EQ(channelOf(output, 0),
              channelOf(unmapped.resample(silentRight, 48000, AV_CH_LAYOUT_MONO, AV_SAMPLE_FMT_DBL), 0));
}

TEST_F(ChannelMapTest, ActsBeforeTheChangeOfRate) {
    resampler_.setChannelMapping("FR|FL");
    const auto wave = [](std::size_t c, std::size_t i) {
        return 0.5 * std::sin(static_cast<double>(i) / (c == 0 ? 7 : 11));
    };
    const auto swapped = [&](std::size_t c, std::size_t i) { return wave(1 - c, i); };
    Resampler unmapped;
    const auto output = resampler_.resample(filled(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 44100, 1024, wave),
                                            48000, AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16);
    EXPECT_EQ(bytesOf(output),
              bytesOf(unmapped.resample(filled(AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16, 44100, 1024, swapped),
                                        48000, AV_CH_LAYOUT_STEREO, AV_SAMPLE_FMT_S16)));
}

}  // namespace
}  // namespace kvffmpeg
