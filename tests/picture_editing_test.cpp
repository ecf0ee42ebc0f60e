#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <numeric>
#include <random>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include "kvffmpeg/picture.h"
#include "kvffmpeg/scaler.h"
#include "support/guarded_picture.h"
#include "support/media.h"
#include "support/test_heap.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace kvffmpeg {
namespace {

using test::GuardedEnd;
using test::GuardedPicture;
using test::pictureFormats;
using test::randomPicture;
using test::visibleBytes;
using testing::Each;
using testing::StrEq;
using testing::ThrowsMessage;

using Bytes = std::vector<std::uint8_t>;

Bytes bufferBytes(const Picture& picture) {
    return {picture.buffer()->data(), picture.buffer()->data() + picture.buffer()->size()};
}

Picture ownCopy(const Picture& picture) {
    Picture copy(picture.size(), picture.pixelFormat(), picture.colorRange(), picture.alignment());
    copy.fill(picture.buffer()->data(), picture.buffer()->size());
    return copy;
}

std::uint8_t* at(Picture& picture, int plane, std::ptrdiff_t x, std::ptrdiff_t y) {
    return picture.getPlanes()[plane] + y * picture.getLinesize()[plane] + x;
}
std::uint8_t sample(const Picture& picture, int plane, std::ptrdiff_t x, std::ptrdiff_t y) {
    return picture.getPlanes()[plane][y * picture.getLinesize()[plane] + x];
}

Picture solid(rect_size_t size, AVPixelFormat format, std::vector<std::uint8_t> pixel,
              AVColorRange range = AVCOL_RANGE_UNSPECIFIED) {
    Picture picture(size, format, range);
    MemBuffer& buffer = *picture.buffer();
    for (std::size_t i = 0; i < buffer.size(); ++i) buffer.data()[i] = pixel[i % pixel.size()];
    return picture;
}

/// Random pixels of four bytes, alpha last: runs of clear, of opaque and of anything.
Picture randomOverlay(rect_size_t size, AVPixelFormat format, unsigned seed,
                      AVColorRange range = AVCOL_RANGE_UNSPECIFIED) {
    Picture picture = randomPicture(size, format, range, 1, seed);
    std::mt19937 random(seed);
    std::uint8_t* bytes = picture.buffer()->data();
    for (std::size_t i = 0, run = 0, kind = 0; i < picture.buffer()->size() / 4; ++i) {
        if (run-- == 0) {
            run = random() % 50;
            kind = random() % 3;
        }
        if (kind < 2) bytes[4 * i + 3] = kind == 0 ? 0 : 255;
    }
    return picture;
}

std::uint8_t blended(int d, int s, int a) {
    return static_cast<std::uint8_t>((s * a + d * (255 - a)) / 255);
}

std::int64_t even(std::int64_t value) {
    return value - (value % 2 != 0 ? 1 : 0);
}

/// Where an overlay is seen: [x0, x1) x [y0, y1) of the destination; its corner is at (x, y).
struct Placed {
    Placed(const Picture& destination, const Picture& overlay, point_t position)
        : x(even(position.x)),
          y(even(position.y)),
          x0(std::max<std::int64_t>(x, 0)),
          y0(std::max<std::int64_t>(y, 0)),
          x1(std::min<std::int64_t>(x + overlay.width(), destination.width())),
          y1(std::min<std::int64_t>(y + overlay.height(), destination.height())) {}
    bool visible() const { return x0 < x1 && y0 < y1; }
    std::int64_t x, y, x0, y0, x1, y1;
};

/// What compose makes of a planar 4:2:0 destination and an overlay of four bytes a pixel, pixel by pixel.
void composeNaively(Picture& destination, const Picture& overlay, point_t position) {
    const Placed placed(destination, overlay, position);
    if (!placed.visible()) return;
    const auto w = static_cast<int>(placed.x1 - placed.x0);
    const auto h = static_cast<int>(placed.y1 - placed.y0);
    Picture part({w, h}, overlay.pixelFormat(), overlay.colorRange());
    for (int y = 0; y < h; ++y) {
        for (int i = 0; i < 4 * w; ++i) {
            *at(part, 0, i, y) = sample(overlay, 0, 4 * (placed.x0 - placed.x) + i, placed.y0 - placed.y + y);
        }
    }
    const Picture converted =
        Scaler().convertToColorspace(part, destination.pixelFormat(), destination.colorRange());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            std::uint8_t* d = at(destination, 0, placed.x0 + x, placed.y0 + y);
            *d = blended(*d, sample(converted, 0, x, y), sample(part, 0, 4 * x + 3, y));
        }
    }
    for (int plane : {1, 2}) {
        for (int y = 0; y < (h + 1) / 2; ++y) {
            for (int x = 0; x < w / 2; ++x) {
                std::uint8_t* d = at(destination, plane, placed.x0 / 2 + x, placed.y0 / 2 + y);
                *d = blended(*d, sample(converted, plane, x, y), sample(part, 0, 8 * x + 3, 2 * y));
            }
        }
    }
}

/// What compose makes of two YUV 4:2:0 pictures.
void copyNaively(Picture& destination, const Picture& overlay, point_t position) {
    const Placed placed(destination, overlay, position);
    if (!placed.visible()) return;
    const std::int64_t w = even(placed.x1 - placed.x0), h = even(placed.y1 - placed.y0);
    const std::int64_t x = placed.x & ~2, y = placed.y & ~2;  // the corner's place, not the visible part's
    for (int plane : {0, 1, 2}) {
        const int divisor = plane == 0 ? 1 : 2;
        for (std::int64_t row = 0; row < h / divisor; ++row) {
            for (std::int64_t column = 0; column < w / divisor; ++column) {
                const std::int64_t toX = x / divisor + column, toY = y / divisor + row;
                if (toX < 0 || toY < 0) continue;
                *at(destination, plane, toX, toY) =
                    sample(overlay, plane, (placed.x0 - placed.x) / divisor + column,
                           (placed.y0 - placed.y) / divisor + row);
            }
        }
    }
}

template <typename Reference>
void expectLike(Reference reference, const Picture& destination, const Picture& overlay, point_t position) {
    SCOPED_TRACE(testing::Message() << overlay << " onto " << destination << " at " << position);
    Picture expected = ownCopy(destination), actual = ownCopy(destination);
    reference(expected, overlay, position);
    const Bytes overlayBefore = bufferBytes(overlay);
    actual.compose(overlay, position);
    ASSERT_EQ(bufferBytes(actual), bufferBytes(expected));
    ASSERT_EQ(bufferBytes(overlay), overlayBefore);
}

/// Composes and expects no byte of the destination's buffer to change.
void expectNothingComposed(Picture& destination, const Picture& overlay, point_t position) {
    const Bytes before = bufferBytes(destination);
    destination.compose(overlay, position);
    EXPECT_EQ(bufferBytes(destination), before) << overlay << " onto " << destination << " at " << position;
}

Picture noise(rect_size_t size, AVPixelFormat format = AV_PIX_FMT_YUV420P) {
    return randomPicture(size, format, AVCOL_RANGE_MPEG, 1, 99);
}

// ---- compose: blending

TEST(PictureComposeTest, TransparentOverlayChangesNothing) {
    Picture destination = noise({40, 30});
    Picture overlay = randomPicture({40, 30}, AV_PIX_FMT_RGBA);
    for (std::size_t i = 3; i < overlay.buffer()->size(); i += 4) overlay.buffer()->data()[i] = 0;
    expectNothingComposed(destination, overlay, {0, 0});
}

TEST(PictureComposeTest, OpaqueOverlayReplacesLumaAndChromaByTheConverted) {
    for (AVPixelFormat format : {AV_PIX_FMT_RGBA, AV_PIX_FMT_BGRA}) {
        Picture destination = noise({70, 30});
        Picture overlay = randomPicture({70, 30}, format);
        for (std::size_t i = 3; i < overlay.buffer()->size(); i += 4) overlay.buffer()->data()[i] = 255;
        destination.compose(overlay, {0, 0});
        const Picture converted = Scaler().convertToColorspace(overlay, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG);
        EXPECT_EQ(visibleBytes(destination), visibleBytes(converted));
    }
}

TEST(PictureComposeTest, DividesBy255AndRoundsDown) {
    Picture destination = solid({4, 4}, AV_PIX_FMT_YUV420P, {10}, AVCOL_RANGE_JPEG);
    const Picture overlay = solid({4, 4}, AV_PIX_FMT_RGBA, {200, 200, 200, 100});
    ASSERT_EQ(sample(Scaler().convertToColorspace(overlay, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG), 0, 0, 0),
              200);
    destination.compose(overlay, {0, 0});
    EXPECT_EQ(sample(destination, 0, 0, 0), 84);  // 21550 / 255 is 84.5
}

TEST(PictureComposeTest, ConvertsToTheRangeOfTheDestination) {
    const Picture white = solid({4, 4}, AV_PIX_FMT_BGRA, {255});
    Picture limited = solid({4, 4}, AV_PIX_FMT_YUV420P, {0}, AVCOL_RANGE_MPEG);
    Picture full = solid({4, 4}, AV_PIX_FMT_YUV420P, {0}, AVCOL_RANGE_JPEG);
    limited.compose(white, {0, 0});
    full.compose(white, {0, 0});
    EXPECT_EQ(sample(limited, 0, 0, 0), 235);
    EXPECT_EQ(sample(full, 0, 0, 0), 255);
}

TEST(PictureComposeTest, PositionIsRoundedDownToEven) {
    for (const auto& [position, x, y] :
         {std::tuple{point_t{5, 7}, 4, 6}, {point_t{4, 6}, 4, 6}, {point_t{-1, -1}, -2, -2}}) {
        Picture destination = solid({20, 20}, AV_PIX_FMT_YUV420P, {0}, AVCOL_RANGE_JPEG);
        destination.compose(solid({4, 4}, AV_PIX_FMT_RGBA, {255}), position);
        for (int row = 0; row < 20; ++row) {
            for (int column = 0; column < 20; ++column) {
                const bool inside = column >= x && column < x + 4 && row >= y && row < y + 4;
                ASSERT_EQ(sample(destination, 0, column, row), inside ? 255 : 0)
                    << position << " column " << column << " row " << row;
            }
        }
    }
}

TEST(PictureComposeTest, TopLeftPixelOfEachBlockDecidesForChroma) {
    const Picture before = noise({4, 4});
    for (int decisive = 0; decisive < 4; ++decisive) {
        Picture overlay = solid({4, 4}, AV_PIX_FMT_RGBA, {255, 0, 0, 0});
        *at(overlay, 0, 4 * (decisive % 2) + 3, decisive / 2) = 255;  // one pixel of the first block
        Picture destination = ownCopy(before);
        destination.compose(overlay, {0, 0});
        const Picture converted = Scaler().convertToColorspace(overlay, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG);
        for (int plane : {1, 2}) {
            EXPECT_EQ(sample(destination, plane, 0, 0),
                      sample(decisive == 0 ? converted : before, plane, 0, 0));
            EXPECT_EQ(sample(destination, plane, 1, 0), sample(before, plane, 1, 0));
        }
    }
}

TEST(PictureComposeTest, OddWidthLeavesTheChromaOfTheLastColumn) {
    const Picture before = noise({5, 4});
    Picture destination = ownCopy(before);
    destination.compose(solid({5, 4}, AV_PIX_FMT_RGBA, {255}), {0, 0});
    EXPECT_EQ(sample(destination, 0, 4, 0), 235);
    for (int plane : {1, 2}) {
        EXPECT_EQ(sample(destination, plane, 1, 0), 128);
        EXPECT_EQ(sample(destination, plane, 2, 0), sample(before, plane, 2, 0));
        EXPECT_EQ(sample(destination, plane, 2, 1), sample(before, plane, 2, 1));
    }
}

TEST(PictureComposeTest, OddHeightBlendsTheChromaOfTheLastRow) {
    Picture destination = noise({4, 5});
    destination.compose(solid({4, 3}, AV_PIX_FMT_RGBA, {255}), {0, 2});
    for (int plane : {1, 2}) EXPECT_EQ(sample(destination, plane, 1, 2), 128);
}

TEST(PictureComposeTest, EqualsTheFormulaForAnySizeAndPosition) {
    std::mt19937 random(7);
    const auto between = [&](int low, int high) {
        return low + static_cast<int>(random() % static_cast<unsigned>(high - low + 1));
    };
    for (unsigned round = 0; round < 400; ++round) {
        const auto range = static_cast<AVColorRange>(between(0, 2));
        const Picture destination = randomPicture({between(1, 150), between(1, 40)}, AV_PIX_FMT_YUV420P,
                                                  range, round % 3 == 0 ? 32 : 1, round);
        const Picture overlay = randomOverlay({between(1, 150), between(1, 40)},
                                              round % 2 == 0 ? AV_PIX_FMT_RGBA : AV_PIX_FMT_BGRA, round);
        const point_t position{between(-overlay.width() - 2, destination.width() + 2),
                               between(-overlay.height() - 2, destination.height() + 2)};
        ASSERT_NO_FATAL_FAILURE(expectLike(composeNaively, destination, overlay, position)) << round;
    }
}

TEST(PictureComposeTest, WideRowsEqualTheFormula) {
    for (int width : {640, 1279, 1920}) {
        ASSERT_NO_FATAL_FAILURE(expectLike(composeNaively, noise({1280, 34}),
                                           randomOverlay({width, 34}, AV_PIX_FMT_BGRA, 3), {0, 0}));
    }
}

TEST(PictureComposeTest, AlphaOfTheDestinationStays) {
    Picture destination = noise({16, 16}, AV_PIX_FMT_YUVA420P);
    const Picture before = ownCopy(destination);
    destination.compose(randomOverlay({16, 16}, AV_PIX_FMT_RGBA, 5), {2, 2});
    EXPECT_NE(sample(destination, 0, 4, 4), sample(before, 0, 4, 4));
    EXPECT_EQ(std::memcmp(destination.getPlanes()[3], before.getPlanes()[3], 256), 0);
}

TEST(PictureComposeTest, DrawsIntoACropOfTheDestination) {
    const Picture whole = noise({64, 48});
    Picture expected = ownCopy(whole), actual = ownCopy(whole);
    const Picture overlay = randomOverlay({50, 50}, AV_PIX_FMT_RGBA, 4);
    Picture expectedPart = expected.crop({8, 6, 40, 20}), part = actual.crop({8, 6, 40, 20});
    composeNaively(expectedPart, overlay, {3, -4});
    part.compose(overlay, {3, -4});
    EXPECT_EQ(bufferBytes(actual), bufferBytes(expected));
}

TEST(PictureComposeTest, ACropOfAnOverlayIsDrawnLikeACopyOfIt) {
    const Picture overlay = randomOverlay({60, 40}, AV_PIX_FMT_BGRA, 6).crop({3, 5, 45, 31});
    Picture copy = overlay;
    copy.makeEditable();
    Picture expected = noise({64, 48}), actual = ownCopy(expected);
    expected.compose(copy, {6, 4});
    actual.compose(overlay, {6, 4});
    EXPECT_EQ(bufferBytes(actual), bufferBytes(expected));
}

TEST(PictureComposeTest, WritesIntoASharedBufferWithoutAsking) {
    Picture destination = noise({16, 16});
    const Picture sharing = destination;
    destination.compose(solid({16, 16}, AV_PIX_FMT_RGBA, {255}), {0, 0});
    EXPECT_EQ(sharing.buffer(), destination.buffer());
    EXPECT_EQ(sample(sharing, 0, 0, 0), 235);
}

TEST(PictureComposeTest, OverlayOutsideIsNotRead) {
    void* page = test::allocateGuarded(4096, GuardedEnd::front, 0);
    Picture overlay({16, 16}, AV_PIX_FMT_RGBA);
    overlay.setData(std::make_shared<MemBuffer>(0, static_cast<unsigned char*>(page) - 32));  // forbidden
    Picture destination = noise({40, 30});
    for (point_t position : {point_t{40, 0},
                             {41, 0},
                             {0, 30},
                             {0, 31},
                             {-16, 0},
                             {-17, 0},
                             {0, -16},
                             {1000, 1000},
                             {INT_MIN, INT_MIN},
                             {INT_MAX, INT_MAX},
                             {INT_MIN, 0},
                             {0, INT_MAX},
                             {INT_MIN + 1, INT_MAX - 1}}) {
        expectNothingComposed(destination, overlay, position);
    }
    test::freeGuarded(page);
}

TEST(PictureComposeTest, EmptyPicturesChangeNothing) {
    const Picture overlay = solid({4, 4}, AV_PIX_FMT_RGBA, {255});
    Picture empty;
    empty.compose(overlay, {0, 0});
    EXPECT_TRUE(empty.empty());
    Picture emptied = noise({4, 4});
    emptied.setData(nullptr);
    emptied.compose(overlay, {0, 0});
    EXPECT_TRUE(emptied.empty());

    Picture destination = noise({4, 4});
    expectNothingComposed(destination, Picture(), {0, 0});
    for (AVPixelFormat format : {AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P}) {
        Picture withoutBuffer({4, 4}, format);
        withoutBuffer.setData(nullptr);
        expectNothingComposed(destination, withoutBuffer, {0, 0});
        Picture withoutBytes({4, 4}, format);
        withoutBytes.setData(std::make_shared<MemBuffer>());
        expectNothingComposed(destination, withoutBytes, {0, 0});
        Picture equalFormat = randomPicture({4, 4}, format);
        expectNothingComposed(equalFormat, withoutBytes, {0, 0});
        withoutBytes.compose(destination, {0, 0});
        withoutBytes.compose(overlay, {0, 0});
        EXPECT_EQ(withoutBytes.getPlanes()[0], nullptr);
    }
}

TEST(PictureComposeTest, OverlayThatCannotBeConvertedChangesNothing) {
    Picture destination = noise({8, 8});
    int formats = 0;
    for (AVPixelFormat format : pictureFormats()) {
        if (sws_isSupportedInput(format)) continue;
        expectNothingComposed(destination, randomPicture({8, 8}, format), {0, 0});
        ++formats;
    }
    Picture palettes = randomPicture({8, 8}, AV_PIX_FMT_PAL8);  // to which nothing is converted
    expectNothingComposed(palettes, solid({8, 8}, AV_PIX_FMT_RGBA, {255}), {0, 0});
    EXPECT_GT(formats, 0);
}

TEST(PictureComposeTest, ConversionWithoutMemoryThrowsAndChangesNothing) {
    if (!test::heapIsOurs()) GTEST_SKIP() << "new cannot be made to fail here";
    Picture destination = noise({16, 16});
    const Picture overlay = solid({16, 16}, AV_PIX_FMT_RGBA, {255});
    const Bytes before = bufferBytes(destination);
    const int failures = test::failEachAllocation(
        [&] {
            destination.compose(overlay, {0, 0});
        },
        [&] { EXPECT_EQ(bufferBytes(destination), before); });
    EXPECT_GT(failures, 1);
}

// ---- compose: copying

TEST(PictureComposeTest, EqualFormatWithoutAlphaIsCopiedWhateverTheRange) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV444P, AV_PIX_FMT_GRAY8, AV_PIX_FMT_RGB24,
                                 AV_PIX_FMT_RGB0, AV_PIX_FMT_NV12, AV_PIX_FMT_YUV420P10LE}) {
        Picture destination = randomPicture({16, 8}, format, AVCOL_RANGE_MPEG, 1, 1);
        const Picture overlay = randomPicture({16, 8}, format, AVCOL_RANGE_JPEG, 1, 2);
        destination.compose(overlay, {0, 0});
        EXPECT_EQ(visibleBytes(destination), visibleBytes(overlay)) << overlay;
        EXPECT_EQ(destination.colorRange(), AVCOL_RANGE_MPEG);
    }
}

TEST(PictureComposeTest, CopyMeantForFiveSevenLandsAtFourFour) {
    Picture destination = solid({16, 16}, AV_PIX_FMT_YUV420P, {0});
    destination.compose(solid({4, 4}, AV_PIX_FMT_YUV420P, {9}), {5, 7});
    for (int y = 0; y < 16; ++y) {
        for (int x = 0; x < 16; ++x) {
            const bool inside = x >= 4 && x < 8 && y >= 4 && y < 8;
            ASSERT_EQ(sample(destination, 0, x, y), inside ? 9 : 0) << x << ", " << y;
            ASSERT_EQ(sample(destination, 1, x / 2, y / 2), inside ? 9 : 0) << x << ", " << y;
        }
    }
}

TEST(PictureComposeTest, CopyLosesTheLastRowAndColumnOfOddSizes) {
    Picture destination = solid({16, 16}, AV_PIX_FMT_YUV420P, {0});
    destination.compose(solid({5, 7}, AV_PIX_FMT_YUV420P, {9}), {0, 0});
    EXPECT_EQ(sample(destination, 0, 3, 5), 9);
    EXPECT_EQ(sample(destination, 0, 4, 0), 0);
    EXPECT_EQ(sample(destination, 0, 0, 6), 0);
    EXPECT_EQ(sample(destination, 1, 2, 0), 0);
    EXPECT_EQ(sample(destination, 2, 0, 3), 0);
}

TEST(PictureComposeTest, CopyAboveAndLeftOfThePictureIsCutTwice) {
    Picture destination = solid({16, 2}, AV_PIX_FMT_YUV420P, {0});
    Picture overlay = solid({10, 2}, AV_PIX_FMT_YUV420P, {0});
    std::iota(overlay.getPlanes()[0], overlay.getPlanes()[0] + 10, static_cast<std::uint8_t>(1));
    destination.compose(overlay, {-4, 0});
    const std::uint8_t* row = destination.getPlanes()[0];
    EXPECT_EQ(Bytes(row, row + 4), (Bytes{9, 10, 0, 0}));  // of the visible 5 ... 10 the last two
}

TEST(PictureComposeTest, CopyEqualsTheModelForAnySizeAndPosition) {
    std::mt19937 random(8);
    const auto between = [&](int low, int high) {
        return low + static_cast<int>(random() % static_cast<unsigned>(high - low + 1));
    };
    for (unsigned round = 0; round < 600; ++round) {
        const Picture destination = randomPicture({between(1, 40), between(1, 40)}, AV_PIX_FMT_YUV420P,
                                                  AVCOL_RANGE_UNSPECIFIED, 1, round);
        const Picture overlay = randomPicture({between(1, 40), between(1, 40)}, AV_PIX_FMT_YUV420P,
                                              AVCOL_RANGE_UNSPECIFIED, 1, round + 1000);
        const point_t position{between(-overlay.width() - 2, destination.width() + 2),
                               between(-overlay.height() - 2, destination.height() + 2)};
        ASSERT_NO_FATAL_FAILURE(expectLike(copyNaively, destination, overlay, position)) << round;
    }
}

// ---- compose: pictures that it is not for

TEST(PictureComposeTest, EqualFormatWithAlphaIsBlendedAsIfItWerePlanar) {
    Picture destination = noise({12, 6}, AV_PIX_FMT_RGBA);
    const Picture overlay = randomPicture({12, 6}, AV_PIX_FMT_RGBA, AVCOL_RANGE_MPEG, 1, 3);
    Picture expected = ownCopy(destination);
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 10; ++x) {  // the first bytes of the rows are taken for luma
            std::uint8_t* d = at(expected, 0, 2 + x, 2 + y);
            *d = blended(*d, sample(overlay, 0, x, y), sample(overlay, 0, 4 * x + 3, y));
        }
    }
    destination.compose(overlay, {2, 2});
    EXPECT_EQ(bufferBytes(destination), bufferBytes(expected));
}

TEST(PictureComposeTest, FourthByteOfAPixelIsItsAlphaWhateverItMeans) {
    for (AVPixelFormat format : {AV_PIX_FMT_ARGB, AV_PIX_FMT_ABGR, AV_PIX_FMT_RGB0, AV_PIX_FMT_BGR0}) {
        ASSERT_NO_FATAL_FAILURE(
            expectLike(composeNaively, noise({20, 10}), randomOverlay({12, 9}, format, 8), {4, 2}));
    }
}

TEST(PictureComposeTest, DestinationWithoutChromaTakesLumaAlone) {
    const Picture before = noise({9, 5}, AV_PIX_FMT_GRAY8);
    const Picture overlay = randomOverlay({9, 5}, AV_PIX_FMT_RGBA, 3);
    const Picture converted = Scaler().convertToColorspace(overlay, AV_PIX_FMT_GRAY8, before.colorRange());
    Picture destination = ownCopy(before);
    destination.compose(overlay, {0, 0});
    for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 9; ++x) {
            EXPECT_EQ(sample(destination, 0, x, y),
                      blended(sample(before, 0, x, y), sample(converted, 0, x, y),
                              sample(overlay, 0, 4 * x + 3, y)))
                << x << ", " << y;
        }
    }
}

TEST(PictureComposeTest, OverlayWithHalvedChromaLosesItsLastRowAndColumn) {
    const Picture before = noise({8, 8});
    Picture destination = ownCopy(before);
    destination.compose(solid({5, 5}, AV_PIX_FMT_YUVA420P, {255}, AVCOL_RANGE_MPEG), {0, 0});
    for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 8; ++x) {
            const bool drawn = x < 4 && y < 4;
            ASSERT_EQ(sample(destination, 0, x, y), drawn ? 255 : sample(before, 0, x, y)) << x << ", " << y;
            ASSERT_EQ(sample(destination, 1, x / 2, y / 2), drawn ? 255 : sample(before, 1, x / 2, y / 2));
        }
    }
}

TEST(PictureComposeTest, PalettesAreNotCopied) {
    Picture destination = noise({32, 4}, AV_PIX_FMT_PAL8);
    Picture overlay = randomPicture({32, 4}, AV_PIX_FMT_PAL8, AVCOL_RANGE_MPEG, 1, 3);
    const Bytes palette(destination.getPlanes()[1], destination.getPlanes()[1] + 1024);
    destination.compose(overlay, {0, 0});
    EXPECT_NE(visibleBytes(destination), visibleBytes(overlay));
    EXPECT_EQ(Bytes(destination.getPlanes()[1], destination.getPlanes()[1] + 1024), palette);
}

TEST(PictureComposeTest, PictureDrawnOnItselfGoesSampleBySample) {
    for (point_t position : {point_t{0, 0}, {2, 0}, {4, 2}, {34, 6}, {-4, -2}}) {
        Picture picture = noise({100, 20}, AV_PIX_FMT_RGBA);
        Picture expected = ownCopy(picture);
        const Placed placed(expected, expected, position);
        for (std::int64_t y = placed.y0; y < placed.y1; ++y) {
            for (std::int64_t x = placed.x0; x < placed.x1; ++x) {
                const std::int64_t i = x - placed.x0;
                const std::int64_t skipped = 4 * (placed.x0 - placed.x);
                const std::uint8_t source = sample(expected, 0, skipped + i, y - placed.y);
                const std::uint8_t alpha = sample(expected, 0, skipped + 4 * i + 3, y - placed.y);
                std::uint8_t* d = at(expected, 0, x, y);
                *d = blended(*d, source, alpha);
            }
        }
        picture.compose(picture, position);
        ASSERT_EQ(bufferBytes(picture), bufferBytes(expected)) << position;
    }
}

/// The sizes are odd and small; the wide one has whole vectors.
const rect_size_t oddSizes[] = {{1, 1}, {3, 5}, {7, 6}, {70, 3}};

TEST(PictureComposeTest, StaysInsideDestinationsOfAnyFormat) {
    const std::vector<AVPixelFormat> formats = pictureFormats();
    ASSERT_GT(formats.size(), 100U);
    for (AVPixelFormat format : formats) {
        for (rect_size_t size : oddSizes) {
            const Picture overlay = randomOverlay({size.w + 1, size.h}, AV_PIX_FMT_RGBA, 1);
            for (GuardedEnd end : {GuardedEnd::front, GuardedEnd::back}) {
                GuardedPicture destination(randomPicture(size, format), end);
                GuardedPicture guardedOverlay(overlay, end);
                const Bytes before = visibleBytes(*destination);
                for (point_t position : {point_t{0, 0}, {2, 2}, {-2, -2}, {-5, 3}}) {
                    destination->compose(*guardedOverlay, position);
                }
                ASSERT_EQ(visibleBytes(*guardedOverlay), visibleBytes(overlay)) << *destination;
                if (sws_isSupportedOutput(format)) continue;
                ASSERT_EQ(visibleBytes(*destination), before) << *destination;
            }
        }
    }
}

TEST(PictureComposeTest, StaysInsideOverlaysOfAnyFormat) {
    for (AVPixelFormat format : pictureFormats()) {
        for (rect_size_t size : oddSizes) {
            const Picture overlay = randomPicture(size, format);
            for (GuardedEnd end : {GuardedEnd::front, GuardedEnd::back}) {
                GuardedPicture destination(noise({size.w, size.h + 1}), end);
                GuardedPicture guardedOverlay(overlay, end);
                for (point_t position : {point_t{0, 0}, {2, 2}, {-2, -2}, {-5, 3}}) {
                    destination->compose(*guardedOverlay, position);
                }
                ASSERT_EQ(visibleBytes(*guardedOverlay), visibleBytes(overlay)) << overlay;
            }
        }
    }
}

TEST(PictureComposeTest, StaysInsideABufferThatIsTooSmall) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P}) {
        Picture destination({64, 8}, format);
        auto buffer = std::make_shared<MemBuffer>(std::size_t{64 * 5 + 7}, nullptr);
        std::memset(buffer->data(), 0xA5, buffer->size() + MemBuffer::tailPadding);
        destination.setData(buffer);
        destination.compose(solid({64, 8}, AV_PIX_FMT_RGBA, {0, 0, 0, 255}), {0, 0});
        const Bytes bytes(buffer->data(), buffer->data() + buffer->size() + MemBuffer::tailPadding);
        EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 16), 64 * 5 + 7);
        EXPECT_EQ(std::count(bytes.end() - MemBuffer::tailPadding, bytes.end(), 0xA5), 32);
    }
}

// ---- applyLUT

using Table = std::vector<unsigned char>;

Table inversion() {
    Table table(256);
    for (std::size_t v = 0; v < 256; ++v) table[v] = static_cast<unsigned char>(255 - v);
    return table;
}

/// Expects the bytes for which `isSample(plane, column, row)` says so to be inverted, and no other to be
/// changed. For pictures whose rows have no padding.
template <typename IsSample>
void expectInverted(const Picture& before, int component, IsSample isSample) {
    Picture picture = ownCopy(before), expected = ownCopy(before);
    for (int p = 0; p < 4 && before.getPlanes()[p]; ++p) {
        const std::uint8_t* next = p < 3 ? before.getPlanes()[p + 1] : nullptr;
        const std::uint8_t* end = next ? next : before.buffer()->data() + before.buffer()->size();
        for (int i = 0; i < end - before.getPlanes()[p]; ++i) {
            const int linesize = std::max(before.getLinesize()[p], 1);  // palettes have none
            std::uint8_t& byte = expected.getPlanes()[p][i];
            if (isSample(p, i % linesize, i / linesize)) byte = static_cast<std::uint8_t>(255 - byte);
        }
    }
    picture.applyLUT(component, inversion());
    EXPECT_EQ(bufferBytes(picture), bufferBytes(expected)) << before << ", component " << component;
}

TEST(PictureLutTest, IdentityChangesNothing) {
    Table identity(256);
    std::iota(identity.begin(), identity.end(), static_cast<unsigned char>(0));
    for (AVPixelFormat format : pictureFormats()) {
        Picture picture = noise({37, 11}, format);
        const Bytes before = bufferBytes(picture);
        for (int component = 0; component < 4; ++component) picture.applyLUT(component, identity);
        EXPECT_EQ(bufferBytes(picture), before) << picture;
    }
}

TEST(PictureLutTest, InvertsOneComponentOfPackedPixels) {
    for (int component = 0; component < 4; ++component) {
        expectInverted(noise({37, 5}, AV_PIX_FMT_RGBA), component,
                       [&](int, int column, int) { return column % 4 == component; });
    }
    const int places[] = {2, 1, 0, 3};
    for (int component = 0; component < 4; ++component) {
        expectInverted(noise({37, 5}, AV_PIX_FMT_BGRA), component,
                       [&](int, int column, int) { return column % 4 == places[component]; });
    }
}

TEST(PictureLutTest, InvertsOnePlane) {
    for (rect_size_t size : {rect_size_t{64, 8}, {200, 6}, {34, 10}}) {
        for (int component = 0; component < 4; ++component) {
            expectInverted(noise(size, AV_PIX_FMT_YUVA420P), component,
                           [&](int plane, int, int) { return plane == component; });
        }
        for (int component = 0; component < 3; ++component) {  // red is the last plane
            expectInverted(noise(size, AV_PIX_FMT_GBRP), component,
                           [&](int plane, int, int) { return plane == (component + 2) % 3; });
        }
    }
}

TEST(PictureLutTest, RoundsChromaSizesDown) {
    for (int component : {1, 2}) {
        expectInverted(noise({5, 7}), component, [&](int plane, int column, int row) {
            return plane == component && column < 2 && row < 3;
        });
    }
}

TEST(PictureLutTest, InvertsOneOfTwoInterleavedComponents) {
    for (int component : {1, 2}) {
        expectInverted(noise({6, 4}, AV_PIX_FMT_NV12), component,
                       [&](int plane, int column, int) { return plane == 1 && column % 2 == component - 1; });
    }
}

TEST(PictureLutTest, MapsTheFirstByteOfLongSamples) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV444P16LE, AV_PIX_FMT_YUV444P10LE}) {
        expectInverted(noise({6, 4}, format), 1,
                       [](int plane, int column, int) { return plane == 1 && column % 2 == 0; });
    }
}

TEST(PictureLutTest, SampleBeforeTheRowIsLeftOut) {
    expectInverted(noise({4, 3}, AV_PIX_FMT_RGB565BE), 0,  // its red is at -1, 1, 3 and 5
                   [](int, int column, int) { return column % 2 == 1 && column < 7; });
}

TEST(PictureLutTest, MapsTheIndicesOfPalettePictures) {
    expectInverted(noise({40, 3}, AV_PIX_FMT_PAL8), 0, [](int plane, int, int) { return plane == 0; });
}

TEST(PictureLutTest, MapsWholeBytesOfMonochromePictures) {
    expectInverted(noise({20, 3}, AV_PIX_FMT_MONOWHITE), 0, [](int, int, int) { return true; });
}

TEST(PictureLutTest, SamplesBeyondAShortTableStay) {
    Table table = inversion();
    table.resize(100);
    Picture picture = solid({40, 3}, AV_PIX_FMT_GRAY8, {0, 99, 100, 255});
    picture.applyLUT(0, table);
    // Not the whole buffer: FFmpeg 3 and 4 have room for a palette behind gray, which stays as it is.
    EXPECT_EQ(visibleBytes(picture), visibleBytes(solid({40, 3}, AV_PIX_FMT_GRAY8, {255, 156, 100, 255})));

    const Bytes before = bufferBytes(picture);
    picture.applyLUT(0, {});
    EXPECT_EQ(bufferBytes(picture), before);
}

TEST(PictureLutTest, EntriesBeyond256AreNotUsed) {
    Table table = inversion();
    table.resize(300, 7);
    Picture picture = noise({33, 3}, AV_PIX_FMT_GRAY8), expected = ownCopy(picture);
    picture.applyLUT(0, table);
    expected.applyLUT(0, inversion());
    EXPECT_EQ(bufferBytes(picture), bufferBytes(expected));
}

TEST(PictureLutTest, ComponentOutOfRangeChangesNothing) {
    for (const auto& [format, count] :
         {std::pair{AV_PIX_FMT_YUV420P, 3}, {AV_PIX_FMT_RGBA, 4}, {AV_PIX_FMT_GRAY8, 1}}) {
        for (int component : {-1, count, 4, 100, INT_MAX, INT_MIN}) {
            expectInverted(noise({16, 4}, format), component, [](int, int, int) { return false; });
        }
    }
}

TEST(PictureLutTest, EmptyPictureStaysEmpty) {
    Picture empty;
    empty.applyLUT(0, inversion());
    EXPECT_TRUE(empty.empty());
    Picture withoutBuffer = noise({4, 4});
    withoutBuffer.setData(nullptr);
    withoutBuffer.applyLUT(0, inversion());
    EXPECT_TRUE(withoutBuffer.empty());
    Picture withoutBytes = noise({4, 4});
    withoutBytes.setData(std::make_shared<MemBuffer>());
    withoutBytes.applyLUT(0, inversion());
    EXPECT_EQ(withoutBytes.getPlanes()[0], nullptr);
}

TEST(PictureLutTest, LeavesPaddingAndWhatACropHides) {
    Picture padded = randomPicture({40, 5}, AV_PIX_FMT_GRAY8, AVCOL_RANGE_UNSPECIFIED, 32);
    ASSERT_EQ(padded.getLinesize()[0], 64);
    expectInverted(padded, 0,
                   [](int plane, int column, int row) { return plane == 0 && column < 40 && row < 5; });

    const Picture bits = randomPicture({32, 3}, AV_PIX_FMT_MONOWHITE, AVCOL_RANGE_UNSPECIFIED, 32);
    ASSERT_EQ(bits.getLinesize()[0], 32);
    expectInverted(bits, 0, [](int, int column, int) { return column < 4; });

    Picture whole = noise({40, 9}, AV_PIX_FMT_GRAY8), expected = ownCopy(whole);
    for (int y = 2; y < 6; ++y) {
        for (int x = 3; x < 36; ++x) *at(expected, 0, x, y) ^= 255;
    }
    Picture part = whole.crop({3, 2, 33, 4});
    part.applyLUT(0, inversion());
    EXPECT_EQ(bufferBytes(whole), bufferBytes(expected));
}

TEST(PictureLutTest, WritesIntoASharedBufferWithoutAsking) {
    Picture picture = solid({4, 4}, AV_PIX_FMT_GRAY8, {0});
    const Picture sharing = picture;
    picture.applyLUT(0, inversion());
    EXPECT_THAT(visibleBytes(sharing), Each(255));
}

TEST(PictureLutTest, StaysInsidePicturesOfAnyFormat) {
    for (AVPixelFormat format : pictureFormats()) {
        for (rect_size_t size : oddSizes) {
            for (GuardedEnd end : {GuardedEnd::front, GuardedEnd::back}) {
                GuardedPicture picture(randomPicture(size, format), end);
                const Bytes before = visibleBytes(*picture);
                for (int component = 0; component < 4; ++component) {
                    picture->applyLUT(component, inversion());
                    picture->applyLUT(component, inversion());
                }
                ASSERT_EQ(visibleBytes(*picture), before) << *picture;
            }
        }
    }
}

TEST(PictureLutTest, StaysInsideABufferThatIsTooSmall) {
    Picture picture({64, 8}, AV_PIX_FMT_YUV420P);
    auto buffer = std::make_shared<MemBuffer>(std::size_t{64 * 5 + 7}, nullptr);
    std::memset(buffer->data(), 0, buffer->size() + MemBuffer::tailPadding);
    picture.setData(buffer);
    for (int component = 0; component < 3; ++component) picture.applyLUT(component, inversion());
    const Bytes bytes(buffer->data(), buffer->data() + buffer->size() + MemBuffer::tailPadding);
    EXPECT_EQ(std::count(bytes.begin(), bytes.end() - MemBuffer::tailPadding, 255), 64 * 5 + 7);
    EXPECT_EQ(std::count(bytes.end() - MemBuffer::tailPadding, bytes.end(), 0), 32);
}

// ---- fills

TEST(PictureColourFillTest, FillsWithAColour) {
    Picture picture = noise({20, 10}, AV_PIX_FMT_RGBA);
    picture.fillWithRGBA(1, 20, 255, 40);
    EXPECT_EQ(bufferBytes(picture), bufferBytes(solid({20, 10}, AV_PIX_FMT_RGBA, {1, 20, 255, 40})));
}

TEST(PictureColourFillTest, ColourWithoutAlphaIsOpaque) {
    Picture picture = noise({20, 10}, AV_PIX_FMT_RGBA);
    picture.fillWithRGB(1, 20, 255);
    EXPECT_EQ(bufferBytes(picture), bufferBytes(solid({20, 10}, AV_PIX_FMT_RGBA, {1, 20, 255, 255})));
}

TEST(PictureColourFillTest, SharedPictureIsRefusedAndUnchanged) {
    Picture picture = noise({20, 10}, AV_PIX_FMT_RGBA);
    const Picture sharing = picture;
    const Bytes before = bufferBytes(picture);
    EXPECT_THAT([&] { picture.fillWithRGBA(1, 2, 3, 4); },
                ThrowsMessage<std::runtime_error>(StrEq("fillRectangle: Picture must be editable")));
    EXPECT_THAT([&] { picture.fillWithRGB(1, 2, 3); },
                ThrowsMessage<std::runtime_error>(StrEq("fillRectangle: Picture must be editable")));
    EXPECT_EQ(bufferBytes(picture), before);
}

TEST(PictureColourFillTest, FormatThatIsNotDrawnOnIsRefusedByItsName) {
    Picture picture = noise({8, 8}, AV_PIX_FMT_PAL8);
    const Bytes before = bufferBytes(picture);
    EXPECT_THAT([&] { picture.fillWithRGB(1, 2, 3); },
                ThrowsMessage<std::runtime_error>(StrEq("Drawing is not supported for pal8")));
    EXPECT_EQ(bufferBytes(picture), before);
}

TEST(PictureColourFillTest, ColoursFollowTheRangeOfThePicture) {
    for (const auto& [range, white] : {std::pair{AVCOL_RANGE_MPEG, 235}, {AVCOL_RANGE_JPEG, 255}}) {
        Picture picture = solid({2, 2}, AV_PIX_FMT_YUV420P, {1}, range);
        picture.fillWithRGB(255, 255, 255);
        EXPECT_EQ(sample(picture, 0, 0, 0), white);
    }
}

TEST(PictureColourFillTest, EmptyPictureIsRefused) {
    Picture empty;
    EXPECT_THAT([&] { empty.fillWithRGB(1, 2, 3); },
                ThrowsMessage<std::runtime_error>(StrEq("fillRectangle: Picture must be editable")));
}

void expectDebugPattern(Picture picture, std::size_t width) {
    picture.fillWithDebugData();
    const Bytes bytes = bufferBytes(picture);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        ASSERT_EQ(bytes[i], i / width % 256) << picture << ", byte " << i;
    }
}

TEST(PictureDebugDataTest, StepsByOneEveryWidthBytesOfTheBuffer) {
    expectDebugPattern(noise({16, 4}, AV_PIX_FMT_GRAY8), 16);
    expectDebugPattern(noise({16, 4}, AV_PIX_FMT_RGBA), 16);
    expectDebugPattern(noise({7, 9}, AV_PIX_FMT_YUV420P), 7);  // the last step is cut
    expectDebugPattern(randomPicture({10, 3}, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED, 32), 10);
}

TEST(PictureDebugDataTest, StartsAnewAfter256Steps) {
    expectDebugPattern(noise({3, 600}, AV_PIX_FMT_GRAY8), 3);
    expectDebugPattern(noise({1, 1000}, AV_PIX_FMT_GRAY8), 1);
}

TEST(PictureDebugDataTest, CropFillsTheWholeBufferByItsOwnWidth) {
    const Picture whole = noise({40, 20});
    expectDebugPattern(whole.crop({4, 4, 12, 8}), 12);
}

TEST(PictureDebugDataTest, LeavesTheSpareBytesBehindTheBuffer) {
    Picture picture = noise({7, 9});
    ASSERT_NE(picture.buffer()->size() % 7, 0U);
    std::uint8_t* spare = picture.buffer()->data() + picture.buffer()->size();
    std::memset(spare, 0xA5, MemBuffer::tailPadding);
    picture.fillWithDebugData();
    EXPECT_THAT(Bytes(spare, spare + MemBuffer::tailPadding), Each(0xA5));
}

TEST(PictureDebugDataTest, PictureWithoutBufferOrWidthIsLeftAlone) {
    Picture empty;
    empty.fillWithDebugData();
    EXPECT_TRUE(empty.empty());

    Picture picture = noise({16, 4});
    const Bytes before = bufferBytes(picture);
    Picture withoutWidth = picture.crop({0, 0, 0, 4});
    ASSERT_EQ(withoutWidth.buffer(), picture.buffer());
    withoutWidth.fillWithDebugData();
    EXPECT_EQ(bufferBytes(picture), before);
}

TEST(PictureDebugDataTest, BorrowedBufferIsLeftAlone) {
    Bytes bytes(64, 9);
    Picture picture({8, 8}, AV_PIX_FMT_GRAY8);
    picture.setData(std::make_shared<MemBuffer>(0, bytes.data()));
    picture.fillWithDebugData();
    EXPECT_THAT(bytes, Each(9));
}

}  // namespace
}  // namespace kvffmpeg
