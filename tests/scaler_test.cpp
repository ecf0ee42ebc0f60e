#include "kvffmpeg/scaler.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "ffmpeg_compat.h"
#include "support/guard_page.h"
#include "support/media.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

// The sanitizers have operators of their own, with zones around every block that they watch. There, pictures
// do not lie beside guard pages, and large allocations are not counted.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OWN_NEW 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OWN_NEW 0
#endif
#endif
#ifndef OWN_NEW
#define OWN_NEW 1
#endif

namespace {

/// Where array new, and with it the buffer of every picture, takes its memory from now.
struct ArrayNew {
    bool guarded = false;
    kvffmpeg::test::GuardedEnd end = kvffmpeg::test::GuardedEnd::back;
    unsigned char fill = 0;
};
ArrayNew arrayNew;

constexpr std::size_t largeBlock = 100'000;
int largeBlocks = 0;       ///< Blocks of `largeBlock` bytes or more that came from plain new ...
int largeArrayBlocks = 0;  ///< ... and from array new.

/// What the library asked libswscale.
struct Calls {
    int getContext = 0;
    int setDetails = 0;
    int needlessSetDetails = 0;  ///< With the flags that were read just before.
    int scale = 0;
    int readSourceFlag = -1;  ///< The flags that were read last.
    int readTargetFlag = -1;
};
Calls calls;

/// libswscale's own function behind one that this program puts before it.
template <typename Function>
Function* libswscale(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#if OWN_NEW
// Not inlined: g++ 12 would warn that free does not go with new.
[[gnu::noinline]] void* operator new(std::size_t size) {
    if (size >= largeBlock) ++largeBlocks;
    if (void* block = std::malloc(std::max<std::size_t>(size, 1))) return block;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](std::size_t size) {
    if (size >= largeBlock) ++largeArrayBlocks;
    if (arrayNew.guarded) return kvffmpeg::test::allocateGuarded(size, arrayNew.end, arrayNew.fill);
    if (void* block = std::malloc(std::max<std::size_t>(size, 1))) return block;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete[](void* block) noexcept {
    if (!kvffmpeg::test::freeGuarded(block)) std::free(block);
}
[[gnu::noinline]] void operator delete[](void* block, std::size_t /*size*/) noexcept {
    operator delete[](block);
}
#endif

// The library finds these before libswscale's, unless they are hidden like the rest of the program.
#pragma GCC visibility push(default)
extern "C" {
SwsContext* sws_getCachedContext(SwsContext* context, int srcW, int srcH, AVPixelFormat srcFormat, int dstW,
                                 int dstH, AVPixelFormat dstFormat, int flags, SwsFilter* srcFilter,
                                 SwsFilter* dstFilter, const double* param) {
    ++calls.getContext;
    return libswscale<decltype(sws_getCachedContext)>("sws_getCachedContext")(
        context, srcW, srcH, srcFormat, dstW, dstH, dstFormat, flags, srcFilter, dstFilter, param);
}
int sws_getColorspaceDetails(SwsContext* context, int** invTable, int* srcRange, int** table, int* dstRange,
                             int* brightness, int* contrast, int* saturation) {
    const int result = libswscale<decltype(sws_getColorspaceDetails)>("sws_getColorspaceDetails")(
        context, invTable, srcRange, table, dstRange, brightness, contrast, saturation);
    calls.readSourceFlag = *srcRange;
    calls.readTargetFlag = *dstRange;
    return result;
}
int sws_setColorspaceDetails(SwsContext* context, const int invTable[4], int srcRange, const int table[4],
                             int dstRange, int brightness, int contrast, int saturation) {
    ++calls.setDetails;
    if (srcRange == calls.readSourceFlag && dstRange == calls.readTargetFlag) ++calls.needlessSetDetails;
    return libswscale<decltype(sws_setColorspaceDetails)>("sws_setColorspaceDetails")(
        context, invTable, srcRange, table, dstRange, brightness, contrast, saturation);
}
int sws_scale(SwsContext* context, const uint8_t* const srcSlice[], const int srcStride[], int srcSliceY,
              int srcSliceH, uint8_t* const dst[], const int dstStride[]) {
    ++calls.scale;
    return libswscale<decltype(sws_scale)>("sws_scale")(context, srcSlice, srcStride, srcSliceY, srcSliceH,
                                                        dst, dstStride);
}
}
#pragma GCC visibility pop

namespace kvffmpeg {
namespace {

using test::GuardedEnd;
using test::randomPicture;
using test::visibleBytes;
using testing::Each;
using testing::Eq;
using testing::StrEq;
using testing::ThrowsMessage;

static_assert(!std::is_copy_constructible_v<Scaler> && !std::is_copy_assignable_v<Scaler>);
static_assert(!std::is_move_constructible_v<Scaler> && !std::is_move_assignable_v<Scaler>);

/// While it lives, pictures are allocated beside guard pages, with every byte set to `fill`.
class GuardedPictures {
public:
    explicit GuardedPictures(GuardedEnd end, unsigned char fill = 0xA5) { arrayNew = {true, end, fill}; }
    ~GuardedPictures() { arrayNew = {}; }
    GuardedPictures(const GuardedPictures&) = delete;
    GuardedPictures& operator=(const GuardedPictures&) = delete;
};

/// A picture's planes far apart from each other, with ample padding behind every row and plane.
class PaddedPlanes {
public:
    PaddedPlanes(AVPixelFormat format, rect_size_t size, std::uint8_t fill) : format_(format), size_(size) {
        const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
        count_ = format == AV_PIX_FMT_PAL8 ? 1 : av_pix_fmt_count_planes(format);
        for (int p = 0; p < count_; ++p) {
            const int shift = p == 1 || p == 2 ? descriptor->log2_chroma_h : 0;
            rows_[p] = (size.h + (1 << shift) - 1) >> shift;
            rowBytes_[p] = av_image_get_linesize(format, size.w, p);
            linesizes[p] = (av_image_get_linesize(format, (size.w + 127) / 64 * 64, p) + 127) / 64 * 64;
            planes[p] = allocate(
                static_cast<std::size_t>(linesizes[p]) * static_cast<std::size_t>(rows_[p] + 4), fill);
        }
        if (format == AV_PIX_FMT_PAL8) planes[1] = allocate(1024, fill);
    }

    void copyFrom(const Picture& picture) {
        int pixelBytes[4];
        av_image_fill_max_pixsteps(pixelBytes, nullptr, av_pix_fmt_desc_get(format_));
        for (int p = 0; p < count_; ++p) {
            for (int y = 0; y < rows_[p]; ++y) {
                const std::uint8_t* from =
                    picture.getPlanes()[p] + std::ptrdiff_t{y} * picture.getLinesize()[p];
                std::uint8_t* to = planes[p] + std::ptrdiff_t{y} * linesizes[p];
                std::copy_n(from, rowBytes_[p], to);
                if (size_.w % 2 != 0)
                    std::copy_n(to + rowBytes_[p] - pixelBytes[p], pixelBytes[p], to + rowBytes_[p]);
            }
        }
        if (format_ == AV_PIX_FMT_PAL8) std::copy_n(picture.getPlanes()[1], 1024, planes[1]);
    }

    std::vector<std::uint8_t> visible() const {
        std::vector<std::uint8_t> bytes;
        for (int p = 0; p < count_; ++p) {
            for (int y = 0; y < rows_[p]; ++y) {
                const std::uint8_t* row = planes[p] + std::ptrdiff_t{y} * linesizes[p];
                bytes.insert(bytes.end(), row, row + rowBytes_[p]);
            }
        }
        return bytes;
    }

    std::uint8_t* planes[4] = {};
    int linesizes[4] = {};

private:
    std::uint8_t* allocate(std::size_t bytes, std::uint8_t fill) {
        storage_.emplace_back(bytes + 1024, fill);
        void* start = storage_.back().data() + 256;
        std::size_t space = bytes + 512;
        return static_cast<std::uint8_t*>(std::align(64, bytes, start, space));
    }

    AVPixelFormat format_;
    rect_size_t size_;
    int count_ = 0;
    int rows_[4] = {};
    int rowBytes_[4] = {};
    std::vector<std::vector<std::uint8_t>> storage_;
};

/// What libswscale itself gives with ample padding on both sides. What it leaves unwritten is the source's
/// where only the range differs, else zero.
std::vector<std::uint8_t> plainScale(const Picture& source, rect_size_t size, AVPixelFormat format,
                                     AVColorRange range, int algorithm = SWS_BILINEAR) {
    PaddedPlanes from(source.pixelFormat(), source.size(), 0x3C);
    from.copyFrom(source);
    PaddedPlanes to(format, size, 0);
    if (source.size() == size && source.pixelFormat() == format) to.copyFrom(source);
    SwsContext* context = sws_getContext(source.width(), source.height(), source.pixelFormat(), size.w,
                                         size.h, format, algorithm, nullptr, nullptr, nullptr);
    if (!context) throw std::runtime_error("plainScale: no context");
    int* inverseTable;
    int* table;
    int sourceFlag, targetFlag, brightness, contrast, saturation;
    if ((source.colorRange() != AVCOL_RANGE_UNSPECIFIED || range != AVCOL_RANGE_UNSPECIFIED) &&
        sws_getColorspaceDetails(context, &inverseTable, &sourceFlag, &table, &targetFlag, &brightness,
                                 &contrast, &saturation) == 0) {
        const int newSource = source.colorRange() == AVCOL_RANGE_UNSPECIFIED
                                  ? sourceFlag
                                  : static_cast<int>(source.colorRange() == AVCOL_RANGE_JPEG);
        const int newTarget =
            range == AVCOL_RANGE_UNSPECIFIED ? targetFlag : static_cast<int>(range == AVCOL_RANGE_JPEG);
        if (newSource != sourceFlag || newTarget != targetFlag) {
            sws_setColorspaceDetails(context, inverseTable, newSource, table, newTarget, brightness, contrast,
                                     saturation);
        }
    }
    sws_scale(context, from.planes, from.linesizes, 0, source.height(), to.planes, to.linesizes);
    sws_freeContext(context);
    return to.visible();
}

std::string describe(const Picture& source, rect_size_t size, AVPixelFormat format) {
    return source.debugDescription() + " to " + std::to_string(size.w) + "x" + std::to_string(size.h) + " " +
           av_get_pix_fmt_name(format);
}

/// Scales beside guard pages; the result is laid out as promised and equals plainScale's.
void expectEqualsPlainScale(Scaler& scaler, const Picture& source, rect_size_t size, AVPixelFormat format,
                            AVColorRange range, GuardedEnd end = GuardedEnd::back) {
    SCOPED_TRACE(describe(source, size, format));
    Picture result;
    {
        const GuardedPictures guarded(end);
        result = scaler.scale(source, size, format, range);
    }
    ASSERT_FALSE(result.empty());
    EXPECT_EQ(result.size(), size);
    EXPECT_EQ(result.pixelFormat(), format);
    EXPECT_EQ(result.colorRange(), range);
    EXPECT_EQ(result.alignment(), 1);
    ASSERT_EQ(result.buffer()->size(), result.getVideoBufferSize());
    const std::vector<std::uint8_t> got = visibleBytes(result);
    const std::vector<std::uint8_t> want = plainScale(source, size, format, range, scaler.algorithm());
    ASSERT_EQ(got.size(), want.size());
    const auto difference = std::mismatch(got.begin(), got.end(), want.begin());
    ASSERT_TRUE(difference.first == got.end())
        << "at byte " << difference.first - got.begin() << " of " << got.size() << ": got "
        << int{*difference.first} << ", want " << int{*difference.second};
}

Picture guardedRandomPicture(rect_size_t size, AVPixelFormat format, AVColorRange range, GuardedEnd end) {
    const GuardedPictures guarded(end);
    return randomPicture(size, format, range);
}

class ScalerTest : public testing::Test {
protected:
    ScalerTest() { calls = {}; }
    ~ScalerTest() override { EXPECT_EQ(calls.needlessSetDetails, 0); }

    Scaler scaler_;
};

TEST_F(ScalerTest, CallsOfLibswscaleAreCounted) {
    scaler_.scale(randomPicture({16, 16}, AV_PIX_FMT_RGB24, AVCOL_RANGE_MPEG), {8, 8});
    EXPECT_EQ(calls.getContext, 1);
    EXPECT_EQ(calls.scale, 1);
    EXPECT_NE(calls.readTargetFlag, -1);
}

// Algorithms.

TEST_F(ScalerTest, AlgorithmIsBilinearAtFirst) {
    EXPECT_EQ(scaler_.algorithm(), SWS_BILINEAR);
}

TEST_F(ScalerTest, EveryAlgorithmNameSetsItsFlag) {
    const struct {
        const char* name;
        Scaler::ScalingAlgorithm algorithm;
        int value;
        int flag;
    } table[] = {
        {"fast_bilinear", Scaler::ScalingAlgorithm::fast_bilinear, 1, SWS_FAST_BILINEAR},
        {"bilinear", Scaler::ScalingAlgorithm::bilinear, 2, SWS_BILINEAR},
        {"bicubic", Scaler::ScalingAlgorithm::bicubic, 4, SWS_BICUBIC},
        {"x", Scaler::ScalingAlgorithm::x, 8, SWS_X},
        {"point", Scaler::ScalingAlgorithm::point, 16, SWS_POINT},
        {"area", Scaler::ScalingAlgorithm::area, 32, SWS_AREA},
        {"bicublin", Scaler::ScalingAlgorithm::bicublin, 64, SWS_BICUBLIN},
        {"gauss", Scaler::ScalingAlgorithm::gauss, 128, SWS_GAUSS},
        {"sinc", Scaler::ScalingAlgorithm::sinc, 256, SWS_SINC},
        {"lanczos", Scaler::ScalingAlgorithm::lanczos, 512, SWS_LANCZOS},
        {"spline", Scaler::ScalingAlgorithm::spline, 1024, SWS_SPLINE},
    };
    for (const auto& row : table) {
        scaler_.setAlgorithm(std::string(row.name));
        EXPECT_EQ(scaler_.algorithm(), row.algorithm) << row.name;
        EXPECT_EQ(static_cast<int>(scaler_.algorithm()), row.value) << row.name;
        EXPECT_EQ(row.value, row.flag) << row.name;
    }
}

TEST_F(ScalerTest, SetAlgorithmTakesTheEnumeration) {
    scaler_.setAlgorithm(Scaler::ScalingAlgorithm::sinc);
    EXPECT_EQ(scaler_.algorithm(), 256);
}

TEST_F(ScalerTest, UnknownAlgorithmNameThrowsAndChangesNothing) {
    scaler_.setAlgorithm(Scaler::area);
    EXPECT_THAT([&] { scaler_.setAlgorithm("Lanczos"); },
                ThrowsMessage<std::runtime_error>(StrEq("Unknown scaling algorithm \"Lanczos\"")));
    EXPECT_EQ(scaler_.algorithm(), Scaler::area);
}

TEST_F(ScalerTest, AlgorithmNamesAreNotTrimmedNorCompleted) {
    for (const char* name : {"", " lanczos", "lanczos ", "lancz", "512", "%s", "X"}) {
        EXPECT_THAT([&] { scaler_.setAlgorithm(std::string(name)); },
                    ThrowsMessage<std::runtime_error>(
                        StrEq("Unknown scaling algorithm \"" + std::string(name) + "\"")));
    }
}

TEST_F(ScalerTest, EveryAlgorithmGivesLibswscalesResult) {
    const Picture source = randomPicture({50, 38}, AV_PIX_FMT_YUV420P);
    for (int flag = 1; flag <= 1024; flag *= 2) {
        SCOPED_TRACE(testing::Message() << "algorithm " << flag);
        scaler_.setAlgorithm(static_cast<Scaler::ScalingAlgorithm>(flag));
        expectEqualsPlainScale(scaler_, source, {70, 22}, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
        expectEqualsPlainScale(scaler_, source, {32, 40}, AV_PIX_FMT_YUV444P, AVCOL_RANGE_UNSPECIFIED);
    }
}

TEST_F(ScalerTest, ChangedAlgorithmTakesEffectOnTheNextPicture) {
    const Picture source = randomPicture({40, 40}, AV_PIX_FMT_GRAY8);
    const auto bilinear = visibleBytes(scaler_.scale(source, {64, 64}));
    scaler_.setAlgorithm("lanczos");
    const auto lanczos = visibleBytes(scaler_.scale(source, {64, 64}));
    EXPECT_NE(lanczos, bilinear);
    EXPECT_EQ(lanczos, plainScale(source, {64, 64}, AV_PIX_FMT_GRAY8, AVCOL_RANGE_UNSPECIFIED, SWS_LANCZOS));
}

// What needs no conversion.

TEST_F(ScalerTest, SameSizeFormatAndRangeSharesTheBufferWithoutLibswscale) {
    const Picture source = randomPicture({640, 480}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG);
    for (const Picture& result :
         {scaler_.scale(source, {640, 480}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG),
          scaler_.scale(source, {640, 480}),
          scaler_.convertToColorspace(source, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG)}) {
        EXPECT_EQ(result.buffer(), source.buffer());
        EXPECT_EQ(result.colorRange(), AVCOL_RANGE_MPEG);
    }
    EXPECT_EQ(calls.getContext, 0);
}

TEST_F(ScalerTest, SameSizeAndFormatWithAnotherRangeGivesOwnUnchangedPixels) {
    const Picture source = randomPicture({64, 8}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG);
    const Picture result = scaler_.convertToColorspace(source, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG);
    EXPECT_NE(result.buffer(), source.buffer());
    EXPECT_EQ(result.colorRange(), AVCOL_RANGE_JPEG);
    EXPECT_EQ(visibleBytes(result), visibleBytes(source));
}

// What cannot be converted.

TEST_F(ScalerTest, TargetWithoutAreaGivesAnEmptyPictureWithoutLibswscale) {
    const Picture source = randomPicture({16, 16}, AV_PIX_FMT_YUV420P);
    for (const rect_size_t size :
         {rect_size_t{0, 100}, {100, 0}, {0, 0}, {-1, 100}, {100, -1}, {INT_MIN, INT_MIN}, {-16, -16}}) {
        EXPECT_TRUE(scaler_.scale(source, size).empty()) << size;
        EXPECT_TRUE(scaler_.scale(source, size, AV_PIX_FMT_RGB24, AVCOL_RANGE_JPEG).empty()) << size;
    }
    EXPECT_EQ(calls.getContext, 0);
}

TEST_F(ScalerTest, EmptySourceGivesAnEmptyPictureWithoutLibswscale) {
    EXPECT_TRUE(scaler_.scale(Picture(), {10, 10}).empty());
    EXPECT_TRUE(scaler_.scale(Picture(), {10, 10}, AV_PIX_FMT_RGB24, AVCOL_RANGE_MPEG).empty());
    EXPECT_TRUE(scaler_.scale(Picture(), {0, 0}).empty());
    EXPECT_TRUE(scaler_.convertToColorspace(Picture(), AV_PIX_FMT_RGB24, AVCOL_RANGE_MPEG).empty());
    EXPECT_EQ(calls.getContext, 0);
}

TEST_F(ScalerTest, SourceWithoutAreaGivesAnEmptyPictureWithoutLibswscale) {
    const Picture source = randomPicture({16, 16}, AV_PIX_FMT_RGBA);
    const Picture outside = source.crop({20, 0, 4, 4});
    ASSERT_FALSE(outside.empty());
    ASSERT_EQ(outside.width(), 0);
    EXPECT_TRUE(scaler_.scale(outside, {10, 10}).empty());
    EXPECT_EQ(calls.getContext, 0);
}

TEST_F(ScalerTest, SourceThatBorrowedNothingGivesAnEmptyPicture) {
    Picture source({16, 16}, AV_PIX_FMT_RGBA, AVCOL_RANGE_UNSPECIFIED, 1);
    source.setData(std::make_shared<MemBuffer>());
    EXPECT_TRUE(scaler_.scale(source, {8, 8}).empty());
}

TEST_F(ScalerTest, UnknownTargetFormatGivesAnEmptyPictureWithoutLibswscale) {
    const Picture source = randomPicture({16, 16}, AV_PIX_FMT_YUV420P);
    for (const AVPixelFormat format : {AV_PIX_FMT_NONE, AV_PIX_FMT_NB}) {
        EXPECT_TRUE(scaler_.scale(source, {8, 8}, format, AVCOL_RANGE_MPEG).empty()) << format;
        EXPECT_TRUE(scaler_.convertToColorspace(source, format, AVCOL_RANGE_MPEG).empty()) << format;
    }
    EXPECT_EQ(calls.getContext, 0);
}

TEST_F(ScalerTest, ConversionThatLibswscaleLacksGivesAnEmptyPictureAndTheNextOneWorks) {
    const Picture source = randomPicture({16, 16}, AV_PIX_FMT_YUV420P);
    for (const AVPixelFormat format : {AV_PIX_FMT_PAL8, AV_PIX_FMT_VAAPI}) {
        SCOPED_TRACE(av_get_pix_fmt_name(format));
        EXPECT_TRUE(scaler_.scale(source, {8, 8}, format, AVCOL_RANGE_UNSPECIFIED).empty());
        expectEqualsPlainScale(scaler_, source, {8, 8}, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
    }
}

TEST_F(ScalerTest, ResultThatNoPictureCanHoldThrowsBadAllocAndTheNextOneWorks) {
    const Picture source = randomPicture({16, 16}, AV_PIX_FMT_YUV420P);
    EXPECT_THROW(scaler_.scale(source, {100'000, 100'000}), std::bad_alloc);
    expectEqualsPlainScale(scaler_, source, {8, 8}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED);
}

TEST_F(ScalerTest, SidesBeyondLibswscalesSumsAreRefused) {
    const Picture source = randomPicture({16, 16}, AV_PIX_FMT_YUV420P);
    for (const rect_size_t size : {rect_size_t{INT_MAX, 1}, {1, INT_MAX}, {INT_MAX, INT_MAX}, {1 << 30, 1}}) {
        Picture result;
        try {
            result = scaler_.scale(source, size);
        } catch (const std::bad_alloc&) {  // when it is only the picture that is too large
        }
        EXPECT_TRUE(result.empty()) << size;
    }
}

// Colour ranges.

TEST_F(ScalerTest, ResultHasTheRequestedRangeEvenIfUnspecified) {
    for (const AVColorRange from : {AVCOL_RANGE_UNSPECIFIED, AVCOL_RANGE_MPEG, AVCOL_RANGE_JPEG}) {
        const Picture source = randomPicture({16, 16}, AV_PIX_FMT_YUV420P, from);
        for (const AVColorRange to : {AVCOL_RANGE_UNSPECIFIED, AVCOL_RANGE_MPEG, AVCOL_RANGE_JPEG}) {
            EXPECT_EQ(scaler_.scale(source, {8, 8}, AV_PIX_FMT_RGB24, to).colorRange(), to) << from;
        }
    }
}

TEST_F(ScalerTest, ScaleToASizeKeepsFormatAndRange) {
    const Picture source = randomPicture({16, 16}, AV_PIX_FMT_YUV422P, AVCOL_RANGE_JPEG);
    const Picture result = scaler_.scale(source, {10, 12});
    EXPECT_EQ(result.debugDescription(), "10x12, yuv422p (pc)");
    EXPECT_EQ(visibleBytes(result), plainScale(source, {10, 12}, AV_PIX_FMT_YUV422P, AVCOL_RANGE_JPEG));
}

TEST_F(ScalerTest, SourceRangeDecidesWhatIsWhite) {
    Picture limited({16, 2}, AV_PIX_FMT_YUV444P, AVCOL_RANGE_MPEG, 1);
    std::memset(limited.getPlanes()[0], 235, 32);
    std::memset(limited.getPlanes()[1], 128, 64);
    Picture full({16, 2}, AV_PIX_FMT_YUV444P, AVCOL_RANGE_JPEG, 1);
    full.fill(limited.buffer()->data(), limited.buffer()->size());
    EXPECT_THAT(visibleBytes(scaler_.convertToColorspace(limited, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED)),
                Each(testing::Ge(254)));
    EXPECT_THAT(visibleBytes(scaler_.convertToColorspace(full, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED)),
                Each(testing::AllOf(testing::Ge(234), testing::Le(236))));
}

TEST_F(ScalerTest, FullRangeRgbIsAskedForOnceAtMost) {
    const Picture source = randomPicture({64, 8}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG);
    const Picture first = scaler_.convertToColorspace(source, AV_PIX_FMT_RGB24, AVCOL_RANGE_JPEG);
    const int afterFirst = calls.setDetails;
    const Picture second = scaler_.convertToColorspace(source, AV_PIX_FMT_RGB24, AVCOL_RANGE_JPEG);
    EXPECT_EQ(calls.readSourceFlag, 0);
    // FFmpeg before 5 reports 0 for ever, so that it has to be asked again.
    const int again = calls.readTargetFlag == 1 ? 0 : 1;
    EXPECT_EQ(calls.setDetails, afterFirst + again);
    EXPECT_EQ(visibleBytes(second), visibleBytes(first));
}

TEST_F(ScalerTest, FlagThatTheContextHasAlreadyIsNotSetAgain) {
    const Picture source = randomPicture({64, 8}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG);
    scaler_.convertToColorspace(source, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
    EXPECT_EQ(calls.setDetails, 1);
    scaler_.convertToColorspace(source, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
    EXPECT_EQ(calls.setDetails, 1);
    EXPECT_EQ(calls.readSourceFlag, 1);
}

TEST_F(ScalerTest, UnspecifiedRangesLeaveLibswscaleAlone) {
    scaler_.scale(randomPicture({64, 8}, AV_PIX_FMT_YUV420P), {32, 8}, AV_PIX_FMT_RGB24,
                  AVCOL_RANGE_UNSPECIFIED);
    EXPECT_EQ(calls.readSourceFlag, -1);
    EXPECT_EQ(calls.setDetails, 0);
    EXPECT_EQ(calls.scale, 1);
}

TEST_F(ScalerTest, RangeThatWasSetStaysForLaterPicturesOfUnspecifiedRange) {
    const Picture unspecified = randomPicture({64, 8}, AV_PIX_FMT_YUV420P);
    Picture full({64, 8}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG, 1);
    full.fill(unspecified.buffer()->data(), unspecified.buffer()->size());
    const auto convert = [](Scaler& scaler, const Picture& source) {
        return visibleBytes(scaler.convertToColorspace(source, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED));
    };
    const auto asFull = convert(scaler_, full);
    EXPECT_EQ(convert(scaler_, unspecified), asFull);
    Scaler fresh;
    EXPECT_NE(convert(fresh, unspecified), asFull);
}

TEST_F(ScalerTest, AnyOtherSpecifiedRangeCountsAsLimited) {
    const Picture source = randomPicture({64, 8}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG);
    Picture odd({64, 8}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_NB, 1);
    odd.fill(source.buffer()->data(), source.buffer()->size());
    scaler_.convertToColorspace(source, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
    scaler_.convertToColorspace(odd, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
    EXPECT_EQ(calls.setDetails, 2);
    scaler_.convertToColorspace(odd, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
    EXPECT_EQ(calls.readSourceFlag, 0);
}

// Memory: what libswscale's plain call into tightly packed planes gets wrong.

TEST_F(ScalerTest, PicturesOfTheMatrixLieBesideGuardPages) {
    if (!OWN_NEW) GTEST_SKIP() << "the sanitizer's own operators are in force";
    const Picture source = randomPicture({10, 10}, AV_PIX_FMT_RGB24);
    Picture result;
    {
        const GuardedPictures guarded(GuardedEnd::back);
        result = scaler_.scale(source, {4, 4});
    }
    ASSERT_TRUE(test::isGuarded(result.buffer()->data()));
    unsigned char* end = result.buffer()->data() + 48 + MemBuffer::tailPadding;
    EXPECT_EQ(end[-1], 0);
    EXPECT_DEATH(*static_cast<volatile unsigned char*>(end) = 1, "");
}

/// Whether the operators of this file are in force: sanitizers and valgrind bring their own.
bool countsBlocks() {
    largeArrayBlocks = 0;
    unsigned char* volatile block = new unsigned char[1U << 24];
    delete[] block;
    return OWN_NEW && largeArrayBlocks == 1;
}

TEST_F(ScalerTest, CommonSizesAreConvertedWithoutACopy) {
    if (!countsBlocks()) GTEST_SKIP() << "other operators new are in force";
    for (const rect_size_t size : {rect_size_t{1920, 1080}, {1280, 720}, {640, 480}}) {
        for (const AVPixelFormat from :
             {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_YUV422P, AV_PIX_FMT_RGB24}) {
            const Picture source = randomPicture(size, from, AVCOL_RANGE_MPEG);
            for (const AVPixelFormat to :
                 {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA, AV_PIX_FMT_BGRA}) {
                for (const rect_size_t targetSize : {size, {size.w / 2, size.h / 2}}) {
                    SCOPED_TRACE(describe(source, targetSize, to));
                    scaler_.scale(source, targetSize, to,
                                  AVCOL_RANGE_JPEG);  // libswscale's own buffers aside
                    largeBlocks = 0;
                    largeArrayBlocks = 0;
                    Scaler fresh;
                    ASSERT_FALSE(fresh.scale(source, targetSize, to, AVCOL_RANGE_JPEG).empty());
                    EXPECT_EQ(largeArrayBlocks, 1) << "the result";
                    EXPECT_EQ(largeBlocks, 0);
                }
            }
        }
    }
}

TEST_F(ScalerTest, OddSizesKeepTheScratchForTheNextPicture) {
    if (!countsBlocks()) GTEST_SKIP() << "other operators new are in force";
    const Picture source = randomPicture({854, 480}, AV_PIX_FMT_YUV420P);
    scaler_.scale(source, {642, 360}, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
    largeBlocks = 0;
    scaler_.scale(source, {642, 360}, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
    EXPECT_EQ(largeBlocks, 0);
}

TEST_F(ScalerTest, WidthsOf642And854And1366AreWrittenToTheLastColumn) {
    for (const int width : {642, 854, 1366}) {
        const Picture source =
            guardedRandomPicture({width, 6}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED, GuardedEnd::back);
        for (const AVPixelFormat format :
             {AV_PIX_FMT_RGB24, AV_PIX_FMT_BGR24, AV_PIX_FMT_RGBA, AV_PIX_FMT_BGRA, AV_PIX_FMT_RGB565}) {
            expectEqualsPlainScale(scaler_, source, source.size(), format, AVCOL_RANGE_UNSPECIFIED);
        }
    }
}

TEST_F(ScalerTest, SemiPlanar854x480BecomesPlanar) {
    for (const AVPixelFormat format : {AV_PIX_FMT_NV12, AV_PIX_FMT_NV21}) {
        for (const GuardedEnd end : {GuardedEnd::front, GuardedEnd::back}) {
            const Picture source = guardedRandomPicture({854, 480}, format, AVCOL_RANGE_MPEG, end);
            expectEqualsPlainScale(scaler_, source, {854, 480}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG, end);
        }
    }
}

TEST_F(ScalerTest, TinyPicturesStayInsideTheirBuffersAndPlanesApart) {
    for (int side = 1; side <= 6; ++side) {
        for (const AVPixelFormat from :
             {AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_GRAY8}) {
            const Picture source =
                guardedRandomPicture({side, side}, from, AVCOL_RANGE_UNSPECIFIED, GuardedEnd::back);
            for (const AVPixelFormat to : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA}) {
                if (from == to) continue;
                expectEqualsPlainScale(scaler_, source, {side, side}, to, AVCOL_RANGE_UNSPECIFIED);
                expectEqualsPlainScale(scaler_, source, {7 - side, side}, to, AVCOL_RANGE_UNSPECIFIED);
            }
        }
    }
}

TEST_F(ScalerTest, RangeChangeCopiesWhatLibswscaleLeavesOut) {
    for (const AVPixelFormat format :
         {AV_PIX_FMT_NV12, AV_PIX_FMT_NV21, AV_PIX_FMT_P010LE, AV_PIX_FMT_MONOBLACK}) {
        for (const int width : {128, 33, 854}) {
            const Picture source = randomPicture({width, 6}, format, AVCOL_RANGE_MPEG);
            SCOPED_TRACE(describe(source, source.size(), format));
            const GuardedPictures guarded(GuardedEnd::back);
            const Picture result = scaler_.convertToColorspace(source, format, AVCOL_RANGE_JPEG);
            EXPECT_NE(result.buffer(), source.buffer());
            // libswscale 9 converts them, all but the last format; of 8 it is not known which it does.
            const bool mayConvert = compat::ffmpegRelease >= 8 && format != AV_PIX_FMT_MONOBLACK;
            const bool mayCopy = compat::ffmpegRelease < 9 || format == AV_PIX_FMT_MONOBLACK;
            const std::vector<std::uint8_t> bytes = visibleBytes(result);
            EXPECT_TRUE((mayCopy && bytes == visibleBytes(source)) ||
                        (mayConvert && bytes == plainScale(source, source.size(), format, AVCOL_RANGE_JPEG)));
        }
    }
}

TEST_F(ScalerTest, EarlierPicturesDoNotChangeTheRangeOfLaterOnes) {
    // Each of these leaves a context whose ranges are not those of the next one.
    const std::pair<AVPixelFormat, AVPixelFormat> conversions[] = {
        {AV_PIX_FMT_GRAY8, AV_PIX_FMT_GRAY16LE},   {AV_PIX_FMT_GRAY8, AV_PIX_FMT_YUV444P},
        {AV_PIX_FMT_YUVJ444P, AV_PIX_FMT_YUV444P}, {AV_PIX_FMT_YUV444P, AV_PIX_FMT_YUV420P},
        {AV_PIX_FMT_YUV444P, AV_PIX_FMT_YUVJ420P}, {AV_PIX_FMT_YUV444P, AV_PIX_FMT_YUV422P},
        {AV_PIX_FMT_RGB24, AV_PIX_FMT_YUV444P},    {AV_PIX_FMT_YUV444P, AV_PIX_FMT_GRAY8}};
    for (int round = 0; round < 2; ++round) {
        for (const auto& [from, to] : conversions) {
            const Picture source = randomPicture({64, 16}, from);
            expectEqualsPlainScale(scaler_, source, source.size(), to, AVCOL_RANGE_UNSPECIFIED);
        }
    }
}

TEST_F(ScalerTest, RangeSetForAFullRangeFormatIsNotInherited) {
    const Picture source = randomPicture({64, 16}, AV_PIX_FMT_YUVJ444P);
    scaler_.convertToColorspace(source, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG);
    expectEqualsPlainScale(scaler_, source, source.size(), AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED);
}

TEST_F(ScalerTest, ChromaThatLibswscaleLeavesOutIsZero) {
    // libswscale converts pairs of columns and rows only.
    for (const AVPixelFormat format : {AV_PIX_FMT_YUYV422, AV_PIX_FMT_UYVY422}) {
        for (const rect_size_t size : {rect_size_t{33, 4}, {64, 5}, {31, 3}}) {
            const Picture source = randomPicture(size, format);
            expectEqualsPlainScale(scaler_, source, size, AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED);
        }
    }
}

TEST_F(ScalerTest, ScratchOfALargerPictureLeavesNoTraceInASmallerOne) {
    const Picture large = randomPicture({203, 51}, AV_PIX_FMT_RGBA);
    expectEqualsPlainScale(scaler_, large, {203, 51}, AV_PIX_FMT_YUVA420P, AVCOL_RANGE_UNSPECIFIED);
    const Picture small = randomPicture({33, 3}, AV_PIX_FMT_YUYV422);
    expectEqualsPlainScale(scaler_, small, {33, 3}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED);
    expectEqualsPlainScale(scaler_, large, {203, 51}, AV_PIX_FMT_YUVA420P, AVCOL_RANGE_UNSPECIFIED);
}

TEST_F(ScalerTest, EarlierPictureLeavesNoTraceInWhatLibswscaleDoesNotWrite) {
    const Picture first = randomPicture({33, 3}, AV_PIX_FMT_RGB24);
    expectEqualsPlainScale(scaler_, first, {33, 3}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED);
    const Picture second = randomPicture({33, 3}, AV_PIX_FMT_YUYV422);
    expectEqualsPlainScale(scaler_, second, {33, 3}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED);
}

TEST_F(ScalerTest, CropsAreConvertedLikeTheirCompactCopies) {
    for (const GuardedEnd end : {GuardedEnd::front, GuardedEnd::back}) {
        for (const AVPixelFormat format :
             {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA, AV_PIX_FMT_GRAY8}) {
            const Picture whole = guardedRandomPicture({256, 64}, format, AVCOL_RANGE_UNSPECIFIED, end);
            for (const rect_t part : {rect_t{128, 32, 128, 32},
                                      {0, 0, 128, 32},
                                      {2, 2, 254, 62},
                                      {223, 31, 33, 33},
                                      {64, 0, 64, 64},
                                      {250, 60, 6, 4},
                                      {17, 3, 1, 1}}) {
                const Picture view = whole.crop(part);
                if (view.width() == 0 || view.height() == 0) continue;
                Picture compact = view;
                compact.makeEditable();
                SCOPED_TRACE(testing::Message() << view << " at " << part);
                for (const AVPixelFormat to : {AV_PIX_FMT_YUV444P, AV_PIX_FMT_BGRA}) {
                    const Picture result = scaler_.convertToColorspace(view, to, AVCOL_RANGE_UNSPECIFIED);
                    EXPECT_EQ(visibleBytes(result),
                              plainScale(compact, compact.size(), to, AVCOL_RANGE_UNSPECIFIED));
                }
                EXPECT_EQ(visibleBytes(scaler_.scale(view, {50, 20})),
                          plainScale(compact, {50, 20}, format, AVCOL_RANGE_UNSPECIFIED));
            }
        }
    }
}

TEST_F(ScalerTest, PaddedRowsAreConvertedLikePackedOnes) {
    const Picture packed = randomPicture({96, 10}, AV_PIX_FMT_YUV420P);
    Picture padded({96, 10}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED, 64);
    padded.bitblt(packed, {0, 0});
    EXPECT_EQ(visibleBytes(scaler_.convertToColorspace(padded, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED)),
              plainScale(packed, {96, 10}, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED));
}

TEST_F(ScalerTest, BorrowedBuffersNeedNoSpareBytes) {
    for (const rect_size_t size : {rect_size_t{64, 10}, {32, 4}, {31, 3}}) {
        const Picture owned = randomPicture(size, AV_PIX_FMT_YUV420P);
        const std::vector<std::uint8_t> bytes = visibleBytes(owned);
        const auto free = [](void* block) { test::freeGuarded(block); };
        const std::unique_ptr<void, decltype(free)> outside(
            test::allocateGuarded(bytes.size(), GuardedEnd::back, 0), free);
        std::memcpy(outside.get(), bytes.data(), bytes.size());
        Picture borrowed = owned;
        borrowed.setData(
            std::make_shared<MemBuffer>(bytes.size(), static_cast<unsigned char*>(outside.get())));
        for (const AVPixelFormat format : {AV_PIX_FMT_RGB24, AV_PIX_FMT_YUV444P}) {
            expectEqualsPlainScale(scaler_, borrowed, size, format, AVCOL_RANGE_UNSPECIFIED);
        }
    }
}

TEST_F(ScalerTest, FullRangeFormatsEqualLibswscale) {
    for (const AVPixelFormat format : {AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUVJ444P}) {
        const Picture source = randomPicture({64, 6}, format, AVCOL_RANGE_JPEG);
        expectEqualsPlainScale(scaler_, source, {64, 6}, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED);
        expectEqualsPlainScale(scaler_, source, {50, 7}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG);
    }
}

TEST_F(ScalerTest, SourceIsNotChanged) {
    const Picture source = randomPicture({33, 7}, AV_PIX_FMT_RGB24);
    const auto before = visibleBytes(source);
    const Picture result = scaler_.scale(source, {12, 5}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG);
    EXPECT_NE(result.buffer(), source.buffer());
    EXPECT_EQ(visibleBytes(source), before);
}

constexpr AVPixelFormat matrixFormats[] = {
    AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV422P, AV_PIX_FMT_YUV444P, AV_PIX_FMT_YUVA420P,    AV_PIX_FMT_NV12,
    AV_PIX_FMT_NV21,    AV_PIX_FMT_YUYV422, AV_PIX_FMT_UYVY422, AV_PIX_FMT_RGB24,       AV_PIX_FMT_BGR24,
    AV_PIX_FMT_RGBA,    AV_PIX_FMT_ARGB,    AV_PIX_FMT_GRAY8,   AV_PIX_FMT_YUV420P10LE,
};

class ScalerMatrixTest : public testing::TestWithParam<AVPixelFormat> {
protected:
    /// Every width from 1 to 100, with heights from 1 to 8 in turn, beside guard pages at either end.
    /// `targetSize` says what to make of a size.
    template <typename TargetSize>
    void convertToEveryFormat(TargetSize targetSize) {
        Scaler scaler;
        for (int width = 1; width <= 100; ++width) {
            int turn = width;
            for (const AVPixelFormat format : matrixFormats) {
                ++turn;
                const rect_size_t size{width, 1 + turn % 8};
                const GuardedEnd end = turn % 3 == 0 ? GuardedEnd::front : GuardedEnd::back;
                // Equal ranges would make the conversion of a format into itself no conversion.
                const bool changesRange = format == GetParam() || turn % 5 == 0;
                const Picture source = guardedRandomPicture(
                    size, GetParam(), changesRange ? AVCOL_RANGE_MPEG : AVCOL_RANGE_UNSPECIFIED, end);
                expectEqualsPlainScale(scaler, source, targetSize(size, turn), format,
                                       changesRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_UNSPECIFIED, end);
                if (HasFatalFailure()) return;
            }
        }
    }
};

TEST_P(ScalerMatrixTest, SameSizeEqualsLibswscaleBesideGuardPages) {
    convertToEveryFormat([](rect_size_t size, int) { return size; });
}

TEST_P(ScalerMatrixTest, OtherSizesEqualLibswscaleBesideGuardPages) {
    convertToEveryFormat([](rect_size_t size, int turn) {
        return rect_size_t{1 + size.w * 37 % 100, 1 + (size.h * 5 + turn / 3) % 9};
    });
}

std::string formatName(const testing::TestParamInfo<AVPixelFormat>& info) {
    return av_get_pix_fmt_name(info.param);
}

INSTANTIATE_TEST_SUITE_P(Formats, ScalerMatrixTest, testing::ValuesIn(matrixFormats), formatName);
INSTANTIATE_TEST_SUITE_P(Palette, ScalerMatrixTest, testing::Values(AV_PIX_FMT_PAL8), formatName);

}  // namespace
}  // namespace kvffmpeg
