#include "kvffmpeg/ffdraw.h"

#include <gmock/gmock.h>
#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ffmpeg_compat.h"
#include "support/guard_page.h"

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/error.h>
}

namespace kvffmpeg {
namespace {

using test::GuardedEnd;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::StrEq;
using testing::ThrowsMessage;

FFDrawContext contextOf(AVPixelFormat format, unsigned flags = FF_DRAW_PROCESS_ALPHA) {
    FFDrawContext context;
    EXPECT_EQ(ff_draw_init(&context, format, flags), 0) << av_get_pix_fmt_name(format);
    return context;
}

FFDrawColor colorOf(const FFDrawContext& context, std::uint8_t r, std::uint8_t g, std::uint8_t b,
                    std::uint8_t a = 255) {
    const std::uint8_t rgba[4] = {r, g, b, a};
    FFDrawColor color;
    ff_draw_color(&context, &color, rgba);
    return color;
}

/// The pattern of a plane.
std::vector<int> pattern(const FFDrawContext& context, const FFDrawColor& color, int plane) {
    return {color.comp[plane].u8, color.comp[plane].u8 + context.pixelstep[plane]};
}

std::vector<AVPixelFormat> acceptedFormats() {
    std::vector<AVPixelFormat> formats;
    for (const AVPixFmtDescriptor* d = av_pix_fmt_desc_next(nullptr); d; d = av_pix_fmt_desc_next(d)) {
        FFDrawContext context;
        if (ff_draw_init(&context, av_pix_fmt_desc_get_id(d), 0) == 0) {
            formats.push_back(av_pix_fmt_desc_get_id(d));
        }
    }
    return formats;
}

std::vector<std::string> namesOf(const std::vector<AVPixelFormat>& formats) {
    std::vector<std::string> names;
    for (AVPixelFormat format : formats) names.emplace_back(av_get_pix_fmt_name(format));
    return names;
}

// ---- A plain model of what is drawn, sample by sample

int floorDiv(int value, int divisor) {
    return static_cast<int>(std::floor(static_cast<double>(value) / divisor));
}

/// The value of a component, with its bits where they are stored.
unsigned modelValue(const AVPixFmtDescriptor& format, int c, const std::uint8_t rgba[4], bool full) {
    const int r = rgba[0], g = rgba[1], b = rgba[2];
    const int y = full ? std::min(floorDiv(306 * r + 601 * g + 117 * b + 512, 1024), 255)
                       : floorDiv(263 * r + 516 * g + 100 * b + 512, 1024) + 16;
    const int u = full ? floorDiv(-173 * r - 339 * g + 512 * b + 511, 1024) + 128
                       : floorDiv(-152 * r - 298 * g + 450 * b + 511, 1024) + 128;
    const int v = full ? floorDiv(512 * r - 429 * g - 83 * b + 511, 1024) + 128
                       : floorDiv(450 * r - 377 * g - 73 * b + 511, 1024) + 128;
    const int yuva[4] = {y, u, v, rgba[3]};
    const int grayAlpha[2] = {y, rgba[3]};
    int value = yuva[c];
    if (format.nb_components <= 2) value = grayAlpha[c];
    if ((format.flags & AV_PIX_FMT_FLAG_RGB) != 0) value = rgba[c];
    const int depth = format.comp[c].depth;
    return static_cast<unsigned>(depth > 8 ? value << (depth - 8 + format.comp[c].shift) : value);
}

/// What a fill repeats in a plane.
std::vector<std::uint8_t> modelPattern(const FFDrawContext& context, int plane, const std::uint8_t rgba[4]) {
    const AVPixFmtDescriptor& format = *context.desc;
    const auto step = static_cast<std::size_t>(context.pixelstep[plane]);
    const bool fourBytesOfRgb =
        (format.flags & AV_PIX_FMT_FLAG_RGB) != 0 && format.nb_components == 3 && step == 4;
    std::vector<std::uint8_t> bytes(step, fourBytesOfRgb ? rgba[3] : std::uint8_t{0});
    for (int c = 0; c < format.nb_components; ++c) {
        if (format.comp[c].plane != plane) continue;
        const unsigned value = modelValue(format, c, rgba, context.full_range != 0);
        const auto offset = static_cast<std::size_t>(format.comp[c].offset);
        bytes.at(offset) = static_cast<std::uint8_t>(value);
        if (format.comp[c].depth > 8) bytes.at(offset + 1) = static_cast<std::uint8_t>(value >> 8);
    }
    return bytes;
}

/// Bytes that end, or begin, at a page that must not be touched.
class GuardedBytes {
public:
    GuardedBytes(std::size_t size, GuardedEnd end) : size_(size) {
        const std::size_t rounded = (size + 15) / 16 * 16;
        block_ = static_cast<std::uint8_t*>(test::allocateGuarded(rounded, end, 0));
        data_ = end == GuardedEnd::front ? block_ - 16 : block_ + (rounded - size);
    }
    ~GuardedBytes() { test::freeGuarded(block_); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    std::uint8_t* data() { return data_; }
    std::size_t size() const { return size_; }

private:
    std::size_t size_;
    std::uint8_t* block_;
    std::uint8_t* data_;
};

int shiftedUp(int size, int shift) {
    return (size + (1 << shift) - 1) >> shift;
}

/// An image of which every plane lies between guard pages and ends with its last sample.
class Image {
public:
    Image(const FFDrawContext& context, int width, int height, int padding, bool bottomUp, GuardedEnd end)
        : planes_(static_cast<int>(context.nb_planes)) {
        for (int p = 0; p < planes_; ++p) {
            const int rowBytes = shiftedUp(width, context.hsub[p]) * context.pixelstep[p];
            const int rows = shiftedUp(height, context.vsub[p]);
            const int linesize = rowBytes + padding;
            memory_.push_back(std::make_unique<GuardedBytes>(
                static_cast<std::size_t>(linesize * (rows - 1) + rowBytes), end));
            data[p] = memory_.back()->data() + (bottomUp ? linesize * (rows - 1) : 0);
            linesizes[p] = bottomUp ? -linesize : linesize;
        }
    }
    void randomise(unsigned seed) {
        std::mt19937 random(seed);
        for (auto& plane : memory_) {
            std::generate_n(plane->data(), plane->size(),
                            [&] { return static_cast<std::uint8_t>(random()); });
        }
    }
    void fill(int value) {
        for (auto& plane : memory_) std::memset(plane->data(), value, plane->size());
    }
    /// All bytes of all planes, padding included.
    std::vector<int> bytes() const {
        std::vector<int> all;
        for (const auto& plane : memory_) all.insert(all.end(), plane->data(), plane->data() + plane->size());
        return all;
    }

    std::uint8_t* data[4] = {};
    int linesizes[4] = {};

private:
    int planes_;
    std::vector<std::unique_ptr<GuardedBytes>> memory_;
};

void modelFill(const FFDrawContext& context, Image& image, const std::uint8_t rgba[4], int x, int y, int w,
               int h) {
    for (int p = 0; p < static_cast<int>(context.nb_planes); ++p) {
        const std::vector<std::uint8_t> bytes = modelPattern(context, p, rgba);
        for (int row = 0; row < shiftedUp(h, context.vsub[p]); ++row) {
            for (int column = 0; column < shiftedUp(w, context.hsub[p]); ++column) {
                std::uint8_t* sample = image.data[p] + ((y >> context.vsub[p]) + row) * image.linesizes[p] +
                                       ((x >> context.hsub[p]) + column) * context.pixelstep[p];
                std::copy(bytes.begin(), bytes.end(), sample);
            }
        }
    }
}

struct Mask {
    const std::uint8_t* bytes;
    int linesize, width, height, l2depth, x0, y0;

    unsigned at(int i, int j) const {
        const int bits = 1 << l2depth;
        const int perByte = 8 / bits;
        const unsigned byte = bytes[j * linesize + i / perByte];
        const unsigned value = (byte >> (8 - bits * (i % perByte + 1))) & ((1U << bits) - 1);
        return value * 255 / ((1U << bits) - 1);
    }
};

void modelBlend(const FFDrawContext& context, Image& image, int width, int height, const Mask& mask,
                const std::uint8_t rgba[4]) {
    if (rgba[3] == 0) return;
    const AVPixFmtDescriptor& format = *context.desc;
    const bool hasAlpha = (format.flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
    const int drawn =
        format.nb_components - (hasAlpha && (context.flags & FF_DRAW_PROCESS_ALPHA) == 0 ? 1 : 0);
    const std::uint64_t k =
        format.comp[0].depth <= 8 ? (66311U * rgba[3] + 3U) >> 8 : (257U * rgba[3] + 2U) >> 8;
    for (int c = 0; c < drawn; ++c) {
        const AVComponentDescriptor& component = format.comp[c];
        const int p = component.plane;
        const int hs = context.hsub[p], vs = context.vsub[p];
        const std::uint64_t s = modelValue(format, c, rgba, context.full_range != 0);
        for (int row = 0; row < shiftedUp(height, vs); ++row) {
            for (int column = 0; column < shiftedUp(width, hs); ++column) {
                unsigned sum = 0;
                for (int y = row << vs; y < (row + 1) << vs; ++y) {
                    for (int x = column << hs; x < (column + 1) << hs; ++x) {
                        const int i = x - mask.x0, j = y - mask.y0;
                        const bool inside =
                            x < width && y < height && i >= 0 && i < mask.width && j >= 0 && j < mask.height;
                        if (inside) sum += mask.at(i, j);
                    }
                }
                const std::uint64_t a = (sum >> (hs + vs)) * k;
                std::uint8_t* sample =
                    image.data[p] + row * image.linesizes[p] + column * component.step + component.offset;
                if (component.depth <= 8) {
                    sample[0] = static_cast<std::uint8_t>(((16843009 - a) * sample[0] + a * s) >> 24);
                } else {
                    const std::uint64_t old = sample[0] + 256U * sample[1];
                    const std::uint64_t blended = ((65537 - a) * old + a * s) >> 16;
                    sample[0] = static_cast<std::uint8_t>(blended);
                    sample[1] = static_cast<std::uint8_t>(blended >> 8);
                }
            }
        }
    }
}

// ---- Formats

constexpr AVPixelFormat acceptedEverywhere[] = {
    AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P,    AV_PIX_FMT_NV12,    AV_PIX_FMT_GRAY8, AV_PIX_FMT_YA8,
    AV_PIX_FMT_RGB24,   AV_PIX_FMT_BGRA,        AV_PIX_FMT_ARGB,    AV_PIX_FMT_0RGB,  AV_PIX_FMT_GBRP,
    AV_PIX_FMT_GBRAP,   AV_PIX_FMT_YUV420P10LE, AV_PIX_FMT_GRAY10LE};

class FFDrawAcceptedTest : public testing::TestWithParam<AVPixelFormat> {};

TEST_P(FFDrawAcceptedTest, InitAcceptsTheFormat) {
    FFDrawContext context;
    EXPECT_EQ(ff_draw_init(&context, GetParam(), 0), 0);
}

const auto formatName = [](const auto& test) { return std::string(av_get_pix_fmt_name(test.param)); };

INSTANTIATE_TEST_SUITE_P(Formats, FFDrawAcceptedTest, testing::ValuesIn(acceptedEverywhere), formatName);

class FFDrawRefusedTest : public testing::TestWithParam<AVPixelFormat> {};

TEST_P(FFDrawRefusedTest, InitRefusesTheFormat) {
    FFDrawContext context;
    EXPECT_EQ(ff_draw_init(&context, GetParam(), 0), AVERROR(ENOSYS));
}

INSTANTIATE_TEST_SUITE_P(Formats, FFDrawRefusedTest,
                         testing::Values(AV_PIX_FMT_PAL8, AV_PIX_FMT_MONOBLACK, AV_PIX_FMT_RGB565LE,
                                         AV_PIX_FMT_RGB8, AV_PIX_FMT_RGB4, AV_PIX_FMT_YUYV422,
                                         AV_PIX_FMT_UYVY422, AV_PIX_FMT_UYYVYY411, AV_PIX_FMT_YUV420P10BE,
                                         AV_PIX_FMT_GRAY16BE, AV_PIX_FMT_RGB48LE, AV_PIX_FMT_BGR48LE,
                                         AV_PIX_FMT_RGBA64LE, AV_PIX_FMT_AYUV64LE, AV_PIX_FMT_P010LE,
                                         AV_PIX_FMT_P010BE, AV_PIX_FMT_BAYER_BGGR8, AV_PIX_FMT_VAAPI),
                         formatName);

TEST(FFDrawInitTest, FormatsOfFFmpeg5AreTheseEightyTwo) {
    if (compat::ffmpegRelease != 5) {
        GTEST_SKIP() << "this is FFmpeg " << compat::ffmpegRelease << ", whose formats are others";
    }
    EXPECT_THAT(
        namesOf(acceptedFormats()),
        ElementsAre("yuv420p", "rgb24", "bgr24", "yuv422p", "yuv444p", "yuv410p", "yuv411p", "gray",
                    "yuvj420p", "yuvj422p", "yuvj444p", "nv12", "nv21", "argb", "rgba", "abgr", "bgra",
                    "gray16le", "yuv440p", "yuvj440p", "yuva420p", "yuv420p16le", "yuv422p16le",
                    "yuv444p16le", "ya8", "yuv420p9le", "yuv420p10le", "yuv422p10le", "yuv444p9le",
                    "yuv444p10le", "yuv422p9le", "gbrp", "gbrp9le", "gbrp10le", "gbrp16le", "yuva422p",
                    "yuva444p", "yuva420p9le", "yuva422p9le", "yuva444p9le", "yuva420p10le", "yuva422p10le",
                    "yuva444p10le", "yuva420p16le", "yuva422p16le", "yuva444p16le", "xyz12le", "nv16",
                    "nv20le", "ya16le", "gbrap", "gbrap16le", "0rgb", "rgb0", "0bgr", "bgr0", "yuv420p12le",
                    "yuv420p14le", "yuv422p12le", "yuv422p14le", "yuv444p12le", "yuv444p14le", "gbrp12le",
                    "gbrp14le", "yuvj411p", "yuv440p10le", "yuv440p12le", "gbrap12le", "gbrap10le",
                    "gray12le", "gray10le", "p016le", "gray9le", "gray14le", "yuva422p12le", "yuva444p12le",
                    "nv24", "nv42", "p210le", "p410le", "p216le", "p416le"));
}

TEST(FFDrawInitTest, ComponentsAmidTheirWordAreRefused) {
    int known = 0;
    for (const char* name : {"x2rgb10le", "x2bgr10le", "xv30le", "v30xle"}) {
        const AVPixelFormat format = av_get_pix_fmt(name);
        if (format == AV_PIX_FMT_NONE) continue;
        ++known;
        FFDrawContext context;
        EXPECT_EQ(ff_draw_init(&context, format, 0), AVERROR(ENOSYS)) << name;
    }
    if (known == 0) GTEST_SKIP() << "this libavutil has no such format";
}

TEST(FFDrawInitTest, NoPixelFormatIsInvalid) {
    FFDrawContext context;
    for (int format : {-1, -2, INT_MIN, INT_MAX, static_cast<int>(AV_PIX_FMT_NB)}) {
        EXPECT_EQ(ff_draw_init(&context, static_cast<AVPixelFormat>(format), 0), AVERROR(EINVAL)) << format;
    }
}

TEST(FFDrawInitTest, FailureLeavesTheContextUnchanged) {
    for (AVPixelFormat format : {AV_PIX_FMT_NONE, AV_PIX_FMT_YUYV422, AV_PIX_FMT_RGBA64LE}) {
        FFDrawContext context = contextOf(AV_PIX_FMT_YUVA420P, 5);
        EXPECT_LT(ff_draw_init(&context, format, 0), 0);
        EXPECT_EQ(context.format, AV_PIX_FMT_YUVA420P);
        EXPECT_EQ(context.nb_planes, 4U);
        EXPECT_EQ(context.flags, 5U);
    }
}

TEST(FFDrawInitTest, ContextTellsPlanesStepsAndShifts) {
    const FFDrawContext yuva = contextOf(AV_PIX_FMT_YUVA420P, 1);
    EXPECT_EQ(yuva.desc, av_pix_fmt_desc_get(AV_PIX_FMT_YUVA420P));
    EXPECT_EQ(yuva.format, AV_PIX_FMT_YUVA420P);
    EXPECT_EQ(yuva.nb_planes, 4U);
    EXPECT_THAT(yuva.pixelstep, ElementsAre(1, 1, 1, 1));
    EXPECT_THAT(yuva.hsub, ElementsAre(0, 1, 1, 0));
    EXPECT_THAT(yuva.vsub, ElementsAre(0, 1, 1, 0));
    EXPECT_EQ(yuva.hsub_max, 1);
    EXPECT_EQ(yuva.vsub_max, 1);
    EXPECT_EQ(yuva.full_range, 0);
    EXPECT_EQ(yuva.flags, 1U);
}

TEST(FFDrawInitTest, ContextOfUnevenSubsamplingHasUnevenShifts) {
    const FFDrawContext yuv411 = contextOf(AV_PIX_FMT_YUV411P);
    EXPECT_THAT(yuv411.hsub, ElementsAre(0, 2, 2, 0));
    EXPECT_THAT(yuv411.vsub, ElementsAre(0, 0, 0, 0));
    EXPECT_EQ(yuv411.hsub_max, 2);
    EXPECT_EQ(yuv411.vsub_max, 0);
}

TEST(FFDrawInitTest, StepsCountTheBytesOfAllComponentsOfAPlane) {
    EXPECT_THAT(contextOf(AV_PIX_FMT_NV12).pixelstep, ElementsAre(1, 2, 0, 0));
    EXPECT_THAT(contextOf(AV_PIX_FMT_RGB24).pixelstep, ElementsAre(3, 0, 0, 0));
    EXPECT_THAT(contextOf(AV_PIX_FMT_0RGB).pixelstep, ElementsAre(4, 0, 0, 0));
    EXPECT_THAT(contextOf(AV_PIX_FMT_YA8).pixelstep, ElementsAre(2, 0, 0, 0));
    EXPECT_THAT(contextOf(AV_PIX_FMT_YA16LE).pixelstep, ElementsAre(4, 0, 0, 0));
    EXPECT_THAT(contextOf(AV_PIX_FMT_YUV420P10LE).pixelstep, ElementsAre(2, 2, 2, 0));
    EXPECT_THAT(contextOf(AV_PIX_FMT_P016LE).pixelstep, ElementsAre(2, 4, 0, 0));
}

TEST(FFDrawInitTest, PalettePlaneOfGrayIsNotDrawnOn) {
    EXPECT_EQ(contextOf(AV_PIX_FMT_GRAY8).nb_planes, 1U);
}

TEST(FFDrawInitTest, FullRangeIsAskedForByAFlagOrByTheFormat) {
    EXPECT_EQ(contextOf(AV_PIX_FMT_YUV420P, 1).full_range, 0);
    EXPECT_EQ(contextOf(AV_PIX_FMT_YUV420P, 0x10000).full_range, 1);
    EXPECT_EQ(contextOf(AV_PIX_FMT_YUV420P, 0x10001).full_range, 1);
    for (AVPixelFormat format : {AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUVJ444P,
                                 AV_PIX_FMT_YUVJ440P, AV_PIX_FMT_YUVJ411P}) {
        EXPECT_EQ(contextOf(format, 0).full_range, 1) << av_get_pix_fmt_name(format);
    }
}

TEST(FFDrawInitTest, UnknownFlagsAreKeptAndHaveNoEffect) {
    const FFDrawContext context = contextOf(AV_PIX_FMT_YUV420P, 0xfffeffff);
    EXPECT_EQ(context.flags, 0xfffeffffU);
    EXPECT_EQ(context.full_range, 0);
}

TEST(InitDrawContextTest, AsksForAlphaAndForFullRangeOnDemand) {
    EXPECT_EQ(initDrawContext(AV_PIX_FMT_YUV420P, false).flags, 1U);
    EXPECT_EQ(initDrawContext(AV_PIX_FMT_YUV420P, true).flags, 0x10001U);
    EXPECT_EQ(initDrawContext(AV_PIX_FMT_YUV420P, true).full_range, 1);
}

TEST(InitDrawContextTest, FormatThatIsNotDrawnOnThrowsItsName) {
    EXPECT_THAT([] { initDrawContext(AV_PIX_FMT_YUYV422, false); },
                ThrowsMessage<std::runtime_error>(StrEq("Drawing is not supported for yuyv422")));
}

TEST(InitDrawContextTest, FormatWithoutANameThrowsThatItIsUnknown) {
    EXPECT_THAT([] { initDrawContext(AV_PIX_FMT_NONE, false); },
                ThrowsMessage<std::runtime_error>(StrEq("Drawing is not supported for (pix fmt unknown)")));
}

// ---- Colours

struct ColorCase {
    const char* name;
    std::uint8_t rgb[3];
    int limited[3];
    int full[3];
};

constexpr ColorCase colorCases[] = {
    {"black", {0, 0, 0}, {16, 128, 128}, {0, 128, 128}},
    {"white", {255, 255, 255}, {235, 128, 128}, {255, 128, 128}},
    {"red", {255, 0, 0}, {81, 90, 240}, {76, 85, 255}},
    {"lime", {0, 255, 0}, {144, 54, 34}, {150, 44, 21}},
    {"blue", {0, 0, 255}, {41, 240, 110}, {29, 255, 107}},
    {"yellow", {255, 255, 0}, {210, 16, 146}, {226, 0, 149}},
    {"cyan", {0, 255, 255}, {169, 166, 16}, {179, 171, 0}},
    {"magenta", {255, 0, 255}, {106, 202, 222}, {105, 212, 235}},
    {"gray", {128, 128, 128}, {126, 128, 128}, {128, 128, 128}},
    {"green", {0, 128, 0}, {81, 91, 81}, {75, 86, 74}},
    {"orange", {255, 165, 0}, {165, 42, 179}, {173, 30, 186}},
    {"navy", {0, 0, 128}, {29, 184, 119}, {15, 192, 118}},
    {"maroon", {128, 0, 0}, {49, 109, 184}, {38, 106, 192}},
    {"FFE1FF", {255, 225, 255}, {220, 137, 139}, {237, 138, 141}},
    {"404040", {64, 64, 64}, {71, 128, 128}, {64, 128, 128}},
    {"C0C0C0", {192, 192, 192}, {181, 128, 128}, {192, 128, 128}},
    {"123456", {0x12, 0x34, 0x56}, {55, 148, 111}, {46, 151, 108}},
    {"ABCDEF", {0xAB, 0xCD, 0xEF}, {187, 148, 111}, {199, 151, 108}},
};

void PrintTo(const ColorCase& color, std::ostream* out) {
    *out << color.name;
}

class FFDrawColorTest : public testing::TestWithParam<ColorCase> {
protected:
    static std::vector<int> yuv(const FFDrawContext& context) {
        const auto& rgb = GetParam().rgb;
        const FFDrawColor color = colorOf(context, rgb[0], rgb[1], rgb[2]);
        return {color.comp[0].u8[0], color.comp[1].u8[0], color.comp[2].u8[0]};
    }
};

TEST_P(FFDrawColorTest, LimitedRangeIsTheDefault) {
    EXPECT_THAT(yuv(contextOf(AV_PIX_FMT_YUV420P)), ElementsAreArray(GetParam().limited));
}

TEST_P(FFDrawColorTest, FullRangeComesWithTheFlag) {
    EXPECT_THAT(yuv(contextOf(AV_PIX_FMT_YUV420P, FF_DRAW_FULL_RANGE)), ElementsAreArray(GetParam().full));
}

TEST_P(FFDrawColorTest, FullRangeFormatsNeedNoFlag) {
    EXPECT_THAT(yuv(contextOf(AV_PIX_FMT_YUVJ444P, 0)), ElementsAreArray(GetParam().full));
}

INSTANTIATE_TEST_SUITE_P(Colors, FFDrawColorTest, testing::ValuesIn(colorCases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(FFDrawColorsTest, ColorsAreWithinOneOfBt601) {
    const FFDrawContext limited = contextOf(AV_PIX_FMT_YUV444P);
    const FFDrawContext full = contextOf(AV_PIX_FMT_YUV444P, FF_DRAW_FULL_RANGE);
    for (int i = 0; i < 64 * 64 * 64; ++i) {
        const auto level = [](int n) { return static_cast<std::uint8_t>((n & 63) * 255 / 63); };
        const std::uint8_t r = level(i), g = level(i >> 6), b = level(i >> 12);
        const double y = 0.299 * r + 0.587 * g + 0.114 * b;
        const double u = (b - y) / 1.772, v = (r - y) / 1.402;
        const FFDrawColor inLimited = colorOf(limited, r, g, b);
        const FFDrawColor inFull = colorOf(full, r, g, b);
        SCOPED_TRACE(testing::Message() << int{r} << " " << int{g} << " " << int{b});
        ASSERT_NEAR(inLimited.comp[0].u8[0], 16 + y * 219 / 255, 1.0);
        ASSERT_NEAR(inLimited.comp[1].u8[0], 128 + u * 224 / 255, 1.0);
        ASSERT_NEAR(inLimited.comp[2].u8[0], 128 + v * 224 / 255, 1.0);
        ASSERT_NEAR(inFull.comp[0].u8[0], y, 1.0);
        ASSERT_NEAR(inFull.comp[1].u8[0], 128 + u, 1.0);
        ASSERT_NEAR(inFull.comp[2].u8[0], 128 + v, 1.0);
    }
}

TEST(FFDrawColorsTest, EveryFormatHasEachComponentAtItsPlace) {
    std::mt19937 random(7);
    for (AVPixelFormat format : acceptedFormats()) {
        for (unsigned flags : {0U, FF_DRAW_FULL_RANGE}) {
            const FFDrawContext context = contextOf(format, flags);
            const std::uint8_t rgba[4] = {
                static_cast<std::uint8_t>(random()), static_cast<std::uint8_t>(random()),
                static_cast<std::uint8_t>(random()), static_cast<std::uint8_t>(random())};
            FFDrawColor color;
            ff_draw_color(&context, &color, rgba);
            for (int p = 0; p < static_cast<int>(context.nb_planes); ++p) {
                EXPECT_THAT(pattern(context, color, p), ElementsAreArray(modelPattern(context, p, rgba)))
                    << av_get_pix_fmt_name(format) << " plane " << p << " flags " << flags;
            }
        }
    }
}

TEST(FFDrawColorsTest, AllBytesWithoutAMeaningAreCleared) {
    FFDrawColor color;
    std::memset(static_cast<void*>(&color), 0xEE, sizeof color);
    const FFDrawContext context = contextOf(AV_PIX_FMT_YUV420P);
    const std::uint8_t red[4] = {255, 0, 0, 255};
    ff_draw_color(&context, &color, red);
    for (int p = 0; p < 4; ++p) {
        EXPECT_THAT(std::vector<int>(color.comp[p].u8 + (p < 3 ? 1 : 0), color.comp[p].u8 + 16), Each(0))
            << p;
    }
}

TEST(FFDrawColorsTest, ColorKeepsItsRgba) {
    EXPECT_THAT(colorOf(contextOf(AV_PIX_FMT_YUV420P), 1, 2, 3, 4).rgba, ElementsAre(1, 2, 3, 4));
}

TEST(FFDrawColorsTest, PackedRgbIsTakenOverInTheFormatsOrder) {
    const auto bytes = [](AVPixelFormat format) {
        const FFDrawContext context = contextOf(format);
        return pattern(context, colorOf(context, 10, 20, 30, 40), 0);
    };
    EXPECT_THAT(bytes(AV_PIX_FMT_RGB24), ElementsAre(10, 20, 30));
    EXPECT_THAT(bytes(AV_PIX_FMT_BGR24), ElementsAre(30, 20, 10));
    EXPECT_THAT(bytes(AV_PIX_FMT_RGBA), ElementsAre(10, 20, 30, 40));
    EXPECT_THAT(bytes(AV_PIX_FMT_BGRA), ElementsAre(30, 20, 10, 40));
    EXPECT_THAT(bytes(AV_PIX_FMT_ARGB), ElementsAre(40, 10, 20, 30));
    EXPECT_THAT(bytes(AV_PIX_FMT_ABGR), ElementsAre(40, 30, 20, 10));
}

TEST(FFDrawColorsTest, UnusedByteOfPackedRgbIsTheAlpha) {
    const auto bytes = [](AVPixelFormat format) {
        const FFDrawContext context = contextOf(format);
        return pattern(context, colorOf(context, 10, 20, 30, 40), 0);
    };
    EXPECT_THAT(bytes(AV_PIX_FMT_0RGB), ElementsAre(40, 10, 20, 30));
    EXPECT_THAT(bytes(AV_PIX_FMT_RGB0), ElementsAre(10, 20, 30, 40));
    EXPECT_THAT(bytes(AV_PIX_FMT_0BGR), ElementsAre(40, 30, 20, 10));
    EXPECT_THAT(bytes(AV_PIX_FMT_BGR0), ElementsAre(30, 20, 10, 40));
}

TEST(FFDrawColorsTest, PlanarRgbHasGreenFirst) {
    const FFDrawColor color = colorOf(contextOf(AV_PIX_FMT_GBRAP), 10, 20, 30, 40);
    EXPECT_EQ(color.comp[0].u8[0], 20);
    EXPECT_EQ(color.comp[1].u8[0], 30);
    EXPECT_EQ(color.comp[2].u8[0], 10);
    EXPECT_EQ(color.comp[3].u8[0], 40);
}

TEST(FFDrawColorsTest, FullRangeLeavesRgbAndAlphaAsTheyAre) {
    const FFDrawContext rgba = contextOf(AV_PIX_FMT_RGBA, FF_DRAW_FULL_RANGE);
    EXPECT_THAT(pattern(rgba, colorOf(rgba, 10, 20, 30, 40), 0), ElementsAre(10, 20, 30, 40));
    EXPECT_EQ(colorOf(contextOf(AV_PIX_FMT_YUVA420P, FF_DRAW_FULL_RANGE), 10, 20, 30, 40).comp[3].u8[0], 40);
}

TEST(FFDrawColorsTest, SemiPlanarChromaIsInTheFormatsOrder) {
    const FFDrawContext nv12 = contextOf(AV_PIX_FMT_NV12);
    const FFDrawContext nv21 = contextOf(AV_PIX_FMT_NV21);
    EXPECT_THAT(pattern(nv12, colorOf(nv12, 255, 0, 0), 1), ElementsAre(90, 240));
    EXPECT_THAT(pattern(nv21, colorOf(nv21, 255, 0, 0), 1), ElementsAre(240, 90));
}

TEST(FFDrawColorsTest, GrayIsTheLumaOfItsRange) {
    EXPECT_EQ(colorOf(contextOf(AV_PIX_FMT_GRAY8), 255, 255, 255).comp[0].u8[0], 235);
    EXPECT_EQ(colorOf(contextOf(AV_PIX_FMT_GRAY8), 0, 0, 0).comp[0].u8[0], 16);
    EXPECT_EQ(colorOf(contextOf(AV_PIX_FMT_GRAY8, FF_DRAW_FULL_RANGE), 255, 255, 255).comp[0].u8[0], 255);
    EXPECT_EQ(colorOf(contextOf(AV_PIX_FMT_GRAY8, FF_DRAW_FULL_RANGE), 0, 0, 0).comp[0].u8[0], 0);
}

TEST(FFDrawColorsTest, AlphaOfGrayIsItsSecondComponent) {
    const FFDrawContext ya8 = contextOf(AV_PIX_FMT_YA8);
    EXPECT_THAT(pattern(ya8, colorOf(ya8, 255, 0, 0, 77), 0), ElementsAre(81, 77));
    const FFDrawContext ya16 = contextOf(AV_PIX_FMT_YA16LE);
    EXPECT_THAT(pattern(ya16, colorOf(ya16, 255, 0, 0, 77), 0), ElementsAre(0, 81, 0, 77));
}

TEST(FFDrawColorsTest, MoreBitsAreTheEightBitValueShiftedUp) {
    const FFDrawContext gbrp10 = contextOf(AV_PIX_FMT_GBRP10LE);
    EXPECT_THAT(pattern(gbrp10, colorOf(gbrp10, 255, 255, 255), 0), ElementsAre(1020 & 255, 1020 >> 8));
    const FFDrawContext yuv12 = contextOf(AV_PIX_FMT_YUV420P12LE);
    EXPECT_THAT(pattern(yuv12, colorOf(yuv12, 255, 0, 0), 2), ElementsAre(3840 & 255, 3840 >> 8));
    const FFDrawContext p016 = contextOf(AV_PIX_FMT_P016LE);
    EXPECT_THAT(pattern(p016, colorOf(p016, 255, 0, 0), 1), ElementsAre(0, 90, 0, 240));
    const FFDrawContext nv20 = contextOf(AV_PIX_FMT_NV20LE);
    EXPECT_THAT(pattern(nv20, colorOf(nv20, 255, 0, 0), 1), ElementsAre(360 & 255, 1, 960 & 255, 3));
}

TEST(FFDrawColorsTest, BitsAtTheTopOfTheirWordAreShiftedThere) {
    const AVPixelFormat format = av_get_pix_fmt("p210le");
    if (format == AV_PIX_FMT_NONE) GTEST_SKIP() << "this libavutil has no p210le";
    const FFDrawContext p210 = contextOf(format);
    EXPECT_THAT(pattern(p210, colorOf(p210, 255, 0, 0), 0), ElementsAre(0, 81));
    EXPECT_THAT(pattern(p210, colorOf(p210, 255, 0, 0), 1), ElementsAre(0, 90, 0, 240));
}

TEST(InitDrawColorTest, TakesTheLowEightBitsOfEachComponent) {
    const FFDrawContext context = initDrawContext(AV_PIX_FMT_RGBA, false);
    const FFDrawColor color = initDrawColor(context, Color(0x10A, 0xFFFFFF14, 30, 0x28));
    EXPECT_THAT(color.rgba, ElementsAre(10, 20, 30, 40));
    EXPECT_THAT(pattern(context, color, 0), ElementsAre(10, 20, 30, 40));
}

// ---- Fills

/// Two images of the same random bytes, one to draw on and one for the model.
struct Twins {
    Twins(const FFDrawContext& context, int width, int height, int padding = 0, bool bottomUp = false,
          GuardedEnd end = GuardedEnd::back, unsigned seed = 1)
        : drawn(context, width, height, padding, bottomUp, end),
          model(context, width, height, padding, bottomUp, end) {
        drawn.randomise(seed);
        model.randomise(seed);
    }
    Image drawn;
    Image model;
};

constexpr std::uint8_t someColor[4] = {200, 100, 50, 150};

FFDrawColor colorOf(const FFDrawContext& context, const std::uint8_t rgba[4]) {
    return colorOf(context, rgba[0], rgba[1], rgba[2], rgba[3]);
}

TEST(FFFillRectangleTest, EqualsTheModelInEveryFormatBesideGuardPages) {
    std::mt19937 random(11);
    const auto upTo = [&](int most) { return static_cast<int>(random() % static_cast<unsigned>(most + 1)); };
    for (AVPixelFormat format : acceptedFormats()) {
        const FFDrawContext context = contextOf(format);
        const FFDrawColor color = colorOf(context, someColor);
        for (int round = 0; round < 40; ++round) {
            const int width = 1 + upTo(39), height = 1 + upTo(29);
            const int x = upTo(width - 1) & ~3, y = upTo(height - 1) & ~3;
            const int w = upTo(width - x), h = upTo(height - y);
            const int padding = upTo(2) * 5;
            Twins twins(context, width, height, padding, round % 3 == 0,
                        round % 2 ? GuardedEnd::front : GuardedEnd::back);
            ff_fill_rectangle(&context, &color, twins.drawn.data, twins.drawn.linesizes, x, y, w, h);
            modelFill(context, twins.model, someColor, x, y, w, h);
            ASSERT_EQ(twins.drawn.bytes(), twins.model.bytes())
                << av_get_pix_fmt_name(format) << " " << width << "x" << height << " padding " << padding
                << " rectangle " << x << "," << y << " " << w << "x" << h;
        }
    }
}

TEST(FFFillRectangleTest, EqualsTheModelForLongRowsInEveryFormat) {
    for (AVPixelFormat format : acceptedFormats()) {
        const FFDrawContext context = contextOf(format);
        const FFDrawColor color = colorOf(context, someColor);
        for (int width : {511, 512, 513, 1535, 1536, 1537, 2047, 2048, 2049, 4101}) {
            for (int padding : {0, 3}) {
                Twins twins(context, width, 3, padding);
                ff_fill_rectangle(&context, &color, twins.drawn.data, twins.drawn.linesizes, 0, 0, width, 3);
                modelFill(context, twins.model, someColor, 0, 0, width, 3);
                ASSERT_EQ(twins.drawn.bytes(), twins.model.bytes())
                    << av_get_pix_fmt_name(format) << " width " << width << " padding " << padding;
            }
        }
    }
}

TEST(FFFillRectangleTest, StartsAtTheChromaSampleThatHoldsAnOddPosition) {
    const FFDrawContext context = contextOf(AV_PIX_FMT_YUV420P);
    const FFDrawColor color = colorOf(context, 255, 0, 0);
    Image image(context, 6, 2, 0, false, GuardedEnd::back);
    image.fill(1);
    ff_fill_rectangle(&context, &color, image.data, image.linesizes, 1, 1, 3, 1);
    EXPECT_THAT(image.bytes(), ElementsAre(1, 1, 1, 1, 1, 1, 1, 81, 81, 81, 1, 1,  // Y
                                           90, 90, 1,                              // U
                                           240, 240, 1));                          // V
}

TEST(FFFillRectangleTest, RectangleWithoutAreaDrawsNothing) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24, AV_PIX_FMT_YUV410P}) {
        const FFDrawContext context = contextOf(format);
        const FFDrawColor color = colorOf(context, someColor);
        for (const auto& [w, h] :
             {std::pair{0, 4}, {4, 0}, {0, 0}, {-1, 4}, {4, -1}, {-3, -3}, {INT_MIN, 4}}) {
            Twins twins(context, 8, 8);
            ff_fill_rectangle(&context, &color, twins.drawn.data, twins.drawn.linesizes, 4, 4, w, h);
            EXPECT_EQ(twins.drawn.bytes(), twins.model.bytes())
                << av_get_pix_fmt_name(format) << " " << w << "x" << h;
        }
    }
}

TEST(FFFillRectangleTest, AlphaIsFilledWithoutTheAlphaFlagToo) {
    const FFDrawContext context = contextOf(AV_PIX_FMT_YUVA420P, 0);
    const FFDrawColor color = colorOf(context, 0, 0, 0, 99);
    Image image(context, 2, 2, 0, false, GuardedEnd::back);
    image.fill(1);
    ff_fill_rectangle(&context, &color, image.data, image.linesizes, 0, 0, 2, 2);
    EXPECT_THAT(image.bytes(), ElementsAre(16, 16, 16, 16, 128, 128, 99, 99, 99, 99));
}

// ---- Copies

TEST(FFCopyRectangle2Test, EqualsTheModelInEveryFormatBesideGuardPages) {
    std::mt19937 random(12);
    const auto upTo = [&](int most) { return static_cast<int>(random() % static_cast<unsigned>(most + 1)); };
    for (AVPixelFormat format : acceptedFormats()) {
        const FFDrawContext context = contextOf(format);
        for (int round = 0; round < 40; ++round) {
            const GuardedEnd end = round % 2 ? GuardedEnd::front : GuardedEnd::back;
            const int width = 1 + upTo(39), height = 1 + upTo(29);
            const int sourceWidth = 1 + upTo(39), sourceHeight = 1 + upTo(29);
            const int x = upTo(width - 1) & ~3, y = upTo(height - 1) & ~3;
            const int sourceX = upTo(sourceWidth - 1) & ~3, sourceY = upTo(sourceHeight - 1) & ~3;
            const int w = upTo(std::min(width - x, sourceWidth - sourceX));
            const int h = upTo(std::min(height - y, sourceHeight - sourceY));
            Twins twins(context, width, height, upTo(2) * 5, round % 3 == 0, end);
            Image source(context, sourceWidth, sourceHeight, upTo(2) * 3, round % 5 == 0, end);
            source.randomise(2);
            ff_copy_rectangle2(&context, twins.drawn.data, twins.drawn.linesizes, source.data,
                               source.linesizes, x, y, sourceX, sourceY, w, h);
            for (int p = 0; p < static_cast<int>(context.nb_planes); ++p) {
                const int hs = context.hsub[p], vs = context.vsub[p], step = context.pixelstep[p];
                for (int row = 0; row < shiftedUp(h, vs); ++row) {
                    for (int i = 0; i < shiftedUp(w, hs) * step; ++i) {
                        twins.model
                            .data[p][((y >> vs) + row) * twins.model.linesizes[p] + (x >> hs) * step + i] =
                            source.data[p][((sourceY >> vs) + row) * source.linesizes[p] +
                                           (sourceX >> hs) * step + i];
                    }
                }
            }
            ASSERT_EQ(twins.drawn.bytes(), twins.model.bytes())
                << av_get_pix_fmt_name(format) << " " << width << "x" << height << " at " << x << "," << y
                << " from " << sourceX << "," << sourceY << " of " << sourceWidth << "x" << sourceHeight
                << " size " << w << "x" << h;
        }
    }
}

TEST(FFCopyRectangle2Test, StartsAtTheChromaSamplesThatHoldOddPositions) {
    const FFDrawContext context = contextOf(AV_PIX_FMT_YUV420P);
    Image source(context, 6, 4, 0, false, GuardedEnd::back);
    for (int i = 0; i < 24; ++i) source.data[0][i] = static_cast<std::uint8_t>(100 + i);
    for (int i = 0; i < 6; ++i) {
        source.data[1][i] = static_cast<std::uint8_t>(10 + i);
        source.data[2][i] = static_cast<std::uint8_t>(20 + i);
    }
    Image image(context, 6, 2, 0, false, GuardedEnd::back);
    image.fill(1);
    ff_copy_rectangle2(&context, image.data, image.linesizes, source.data, source.linesizes, 1, 1, 3, 3, 3,
                       1);
    EXPECT_THAT(image.bytes(), ElementsAre(1, 1, 1, 1, 1, 1, 1, 121, 122, 123, 1, 1,  // Y
                                           14, 15, 1,                                 // U
                                           24, 25, 1));                               // V
}

TEST(FFCopyRectangle2Test, WholeImagesAreCopied) {
    for (AVPixelFormat format : acceptedFormats()) {
        const FFDrawContext context = contextOf(format);
        Image source(context, 37, 11, 0, false, GuardedEnd::back);
        Image copy(context, 37, 11, 0, false, GuardedEnd::back);
        source.randomise(3);
        ff_copy_rectangle2(&context, copy.data, copy.linesizes, source.data, source.linesizes, 0, 0, 0, 0, 37,
                           11);
        EXPECT_EQ(copy.bytes(), source.bytes()) << av_get_pix_fmt_name(format);
    }
}

TEST(FFCopyRectangle2Test, RectangleWithoutAreaCopiesNothing) {
    const FFDrawContext context = contextOf(AV_PIX_FMT_YUV420P);
    Image source(context, 8, 8, 0, false, GuardedEnd::back);
    source.randomise(2);
    for (const auto& [w, h] : {std::pair{0, 4}, {4, 0}, {0, 0}, {-1, 4}, {4, -1}, {-3, -3}, {INT_MIN, 4}}) {
        Twins twins(context, 8, 8);
        ff_copy_rectangle2(&context, twins.drawn.data, twins.drawn.linesizes, source.data, source.linesizes,
                           4, 4, 4, 4, w, h);
        EXPECT_EQ(twins.drawn.bytes(), twins.model.bytes()) << w << "x" << h;
    }
}

TEST(FFCopyRectangle2Test, RectanglesOfOneImageMayOverlap) {
    const FFDrawContext context = contextOf(AV_PIX_FMT_YUV420P);
    for (bool bottomUp : {false, true}) {
        for (const auto& [x, y] : {std::pair{2, 2}, {2, 0}, {0, 2}, {2, 6}, {6, 2}, {4, 4}, {2, 4}, {6, 4}}) {
            Twins twins(context, 20, 20, 0, bottomUp);
            ff_copy_rectangle2(&context, twins.drawn.data, twins.drawn.linesizes, twins.drawn.data,
                               twins.drawn.linesizes, x, y, 4, 4, 10, 10);
            Image source(context, 20, 20, 0, bottomUp, GuardedEnd::back);
            source.randomise(1);
            ff_copy_rectangle2(&context, twins.model.data, twins.model.linesizes, source.data,
                               source.linesizes, x, y, 4, 4, 10, 10);
            EXPECT_EQ(twins.drawn.bytes(), twins.model.bytes()) << x << "," << y << " " << bottomUp;
        }
    }
}

// ---- Distances

TEST(FFDrawDistanceTest, RowsMayLieGigabytesApart) {
    constexpr int linesize = 1100000000;
    constexpr std::size_t size = std::size_t{5} * linesize + 4096;
    void* mapping =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) GTEST_SKIP() << "there is no room for rows so far apart";
    auto* start = static_cast<std::uint8_t*>(mapping);
    const FFDrawContext context = contextOf(AV_PIX_FMT_GRAY8, FF_DRAW_FULL_RANGE);
    std::uint8_t* const destination[] = {start};
    const std::uint8_t* const source[] = {start};
    const int linesizes[] = {linesize};

    const FFDrawColor dark = colorOf(context, 10, 10, 10);
    ff_fill_rectangle(&context, &dark, destination, linesizes, 1, 3, 4, 2);
    EXPECT_EQ(start[std::ptrdiff_t{4} * linesize + 4], 10);
    EXPECT_EQ(start[std::ptrdiff_t{4} * linesize + 5], 0);

    ff_copy_rectangle2(&context, destination, linesizes, source, linesizes, 100, 4, 1, 3, 4, 2);
    EXPECT_EQ(start[std::ptrdiff_t{5} * linesize + 103], 10);
    EXPECT_EQ(start[std::ptrdiff_t{5} * linesize + 104], 0);

    const FFDrawColor white = colorOf(context, 255, 255, 255);
    const std::uint8_t full[] = {255, 255};
    for (int l2depth : {0, 3}) {
        const int x0 = l2depth == 0 ? 200 : 300;
        ff_blend_mask(&context, &white, destination, linesizes, 400, 6, full, 1, 1, 2, l2depth, 0, x0, 4);
        EXPECT_EQ(start[std::ptrdiff_t{5} * linesize + x0], 255) << l2depth;
        EXPECT_EQ(start[std::ptrdiff_t{5} * linesize + x0 + 1], 0) << l2depth;
    }
    munmap(mapping, size);
}

// ---- Masks

void blend(const FFDrawContext& context, const FFDrawColor& color, Image& image, int width, int height,
           const Mask& mask, unsigned endianness = 0) {
    ff_blend_mask(&context, &color, image.data, image.linesizes, width, height, mask.bytes, mask.linesize,
                  mask.width, mask.height, mask.l2depth, endianness, mask.x0, mask.y0);
}

int maskRowBytes(int width, int l2depth) {
    return ((width << l2depth) + 7) / 8;
}

/// Bytes of runs of 0, runs of 255 and noise.
void fillMask(GuardedBytes& mask, std::mt19937& random) {
    for (std::size_t i = 0; i < mask.size();) {
        const std::size_t run = 1 + random() % 12;
        const auto kind = random() % 3;
        for (std::size_t end = std::min(i + run, mask.size()); i < end; ++i) {
            mask.data()[i] = static_cast<std::uint8_t>(kind == 0 ? 0 : kind == 1 ? 255 : random());
        }
    }
}

TEST(FFBlendMaskTest, EqualsTheModelInEveryFormatBesideGuardPages) {
    std::mt19937 random(13);
    const auto upTo = [&](int most) { return static_cast<int>(random() % static_cast<unsigned>(most + 1)); };
    constexpr std::uint8_t alphas[] = {0, 1, 77, 128, 254, 255, 255, 255};
    for (AVPixelFormat format : acceptedFormats()) {
        for (int round = 0; round < 120; ++round) {
            const unsigned flags =
                (random() % 3 ? FF_DRAW_PROCESS_ALPHA : 0) | (random() % 2 ? FF_DRAW_FULL_RANGE : 0);
            const FFDrawContext context = contextOf(format, flags);
            const std::uint8_t rgba[4] = {static_cast<std::uint8_t>(random()),
                                          static_cast<std::uint8_t>(random()),
                                          static_cast<std::uint8_t>(random()), alphas[upTo(7)]};
            const GuardedEnd end = round % 2 ? GuardedEnd::front : GuardedEnd::back;
            const int width = 1 + upTo(39), height = 1 + upTo(29);
            const int l2depth = upTo(3);
            const int maskWidth = upTo(30), maskHeight = upTo(30);
            const int linesize = maskRowBytes(maskWidth, l2depth) + (round % 4 ? 0 : 3);
            GuardedBytes bytes(static_cast<std::size_t>(std::max(
                                   linesize * (maskHeight - 1) + maskRowBytes(maskWidth, l2depth), 0)),
                               end);
            fillMask(bytes, random);
            const bool maskBottomUp = round % 5 == 0 && maskHeight > 0;
            const Mask mask{bytes.data() + (maskBottomUp ? linesize * (maskHeight - 1) : 0),
                            maskBottomUp ? -linesize : linesize,
                            maskWidth,
                            maskHeight,
                            l2depth,
                            upTo(79) - 35,
                            upTo(69) - 35};
            Twins twins(context, width, height, upTo(2) * 5, round % 3 == 0, end,
                        static_cast<unsigned>(random()));
            blend(context, colorOf(context, rgba), twins.drawn, width, height, mask);
            modelBlend(context, twins.model, width, height, mask, rgba);
            ASSERT_EQ(twins.drawn.bytes(), twins.model.bytes())
                << av_get_pix_fmt_name(format) << " flags " << flags << " " << width << "x" << height
                << " mask " << maskWidth << "x" << maskHeight << " at " << mask.x0 << "," << mask.y0
                << " l2depth " << l2depth << " alpha " << int{rgba[3]} << " round " << round;
        }
    }
}

TEST(FFBlendMaskTest, EqualsTheModelForWideMasks) {
    std::mt19937 random(14);
    for (AVPixelFormat format : acceptedEverywhere) {
        const FFDrawContext context = contextOf(format);
        for (int l2depth = 0; l2depth <= 3; ++l2depth) {
            for (int x0 : {-300, -7, 0, 5}) {
                GuardedBytes bytes(static_cast<std::size_t>(maskRowBytes(1111, l2depth) * 3),
                                   GuardedEnd::back);
                fillMask(bytes, random);
                const Mask mask{bytes.data(), maskRowBytes(1111, l2depth), 1111, 3, l2depth, x0, 1};
                Twins twins(context, 1050, 4);
                blend(context, colorOf(context, someColor), twins.drawn, 1050, 4, mask);
                modelBlend(context, twins.model, 1050, 4, mask, someColor);
                ASSERT_EQ(twins.drawn.bytes(), twins.model.bytes())
                    << av_get_pix_fmt_name(format) << " l2depth " << l2depth << " x0 " << x0;
            }
        }
    }
}

/// Draws on an image of one plane of bytes, all `background` before.
std::vector<int> blendGray(int width, int height, int background, const FFDrawColor& color, const Mask& mask,
                           unsigned endianness = 0) {
    const FFDrawContext context = contextOf(AV_PIX_FMT_GRAY8);
    Image image(context, width, height, 0, false, GuardedEnd::back);
    image.fill(background);
    blend(context, color, image, width, height, mask, endianness);
    return image.bytes();
}

FFDrawColor grayColor(std::uint8_t alpha = 255) {
    return colorOf(contextOf(AV_PIX_FMT_GRAY8, FF_DRAW_FULL_RANGE), 255, 255, 255, alpha);
}

TEST(FFBlendMaskTest, CoverageWeighsAnOpaqueColor) {
    const std::uint8_t bytes[] = {0, 1, 127, 128, 254, 255};
    EXPECT_THAT(blendGray(6, 1, 0, grayColor(), {bytes, 6, 6, 1, 3, 0, 0}),
                ElementsAre(0, 1, 127, 128, 254, 255));
}

TEST(FFBlendMaskTest, AlphaOfTheColorWeighsTheCoverage) {
    // k = (66311 * 128 + 3) >> 8 = 33155; 255 * k * 255 >> 24 = 128, 128 * k * 255 >> 24 = 64.
    const std::uint8_t bytes[] = {0, 128, 255};
    EXPECT_THAT(blendGray(3, 1, 0, grayColor(128), {bytes, 3, 3, 1, 3, 0, 0}), ElementsAre(0, 64, 128));
}

TEST(FFBlendMaskTest, OpaqueCoverageOfAnOpaqueColorGivesExactlyTheColor) {
    const std::uint8_t full = 255;
    for (int background = 0; background < 256; ++background) {
        for (int value = 0; value < 256; ++value) {
            FFDrawColor color = grayColor();
            color.comp[0].u8[0] = static_cast<std::uint8_t>(value);
            ASSERT_THAT(blendGray(1, 1, background, color, {&full, 1, 1, 1, 3, 0, 0}), ElementsAre(value))
                << "on " << background;
        }
    }
}

TEST(FFBlendMaskTest, EveryAlphaAndCoverageEqualsTheModel) {
    std::vector<std::uint8_t> ramp(256);
    for (std::size_t i = 0; i < 256; ++i) ramp[i] = static_cast<std::uint8_t>(i);
    const Mask mask{ramp.data(), 0, 256, 4, 3, 0, 0};
    for (AVPixelFormat format : {AV_PIX_FMT_YA8, AV_PIX_FMT_YA16LE}) {
        const FFDrawContext context = contextOf(format);
        for (int alpha = 0; alpha < 256; ++alpha) {
            const std::uint8_t rgba[4] = {200, 100, 50, static_cast<std::uint8_t>(alpha)};
            Twins twins(context, 256, 4, 0, false, GuardedEnd::back, static_cast<unsigned>(alpha));
            blend(context, colorOf(context, rgba), twins.drawn, 256, 4, mask);
            modelBlend(context, twins.model, 256, 4, mask, rgba);
            ASSERT_EQ(twins.drawn.bytes(), twins.model.bytes())
                << av_get_pix_fmt_name(format) << " alpha " << alpha;
        }
    }
}

TEST(FFBlendMaskTest, MoreBitsKeepALittleOfWhatTheyWere) {
    const FFDrawContext context = contextOf(AV_PIX_FMT_GRAY16LE, FF_DRAW_FULL_RANGE);
    Image image(context, 1, 1, 0, false, GuardedEnd::back);
    image.fill(255);
    const std::uint8_t full = 255;
    blend(context, colorOf(context, 0, 0, 0), image, 1, 1, {&full, 1, 1, 1, 3, 0, 0});
    // a = 255 * 256: (65537 - 65280) * 65535 >> 16.
    EXPECT_THAT(image.bytes(), ElementsAre(256 & 255, 256 >> 8));
}

TEST(FFBlendMaskTest, TransparentColorDrawsNothing) {
    const std::uint8_t bytes[] = {255, 255};
    EXPECT_THAT(blendGray(2, 1, 7, grayColor(0), {bytes, 2, 2, 1, 3, 0, 0}), ElementsAre(7, 7));
}

TEST(FFBlendMaskTest, LeftmostPixelOfOneBitMasksIsTheHighestBit) {
    const std::uint8_t bytes[] = {0b10010110, 0b01000000};
    EXPECT_THAT(blendGray(10, 1, 0, grayColor(), {bytes, 2, 10, 1, 0, 0, 0}),
                ElementsAre(255, 0, 0, 255, 0, 255, 255, 0, 0, 255));
}

TEST(FFBlendMaskTest, TwoAndFourBitMasksReachFullCoverage) {
    const std::uint8_t two[] = {0b00011011};
    EXPECT_THAT(blendGray(4, 1, 0, grayColor(), {two, 1, 4, 1, 1, 0, 0}), ElementsAre(0, 85, 170, 255));
    const std::uint8_t four[] = {0x0F, 0x18};
    EXPECT_THAT(blendGray(4, 1, 0, grayColor(), {four, 2, 4, 1, 2, 0, 0}), ElementsAre(0, 255, 17, 136));
}

TEST(FFBlendMaskTest, BitsLeftOfAClippedMaskAreSkipped) {
    const std::uint8_t bytes[] = {0b11100101};
    EXPECT_THAT(blendGray(4, 1, 0, grayColor(), {bytes, 1, 8, 1, 0, -3, 0}), ElementsAre(0, 0, 255, 0));
}

TEST(FFBlendMaskTest, EndiannessIsNotLookedAt) {
    const std::uint8_t bytes[] = {0b10010110};
    for (unsigned endianness : {0U, 1U, 0xffffffffU}) {
        EXPECT_THAT(blendGray(4, 1, 0, grayColor(), {bytes, 1, 4, 1, 0, 0, 0}, endianness),
                    ElementsAre(255, 0, 0, 255));
    }
}

TEST(FFBlendMaskTest, DepthsThatDoNotExistDrawNothing) {
    const std::uint8_t bytes[32] = {255, 255, 255};
    for (int l2depth : {-1, 4, 31, 32, INT_MIN, INT_MAX}) {
        EXPECT_THAT(blendGray(2, 1, 7, grayColor(), {bytes, 32, 2, 1, l2depth, 0, 0}), ElementsAre(7, 7))
            << l2depth;
    }
}

TEST(FFBlendMaskTest, NegativePitchReadsTheMaskUpwards) {
    const std::uint8_t bytes[] = {10, 20, 30, 40};
    EXPECT_THAT(blendGray(2, 2, 0, grayColor(), {bytes + 2, -2, 2, 2, 3, 0, 0}), ElementsAre(30, 40, 10, 20));
}

TEST(FFBlendMaskTest, MasksOutsideDrawNothingAtAnyPosition) {
    GuardedBytes bytes(9, GuardedEnd::back);
    std::memset(bytes.data(), 255, 9);
    for (int far : {INT_MIN, INT_MIN + 1, INT_MIN + 3, -3, 4, INT_MAX - 3, INT_MAX - 1, INT_MAX}) {
        EXPECT_THAT(blendGray(4, 4, 7, grayColor(), {bytes.data(), 3, 3, 3, 3, far, 0}), Each(7)) << far;
        EXPECT_THAT(blendGray(4, 4, 7, grayColor(), {bytes.data(), 3, 3, 3, 3, 0, far}), Each(7)) << far;
        EXPECT_THAT(blendGray(4, 4, 7, grayColor(), {bytes.data(), 3, 3, 3, 3, far, far}), Each(7)) << far;
    }
}

TEST(FFBlendMaskTest, MaskOrImageWithoutAreaDrawsNothing) {
    const std::uint8_t bytes[16] = {255, 255, 255, 255};
    for (const auto& [w, h] : {std::pair{0, 2}, {2, 0}, {-1, 2}, {2, -1}, {INT_MIN, INT_MIN}}) {
        EXPECT_THAT(blendGray(2, 2, 7, grayColor(), {bytes, 2, w, h, 3, 0, 0}), Each(7)) << w << "x" << h;
        Image image(contextOf(AV_PIX_FMT_GRAY8), 2, 2, 0, false, GuardedEnd::back);
        blend(contextOf(AV_PIX_FMT_GRAY8), grayColor(), image, w, h, {bytes, 2, 2, 2, 3, 0, 0});
        EXPECT_THAT(image.bytes(), Each(0)) << w << "x" << h;
    }
}

TEST(FFBlendMaskTest, WidestPossibleMaskIsClipped) {
    // All its rows are the same bytes, of which only those over the image exist.
    const std::uint8_t bytes[] = {10, 20, 30};
    EXPECT_THAT(blendGray(3, 2, 0, grayColor(), {bytes, 0, INT_MAX, INT_MAX, 3, 0, -5}),
                ElementsAre(10, 20, 30, 10, 20, 30));
}

TEST(FFBlendMaskTest, AlphaKeepsItsValueWithoutTheFlag) {
    const std::uint8_t full = 255;
    for (AVPixelFormat format : {AV_PIX_FMT_RGBA, AV_PIX_FMT_GBRAP, AV_PIX_FMT_YUVA444P, AV_PIX_FMT_YA8}) {
        const FFDrawContext context = contextOf(format, 0);
        Image image(context, 1, 1, 0, false, GuardedEnd::back);
        image.fill(33);
        blend(context, colorOf(context, 255, 0, 0, 255), image, 1, 1, {&full, 1, 1, 1, 3, 0, 0});
        std::vector<int> bytes = image.bytes();
        EXPECT_EQ(bytes.back(), 33) << av_get_pix_fmt_name(format);
        EXPECT_NE(bytes.front(), 33) << av_get_pix_fmt_name(format);
    }
}

TEST(FFBlendMaskTest, AlphaOfATransparentImageBecomesTheCoverage) {
    const FFDrawContext context = contextOf(AV_PIX_FMT_YUVA420P);
    Image image(context, 256, 1, 0, false, GuardedEnd::back);
    image.fill(0);
    std::vector<std::uint8_t> ramp(256);
    for (std::size_t i = 0; i < 256; ++i) ramp[i] = static_cast<std::uint8_t>(i);
    blend(context, colorOf(context, 255, 255, 255), image, 256, 1, {ramp.data(), 256, 256, 1, 3, 0, 0});
    EXPECT_THAT(std::vector<int>(image.data[3], image.data[3] + 256), ElementsAreArray(ramp));
}

TEST(FFBlendMaskTest, UnusedByteOfPackedRgbIsNotTouched) {
    const std::uint8_t full = 255;
    const FFDrawContext context = contextOf(AV_PIX_FMT_RGB0);
    Image image(context, 1, 1, 0, false, GuardedEnd::back);
    image.fill(33);
    blend(context, colorOf(context, 10, 20, 30), image, 1, 1, {&full, 1, 1, 1, 3, 0, 0});
    EXPECT_THAT(image.bytes(), ElementsAre(10, 20, 30, 33));
}

/// The U of a 4:2:0 image whose chroma is 0, drawn on with chroma of 255.
std::vector<int> blendChroma(int width, int height, const Mask& mask) {
    const FFDrawContext context = contextOf(AV_PIX_FMT_YUV420P, FF_DRAW_FULL_RANGE);
    Image image(context, width, height, 0, false, GuardedEnd::back);
    image.fill(0);
    FFDrawColor color = colorOf(context, 0, 0, 255);
    EXPECT_EQ(color.comp[1].u8[0], 255);
    blend(context, color, image, width, height, mask);
    return {image.data[1], image.data[1] + ((width + 1) / 2) * ((height + 1) / 2)};
}

TEST(FFBlendMaskTest, ChromaTakesTheAverageOfItsPixelsRoundedDown) {
    const std::uint8_t bytes[] = {10, 11, 20, 20, 12, 14, 20, 23};
    EXPECT_THAT(blendChroma(4, 2, {bytes, 4, 4, 2, 3, 0, 0}), ElementsAre(47 / 4, 83 / 4));
}

TEST(FFBlendMaskTest, ChromaBlocksBelongToTheImageAndNotToTheMask) {
    const std::uint8_t bytes[] = {200, 200, 200, 200};
    EXPECT_THAT(blendChroma(4, 4, {bytes, 2, 2, 2, 3, 1, 1}), ElementsAre(50, 50, 50, 50));
}

TEST(FFBlendMaskTest, ChromaAtTheEdgesOfOddImagesCountsTheMissingPixelsAsClear) {
    const std::uint8_t bytes[] = {200, 200, 200, 200, 200, 200, 200, 200, 200};
    EXPECT_THAT(blendChroma(3, 3, {bytes, 3, 3, 3, 3, 0, 0}), ElementsAre(200, 100, 100, 50));
}

TEST(FFBlendMaskTest, ChromaAtTheClippedEdgeOfAMaskCountsWhatLiesInsideTheImage) {
    const std::uint8_t bytes[] = {200, 200, 200, 200, 200, 200, 200, 200, 200};
    EXPECT_THAT(blendChroma(2, 2, {bytes, 3, 3, 3, 3, -2, -2}), ElementsAre(50));
}

TEST(FFBlendMaskTest, ClearMarginsOfAMaskDoNotShow) {
    std::mt19937 random(15);
    const FFDrawContext context = contextOf(AV_PIX_FMT_YUVA420P);
    std::uint8_t tight[9], wide[49] = {};
    for (int i = 0; i < 9; ++i) {
        tight[i] = static_cast<std::uint8_t>(random());
        wide[(i / 3 + 2) * 7 + i % 3 + 2] = tight[i];
    }
    Twins twins(context, 9, 9);
    blend(context, colorOf(context, someColor), twins.drawn, 9, 9, {tight, 3, 3, 3, 3, 3, 4});
    blend(context, colorOf(context, someColor), twins.model, 9, 9, {wide, 7, 7, 7, 3, 1, 2});
    EXPECT_EQ(twins.drawn.bytes(), twins.model.bytes());
}

}  // namespace
}  // namespace kvffmpeg
