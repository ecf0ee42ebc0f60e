#include "kvffmpeg/blending.h"

#include <gmock/gmock.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "kernels.h"
#include "support/guarded_bytes.h"
#include "support/test_heap.h"

namespace kvffmpeg {
namespace {

using kernels::Variant;
using test::GuardedBytes;
using testing::Each;
using testing::ElementsAre;
using testing::ValuesIn;

using Bytes = std::vector<std::uint8_t>;

/// A plane of its own allocation, whose rows may be padded. The last row has no padding, as little as the
/// last row of a mapping has.
struct Plane {
    Plane() = default;
    Plane(int width, int height, int padding, std::uint8_t value)
        : rowBytes(std::max(width, 0)),
          rows(std::max(height, 0)),
          linesize(rowBytes + padding),
          memory(std::make_shared<GuardedBytes>(static_cast<std::size_t>(bytes()))),
          data(memory->back(static_cast<std::size_t>(bytes()))) {
        std::fill_n(data, bytes(), value);
    }
    std::ptrdiff_t bytes() const {
        return rows == 0 ? 0 : static_cast<std::ptrdiff_t>(rows - 1) * linesize + rowBytes;
    }
    std::uint8_t& at(int x, int y) { return data[static_cast<std::ptrdiff_t>(y) * linesize + x]; }
    std::uint8_t at(int x, int y) const { return data[static_cast<std::ptrdiff_t>(y) * linesize + x]; }
    Bytes content() const { return Bytes(data, data + bytes()); }
    void setContent(const Bytes& from) { std::copy(from.begin(), from.end(), data); }
    /// Moves the plane to the start of its memory, behind the other guard page.
    void moveToFront() {
        const Bytes kept = content();
        data = memory->front();
        setContent(kept);
    }

    int rowBytes = 0;
    int rows = 0;
    int linesize = 0;
    std::shared_ptr<GuardedBytes> memory;
    std::uint8_t* data = nullptr;
};

/// Planes of an image as the kernels take them.
struct Image {
    int width = 0;
    int height = 0;
    std::vector<Plane> planes;

    static Image yuv(int width, int height, bool alpha, int padding = 0) {
        const int chromaWidth = (width + 1) / 2;
        const int chromaHeight = (height + 1) / 2;
        Image image{width, height, {}};
        image.planes.emplace_back(width, height, padding, std::uint8_t{16});
        image.planes.emplace_back(chromaWidth, chromaHeight, padding, std::uint8_t{128});
        image.planes.emplace_back(chromaWidth, chromaHeight, padding, std::uint8_t{128});
        if (alpha) image.planes.emplace_back(width, height, padding, std::uint8_t{0});
        return image;
    }
    static Image packed(int width, int height, int padding = 0) {
        Image image{width, height, {}};
        image.planes.emplace_back(4 * width, height, padding, std::uint8_t{0});
        return image;
    }

    std::array<std::uint8_t*, 4> data() const {
        std::array<std::uint8_t*, 4> result = {};
        for (std::size_t p = 0; p < planes.size(); ++p) result[p] = planes[p].data;
        return result;
    }
    std::array<int, 4> linesizes() const {
        std::array<int, 4> result = {};
        for (std::size_t p = 0; p < planes.size(); ++p) result[p] = planes[p].linesize;
        return result;
    }
    std::vector<Bytes> contents() const {
        std::vector<Bytes> result;
        for (const Plane& plane : planes) result.push_back(plane.content());
        return result;
    }
    void setContents(const std::vector<Bytes>& from) {
        for (std::size_t p = 0; p < planes.size(); ++p) planes[p].setContent(from[p]);
    }
    void moveToFront() {
        for (Plane& plane : planes) plane.moveToFront();
    }
};

void fillNoise(Plane& plane, std::mt19937& random) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::generate_n(plane.data, plane.bytes(), [&] { return static_cast<std::uint8_t>(byte(random)); });
}

/// Runs of 0, of 255 and of noise, of up to 90 samples.
void fillAlpha(Plane& plane, int step, int offset, std::mt19937& random) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> length(1, 90);
    const int samples = plane.rowBytes / step;
    for (int y = 0; y < plane.rows; ++y) {
        for (int x = 0; x < samples;) {
            const int kind = byte(random) % 3;
            for (int n = length(random); n > 0 && x < samples; --n, ++x) {
                plane.at(x * step + offset, y) = static_cast<std::uint8_t>(kind == 0   ? 0
                                                                           : kind == 1 ? 255
                                                                                       : byte(random));
            }
        }
    }
}

/// Rows that are all 0, rows that are all 255 and rows of `fillAlpha`, of each up to 50; a few of the first
/// two kinds have one other sample.
void fillAlphaInBands(Plane& plane, std::mt19937& random) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> length(1, 50);
    fillAlpha(plane, 1, 0, random);
    for (int y = 0; y < plane.rows;) {
        const int kind = byte(random) % 3;
        for (int n = length(random); n > 0 && y < plane.rows; --n, ++y) {
            if (kind == 2) continue;
            std::fill_n(&plane.at(0, y), plane.rowBytes, static_cast<std::uint8_t>(kind == 0 ? 0 : 255));
            if (byte(random) > 10) continue;
            const int x = byte(random) % 2 == 0 ? plane.rowBytes - 1 : byte(random) % plane.rowBytes;
            plane.at(x, y) = static_cast<std::uint8_t>(byte(random));
        }
    }
}

void blendYuva(Image& destination, const Image& overlay, int x, int y) {
    const auto to = destination.data();
    const auto from = overlay.data();
    blend_image_yuva420(to.data(), destination.linesizes().data(), destination.width, destination.height,
                        from.data(), overlay.linesizes().data(), overlay.width, overlay.height, x, y);
}

enum class Order { rgba, argb };

void blendPacked(Order order, Image& destination, const Image& overlay, int x, int y) {
    const auto to = destination.data();
    const auto from = overlay.data();
    const auto blend = order == Order::rgba ? blend_image_rgba : blend_image_argb;
    blend(to.data(), destination.linesizes().data(), destination.width, destination.height, from.data(),
          overlay.linesizes().data(), overlay.width, overlay.height, x, y);
}

// The plain references: pixel by pixel, in 64 bits, with nothing shared with the library.

std::uint8_t blendedSample(std::uint32_t d, std::uint32_t s, std::uint32_t a) {
    return static_cast<std::uint8_t>((2 * (d * (255 - a) + s * a) + 255) / 510);
}

struct ChromaGeometry {
    long xc, yc, cw, ch, c0, c1, r0, r1;
};

ChromaGeometry chromaGeometry(const Image& destination, const Image& overlay, int x, int y) {
    ChromaGeometry g = {};
    g.xc = x >> 1;
    g.yc = y >> 1;
    g.cw = (overlay.width + 1) / 2;
    g.ch = (overlay.height + 1) / 2;
    g.c0 = std::max(-g.xc, 0L);
    g.c1 = std::min((destination.width + 1) / 2 - g.xc, g.cw);
    g.r0 = std::max(-g.yc, 0L);
    g.r1 = std::min((destination.height + 1) / 2 - g.yc, g.ch);
    return g;
}

int referenceChromaAlpha(const Plane& alpha, const ChromaGeometry& g, long r, long c) {
    const auto at = [&](long row, long column) {
        return static_cast<int>(alpha.at(static_cast<int>(column), static_cast<int>(row)));
    };
    const int a00 = at(2 * r, 2 * c);
    const bool lastRow = r + 1 >= g.ch;
    const bool lastColumn = c + 1 >= g.cw;
    if (lastRow && lastColumn) return a00;
    if (lastRow) return (a00 + (a00 + at(2 * r, 2 * c + 1)) / 2) / 2;
    if (lastColumn) return (a00 + (a00 + at(2 * r + 1, 2 * c)) / 2) / 2;
    return (a00 + at(2 * r, 2 * c + 1) + at(2 * r + 1, 2 * c) + at(2 * r + 1, 2 * c + 1)) / 4;
}

/// What the upper row of alpha says about a run that may look at it alone: 0, 255, or -1 for neither.
int uniformAlphaOfRun(const Plane& alpha, long r, long c) {
    const std::uint8_t first = alpha.at(static_cast<int>(2 * c), static_cast<int>(2 * r));
    for (long column = 2 * c; column < 2 * c + 64; ++column) {
        if (alpha.at(static_cast<int>(column), static_cast<int>(2 * r)) != first) return -1;
    }
    return first == 0 || first == 255 ? first : -1;
}

void referenceYuva(Image& destination, const Image& overlay, int x, int y) {
    bool touches = false;
    const Plane& alpha = overlay.planes[3];
    for (int r = 0; r < overlay.height; ++r) {
        for (int c = 0; c < overlay.width; ++c) {
            const long dx = static_cast<long>(x) + c;
            const long dy = static_cast<long>(y) + r;
            if (dx < 0 || dy < 0 || dx >= destination.width || dy >= destination.height) continue;
            touches = true;
            std::uint8_t& d = destination.planes[0].at(static_cast<int>(dx), static_cast<int>(dy));
            d = blendedSample(d, overlay.planes[0].at(c, r), alpha.at(c, r));
        }
    }
    if (!touches) return;
    const ChromaGeometry g = chromaGeometry(destination, overlay, x, y);
    for (std::size_t p = 1; p <= 2; ++p) {
        for (long r = g.r0; r < g.r1; ++r) {
            for (long c = g.c0; c < g.c1; ++c) {
                const long runStart = g.c0 + (c - g.c0) / 32 * 32;
                int a = -1;
                if (runStart + 32 <= g.c1 && runStart + 33 < g.cw) a = uniformAlphaOfRun(alpha, r, runStart);
                if (a < 0) a = referenceChromaAlpha(alpha, g, r, c);
                std::uint8_t& d =
                    destination.planes[p].at(static_cast<int>(g.xc + c), static_cast<int>(g.yc + r));
                d = blendedSample(d, overlay.planes[p].at(static_cast<int>(c), static_cast<int>(r)),
                                  static_cast<std::uint32_t>(a));
            }
        }
    }
}

void referencePacked(Order order, Image& destination, const Image& overlay, int x, int y) {
    const int alphaByte = order == Order::rgba ? 3 : 0;
    for (int r = 0; r < overlay.height; ++r) {
        for (int c = 0; c < overlay.width; ++c) {
            const long dx = static_cast<long>(x) + c;
            const long dy = static_cast<long>(y) + r;
            if (dx < 0 || dy < 0 || dx >= destination.width || dy >= destination.height) continue;
            for (int byte = 0; byte < 4; ++byte) {
                if (byte == alphaByte) continue;
                std::uint8_t& d =
                    destination.planes[0].at(static_cast<int>(4 * dx) + byte, static_cast<int>(dy));
                d = blendedSample(d, overlay.planes[0].at(4 * c + byte, r),
                                  overlay.planes[0].at(4 * c + alphaByte, r));
            }
        }
    }
}

std::string nameOfVariant(const testing::TestParamInfo<const Variant*>& info) {
    return info.param->name;
}

/// Every test runs with every variant of the kernels.
class BlendingTest : public testing::TestWithParam<const Variant*> {
protected:
    void SetUp() override {
        if (!GetParam()->supported()) GTEST_SKIP() << "this CPU does not run " << GetParam()->name;
        kernels::setActive(GetParam());
    }
    void TearDown() override { kernels::setActive(nullptr); }

    Image noisyYuv(int width, int height, int padding = 0) {
        Image image = Image::yuv(width, height, false, padding);
        for (Plane& plane : image.planes) fillNoise(plane, random_);
        return image;
    }
    /// An overlay of noise with the given alpha.
    Image noisyYuva(int width, int height, std::uint8_t alpha) {
        Image image = Image::yuv(width, height, true);
        for (Plane& plane : image.planes) fillNoise(plane, random_);
        std::fill_n(image.planes[3].data, image.planes[3].bytes(), alpha);
        return image;
    }
    Image noisyPacked(int width, int height, int padding = 0) {
        Image image = Image::packed(width, height, padding);
        fillNoise(image.planes[0], random_);
        return image;
    }

    std::mt19937 random_{99};
};

INSTANTIATE_TEST_SUITE_P(Variants, BlendingTest, ValuesIn(kernels::all().begin(), kernels::all().end()),
                         nameOfVariant);

TEST_P(BlendingTest, OverlayWhollyOutsideChangesNothing) {
    // Even and odd sizes: beyond an odd edge chroma is still inside.
    for (const int width : {40, 41}) {
        for (const int height : {30, 31}) {
            Image yuv = noisyYuv(width, height);
            Image packed = noisyPacked(width, height);
            const Image yuva = noisyYuva(17, 13, 255);
            Image pixels = noisyPacked(17, 13);
            fillAlpha(pixels.planes[0], 4, 3, random_);
            const auto yuvBefore = yuv.contents();
            const auto packedBefore = packed.contents();
            const int far[][2] = {{width, 0},      {0, height},     {-17, 0},           {0, -13},
                                  {width + 1, 3},  {3, height + 1}, {-18, 5},           {5, -14},
                                  {width, height}, {-17, -13},      {INT_MAX, 0},       {0, INT_MAX},
                                  {INT_MIN, 0},    {0, INT_MIN},    {INT_MIN, INT_MIN}, {INT_MAX, INT_MAX}};
            for (const auto& position : far) {
                blendYuva(yuv, yuva, position[0], position[1]);
                blendPacked(Order::rgba, packed, pixels, position[0], position[1]);
                blendPacked(Order::argb, packed, pixels, position[0], position[1]);
                ASSERT_EQ(yuv.contents(), yuvBefore) << position[0] << ", " << position[1];
                ASSERT_EQ(packed.contents(), packedBefore) << position[0] << ", " << position[1];
            }
        }
    }
}

TEST_P(BlendingTest, OverlayWithoutPixelsChangesNothing) {
    Image destination = noisyYuv(20, 20);
    const auto before = destination.contents();
    blendYuva(destination, Image::yuv(0, 10, true), 3, 3);
    blendYuva(destination, Image::yuv(10, 0, true), 3, 3);
    EXPECT_EQ(destination.contents(), before);
}

TEST_P(BlendingTest, TransparentOverlayChangesNothing) {
    Image yuv = noisyYuv(150, 40);
    const auto yuvBefore = yuv.contents();
    blendYuva(yuv, noisyYuva(150, 40, 0), 0, 0);
    EXPECT_EQ(yuv.contents(), yuvBefore);
    for (const Order order : {Order::rgba, Order::argb}) {
        Image packed = noisyPacked(77, 20);
        Image overlay = noisyPacked(77, 20);
        for (int y = 0; y < 20; ++y) {
            for (int x = 0; x < 77; ++x) overlay.planes[0].at(4 * x + (order == Order::rgba ? 3 : 0), y) = 0;
        }
        const auto before = packed.contents();
        blendPacked(order, packed, overlay, 0, 0);
        EXPECT_EQ(packed.contents(), before);
    }
}

TEST_P(BlendingTest, OpaqueYuvaOverlayReplacesTheColoursAndLeavesADestinationsAlpha) {
    Image destination = Image::yuv(150, 41, true);
    for (Plane& plane : destination.planes) fillNoise(plane, random_);
    const auto before = destination.contents();
    const Image overlay = noisyYuva(150, 41, 255);
    blendYuva(destination, overlay, 0, 0);
    const auto after = destination.contents();
    for (std::size_t p = 0; p < 3; ++p) EXPECT_EQ(after[p], overlay.planes[p].content()) << "plane " << p;
    EXPECT_EQ(after[3], before[3]);
}

TEST_P(BlendingTest, OpaquePackedOverlayReplacesTheColoursAndLeavesTheDestinationsAlpha) {
    for (const Order order : {Order::rgba, Order::argb}) {
        const int alphaByte = order == Order::rgba ? 3 : 0;
        Image destination = noisyPacked(77, 20);
        Image overlay = noisyPacked(77, 20);
        for (int y = 0; y < 20; ++y) {
            for (int x = 0; x < 77; ++x) overlay.planes[0].at(4 * x + alphaByte, y) = 255;
        }
        const Bytes before = destination.planes[0].content();
        blendPacked(order, destination, overlay, 0, 0);
        const Bytes after = destination.planes[0].content();
        const Bytes expected = overlay.planes[0].content();
        for (std::size_t i = 0; i < after.size(); ++i) {
            const bool isAlpha = static_cast<int>(i % 4) == alphaByte;
            ASSERT_EQ(after[i], isAlpha ? before[i] : expected[i]) << "byte " << i;
        }
    }
}

TEST_P(BlendingTest, HalfAlphaRoundsToNearest) {
    Image destination = Image::packed(2, 1);
    Image overlay = Image::packed(2, 1);
    destination.planes[0].setContent({0, 0, 0, 9, 255, 255, 255, 9});
    overlay.planes[0].setContent({255, 255, 255, 128, 0, 0, 0, 128});
    blendPacked(Order::rgba, destination, overlay, 0, 0);
    EXPECT_THAT(destination.planes[0].content(), ElementsAre(128, 128, 128, 9, 127, 127, 127, 9));
}

TEST_P(BlendingTest, RoundsToNearestWhereCuttingOffWouldGiveOneLess) {
    Image destination = Image::packed(1, 1);
    Image overlay = Image::packed(1, 1);
    destination.planes[0].setContent({7, 10, 10, 10});
    overlay.planes[0].setContent({100, 200, 200, 200});
    blendPacked(Order::argb, destination, overlay, 0, 0);
    EXPECT_THAT(destination.planes[0].content(), ElementsAre(7, 85, 85, 85));
}

/// One chroma block: U of the destination is 0 and of the overlay 255, so that the result is the alpha.
Bytes chromaAlphas(const Image& overlay, std::size_t plane) {
    Image destination = Image::yuv(overlay.width, overlay.height, false);
    for (Plane& each : destination.planes) std::fill_n(each.data, each.bytes(), std::uint8_t{0});
    blendYuva(destination, overlay, 0, 0);
    return destination.planes[plane].content();
}

Image overlayWithAlpha(int width, int height, const Bytes& alpha) {
    Image overlay = Image::yuv(width, height, true);
    for (std::size_t p = 0; p < 3; ++p) {
        std::fill_n(overlay.planes[p].data, overlay.planes[p].bytes(), std::uint8_t{255});
    }
    overlay.planes[3].setContent(alpha);
    return overlay;
}

TEST_P(BlendingTest, ChromaTakesTheAverageOfFourAlphasRoundedDown) {
    const Image overlay = overlayWithAlpha(4, 4,
                                           {10, 21, 0, 0,  //
                                            32, 44, 0, 0,  //
                                            0, 0, 0, 0,    //
                                            0, 0, 0, 0});
    EXPECT_EQ(chromaAlphas(overlay, 1)[0], (10 + 21 + 32 + 44) / 4);
    EXPECT_EQ(chromaAlphas(overlay, 2)[0], (10 + 21 + 32 + 44) / 4);
}

TEST_P(BlendingTest, LastChromaRowOfAnEvenHeightWeightsTheUpperAlphasThreeToOne) {
    const Image overlay = overlayWithAlpha(4, 2,
                                           {101, 50, 0, 0,  //
                                            255, 255, 255, 255});
    EXPECT_EQ(chromaAlphas(overlay, 1)[0], (101 + (101 + 50) / 2) / 2);
}

TEST_P(BlendingTest, LastChromaColumnOfAnEvenWidthWeightsTheLeftAlphasThreeToOne) {
    const Image overlay = overlayWithAlpha(2, 4, {101, 255, 50, 255, 0, 255, 0, 255});
    EXPECT_EQ(chromaAlphas(overlay, 2)[0], (101 + (101 + 50) / 2) / 2);
}

TEST_P(BlendingTest, LastChromaSampleTakesItsFirstAlphaAlone) {
    EXPECT_EQ(chromaAlphas(overlayWithAlpha(2, 2, {77, 255, 255, 255}), 1)[0], 77);
    EXPECT_EQ(chromaAlphas(overlayWithAlpha(1, 1, {77}), 1)[0], 77);
}

TEST_P(BlendingTest, ClippedOverlayAveragesFourAlphasInItsLastVisibleRowAndColumn) {
    const Image overlay = overlayWithAlpha(4, 4,
                                           {10, 21, 0, 0,  //
                                            32, 44, 0, 0,  //
                                            0, 0, 0, 0,    //
                                            0, 0, 0, 0});
    Image destination = Image::yuv(2, 2, false);
    for (Plane& each : destination.planes) std::fill_n(each.data, each.bytes(), std::uint8_t{0});
    blendYuva(destination, overlay, 0, 0);
    EXPECT_THAT(destination.planes[1].content(), ElementsAre((10 + 21 + 32 + 44) / 4));
}

TEST_P(BlendingTest, OddSizesReadNoAlphaBeyondTheOverlay) {
    // The guard pages of the planes catch a read beyond the last row.
    for (int width = 1; width <= 70; ++width) {
        for (const int height : {1, 2, 3}) {
            Image overlay = noisyYuva(width, height, 0);
            fillAlpha(overlay.planes[3], 1, 0, random_);
            Image destination = noisyYuv(width, height);
            Image expected = destination;
            for (Plane& plane : expected.planes) {
                Plane copy(plane.rowBytes, plane.rows, 0, 0);
                copy.setContent(plane.content());
                plane = copy;
            }
            referenceYuva(expected, overlay, 0, 0);
            blendYuva(destination, overlay, 0, 0);
            ASSERT_EQ(destination.contents(), expected.contents()) << width << " x " << height;
        }
    }
}

TEST_P(BlendingTest, NegativeOddPositionStartsLumaAndChromaAtColumnOne) {
    Image destination = Image::yuv(8, 2, false);
    Image overlay = Image::yuv(8, 2, true);
    for (int x = 0; x < 8; ++x) {
        for (int y = 0; y < 2; ++y) {
            overlay.planes[0].at(x, y) = static_cast<std::uint8_t>(100 + x);
            overlay.planes[3].at(x, y) = 255;
        }
    }
    for (int c = 0; c < 4; ++c) overlay.planes[1].at(c, 0) = static_cast<std::uint8_t>(200 + c);
    blendYuva(destination, overlay, -1, 0);
    EXPECT_EQ(destination.planes[0].at(0, 0), 101);
    EXPECT_EQ(destination.planes[0].at(6, 0), 107);
    EXPECT_EQ(destination.planes[0].at(7, 0), 16);
    EXPECT_THAT(destination.planes[1].content(), ElementsAre(201, 202, 203, 128));
}

TEST_P(BlendingTest, PositionMinusThreeStartsChromaAtColumnTwo) {
    Image destination = Image::yuv(8, 2, false);
    Image overlay = overlayWithAlpha(8, 2, Bytes(16, 255));
    for (int c = 0; c < 4; ++c) overlay.planes[1].at(c, 0) = static_cast<std::uint8_t>(200 + c);
    blendYuva(destination, overlay, -3, 0);
    EXPECT_THAT(destination.planes[1].content(), ElementsAre(202, 203, 128, 128));
}

TEST_P(BlendingTest, PositionOneLandsLumaAtColumnOneAndChromaAtColumnZero) {
    Image destination = Image::yuv(4, 2, false);
    const Image overlay = overlayWithAlpha(2, 2, Bytes(4, 255));
    blendYuva(destination, overlay, 1, 0);
    EXPECT_THAT(destination.planes[0].content(), ElementsAre(16, 255, 255, 16, 16, 255, 255, 16));
    EXPECT_THAT(destination.planes[1].content(), ElementsAre(255, 128));
}

/// The overlay of the run rule: upper row of alpha `upper` in columns 0 ... 63, lower row the other extreme.
Image runOverlay(int width, std::uint8_t upper) {
    Image overlay = overlayWithAlpha(width, 4, Bytes(static_cast<std::size_t>(4 * width), 128));
    for (int x = 0; x < 64; ++x) {
        overlay.planes[3].at(x, 0) = upper;
        overlay.planes[3].at(x, 1) = static_cast<std::uint8_t>(255 - upper);
    }
    return overlay;
}

Bytes firstChromaRow(const Image& image) {
    const Plane& plane = image.planes[1];
    return Bytes(plane.data, plane.data + 32);
}

TEST_P(BlendingTest, InteriorRunIsSkippedWhereTheUpperAlphasAreClear) {
    Image destination = Image::yuv(80, 8, false);
    blendYuva(destination, runOverlay(67, 0), 0, 0);
    EXPECT_THAT(firstChromaRow(destination), Each(128));
    EXPECT_EQ(destination.planes[0].at(0, 0), 16);
    EXPECT_EQ(destination.planes[0].at(0, 1), 255);  // while luma is replaced
}

TEST_P(BlendingTest, InteriorRunIsCopiedWhereTheUpperAlphasAreOpaque) {
    Image destination = Image::yuv(80, 8, false);
    blendYuva(destination, runOverlay(67, 255), 0, 0);
    EXPECT_THAT(firstChromaRow(destination), Each(255));
}

TEST_P(BlendingTest, RunNearTheOverlaysRightEdgeIsBlended) {
    Image destination = Image::yuv(80, 8, false);
    blendYuva(destination, runOverlay(66, 0), 0, 0);
    EXPECT_THAT(firstChromaRow(destination), Each(blendedSample(128, 255, (255 + 255) / 4)));
}

TEST_P(BlendingTest, RunCutShortByTheDestinationIsBlended) {
    Image destination = Image::yuv(62, 8, false);  // 31 columns of chroma
    blendYuva(destination, runOverlay(67, 0), 0, 0);
    EXPECT_EQ(destination.planes[1].at(0, 0), blendedSample(128, 255, (255 + 255) / 4));
}

TEST_P(BlendingTest, RunsCountFromTheClippedStart) {
    // The run that begins at the overlay's chroma column 1 sees column 64, where alpha is 128.
    Image destination = Image::yuv(80, 8, false);
    blendYuva(destination, runOverlay(69, 0), -2, 0);
    EXPECT_EQ(destination.planes[1].at(0, 0), blendedSample(128, 255, (255 + 255) / 4));
}

TEST_P(BlendingTest, YuvaEqualsThePlainFormAtAnyPlaceAndSize) {
    std::uniform_int_distribution<int> size(0, 200);
    std::uniform_int_distribution<int> padding(0, 40);
    for (int i = 0; i < 1500; ++i) {
        const int width = size(random_);
        const int height = size(random_) / 4;
        Image overlay = Image::yuv(width, height, true, padding(random_));
        for (std::size_t p = 0; p < 3; ++p) fillNoise(overlay.planes[p], random_);
        fillAlpha(overlay.planes[3], 1, 0, random_);
        Image destination = noisyYuv(1 + size(random_), 1 + size(random_) / 4, padding(random_));
        Image expected = Image::yuv(destination.width, destination.height, false,
                                    destination.planes[0].linesize - destination.planes[0].rowBytes);
        expected.setContents(destination.contents());
        if (i % 2 == 1) {
            destination.moveToFront();
            overlay.moveToFront();
        }
        std::uniform_int_distribution<int> xs(-width - 3, destination.width + 3);
        std::uniform_int_distribution<int> ys(-height - 3, destination.height + 3);
        const int x = xs(random_);
        const int y = ys(random_);
        blendYuva(destination, overlay, x, y);
        referenceYuva(expected, overlay, x, y);
        ASSERT_EQ(destination.contents(), expected.contents())
            << width << " x " << height << " at " << x << ", " << y << " on " << destination.width << " x "
            << destination.height;
    }
}

TEST_P(BlendingTest, PackedEqualsThePlainFormAtAnyPlaceAndSize) {
    std::uniform_int_distribution<int> size(0, 130);
    std::uniform_int_distribution<int> padding(0, 40);
    for (int i = 0; i < 1500; ++i) {
        const Order order = i % 4 < 2 ? Order::rgba : Order::argb;
        Image overlay = noisyPacked(size(random_), size(random_) / 4, padding(random_));
        fillAlpha(overlay.planes[0], 4, order == Order::rgba ? 3 : 0, random_);
        Image destination = noisyPacked(1 + size(random_), 1 + size(random_) / 4, padding(random_));
        Image expected = Image::packed(destination.width, destination.height,
                                       destination.planes[0].linesize - destination.planes[0].rowBytes);
        expected.setContents(destination.contents());
        if (i % 2 == 1) {
            destination.moveToFront();
            overlay.moveToFront();
        }
        std::uniform_int_distribution<int> xs(-overlay.width - 3, destination.width + 3);
        std::uniform_int_distribution<int> ys(-overlay.height - 3, destination.height + 3);
        const int x = xs(random_);
        const int y = ys(random_);
        blendPacked(order, destination, overlay, x, y);
        referencePacked(order, expected, overlay, x, y);
        ASSERT_EQ(destination.contents(), expected.contents())
            << overlay.width << " x " << overlay.height << " at " << x << ", " << y << " on "
            << destination.width << " x " << destination.height;
    }
}

TEST_P(BlendingTest, ImagesWhoseRowsHaveNoGapsEqualThePlainForm) {
    // Many rows are taken as one then, and rows that are clear or opaque as a whole decide for chroma.
    std::uniform_int_distribution<int> width(1, 200);
    std::uniform_int_distribution<int> height(1, 160);
    std::uniform_int_distribution<int> offset(-2, 2);
    for (int i = 0; i < 300; ++i) {
        Image overlay = noisyYuva(width(random_), height(random_), 0);
        fillAlphaInBands(overlay.planes[3], random_);
        Image destination = noisyYuv(overlay.width, overlay.height);
        Image expected = Image::yuv(destination.width, destination.height, false);
        expected.setContents(destination.contents());
        const int x = i % 3 == 0 ? offset(random_) : 0;
        const int y = i % 2 == 0 ? offset(random_) : 0;
        blendYuva(destination, overlay, x, y);
        referenceYuva(expected, overlay, x, y);
        ASSERT_EQ(destination.contents(), expected.contents())
            << overlay.width << " x " << overlay.height << " at " << x << ", " << y;
    }
}

TEST_P(BlendingTest, PlaneWithGapsBesidePlanesWithoutIsReadRowByRow) {
    // The destination's luma, the overlay's luma, its alpha.
    for (int padded = 0; padded < 3; ++padded) {
        Image destination = noisyYuv(70, 30);
        Image overlay = noisyYuva(70, 30, 0);
        fillAlpha(overlay.planes[3], 1, 0, random_);
        Image expected = Image::yuv(70, 30, false);
        expected.setContents(destination.contents());
        referenceYuva(expected, overlay, 0, 0);

        Plane& plane = padded == 0 ? destination.planes[0] : overlay.planes[padded == 1 ? 0 : 3];
        Plane wider(70, 30, 7, 0);
        for (int y = 0; y < 30; ++y) std::copy_n(&plane.at(0, y), 70, &wider.at(0, y));
        plane = wider;
        blendYuva(destination, overlay, 0, 0);
        for (int y = 0; y < 30; ++y) {
            ASSERT_TRUE(std::equal(&expected.planes[0].at(0, y), &expected.planes[0].at(0, y) + 70,
                                   &destination.planes[0].at(0, y)))
                << "row " << y << ", padded " << padded;
        }
        for (const std::size_t p : {1U, 2U}) {
            ASSERT_EQ(destination.planes[p].content(), expected.planes[p].content()) << "padded " << padded;
        }
    }
}

/// The luma and the U of a black image after an overlay of 6 x 6 that is clear but for one column or row.
std::array<Bytes, 2> drawnThroughOneLine(int width, int height, bool column) {
    Image overlay = overlayWithAlpha(6, 6, Bytes(36, 0));
    for (int i = 0; i < 6; ++i) overlay.planes[3].at(column ? 3 : i, column ? i : 3) = 200;
    Image destination = Image::yuv(width, height, false);
    for (Plane& each : destination.planes) std::fill_n(each.data, each.bytes(), std::uint8_t{0});
    blendYuva(destination, overlay, 0, 0);
    return {destination.planes[0].content(), destination.planes[1].content()};
}

TEST_P(BlendingTest, AlphasJustBeyondAnOddRightEdgeOfTheDestinationCountForChroma) {
    const auto drawn = drawnThroughOneLine(3, 2, true);
    EXPECT_THAT(drawn[0], Each(0));
    EXPECT_THAT(drawn[1], ElementsAre(0, 100));
}

TEST_P(BlendingTest, AlphasJustBeyondAnOddLowerEdgeOfTheDestinationCountForChroma) {
    const auto drawn = drawnThroughOneLine(2, 3, false);
    EXPECT_THAT(drawn[0], Each(0));
    EXPECT_THAT(drawn[1], ElementsAre(0, 100));
}

TEST_P(BlendingTest, WideImagesEqualThePlainForm) {
    for (const int height : {5, 6}) {
        for (const int x : {0, -1, 3}) {
            for (const int y : {0, 1, -1, -3}) {
                Image overlay = noisyYuva(5001, 9, 0);
                fillAlphaInBands(overlay.planes[3], random_);
                Image destination = noisyYuv(4999, height);
                Image expected = Image::yuv(4999, height, false);
                expected.setContents(destination.contents());
                blendYuva(destination, overlay, x, y);
                referenceYuva(expected, overlay, x, y);
                ASSERT_TRUE(destination.contents() == expected.contents())
                    << height << " rows at " << x << ", " << y;
            }
        }
    }
}

TEST_P(BlendingTest, LargeImagesEqualThePlainForm) {
    for (const int width : {900, 901}) {
        for (const auto& position : {std::array<int, 2>{0, 0}, {-33, 7}, {64, -5}}) {
            Image overlay = noisyYuva(width, 403, 0);
            fillAlphaInBands(overlay.planes[3], random_);
            Image destination = noisyYuv(900, 402);
            Image expected = Image::yuv(900, 402, false);
            expected.setContents(destination.contents());
            blendYuva(destination, overlay, position[0], position[1]);
            referenceYuva(expected, overlay, position[0], position[1]);
            // Not compared as a whole: what differs would be a text of megabytes.
            ASSERT_TRUE(destination.contents() == expected.contents())
                << width << " columns at " << position[0] << ", " << position[1];
        }
    }
}

/// Memory for rows that lie gigabytes apart, of which only what is touched takes any.
class SparseMemory {
public:
    SparseMemory()
        : mapping_(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                        -1, 0)) {}
    ~SparseMemory() {
        if (exists()) munmap(mapping_, size);
    }
    SparseMemory(const SparseMemory&) = delete;
    SparseMemory& operator=(const SparseMemory&) = delete;

    bool exists() const { return mapping_ != MAP_FAILED; }
    /// The start of a row of one of a few planes.
    std::uint8_t* row(int plane, int y) const {
        return static_cast<std::uint8_t*>(mapping_) + std::ptrdiff_t{y} * linesize +
               std::ptrdiff_t{plane} * 512;
    }

    static constexpr int linesize = 1100000000;

private:
    static constexpr std::size_t size = std::size_t{5} * linesize + 4096;
    void* mapping_;
};

TEST_P(BlendingTest, RowsMayLieGigabytesApart) {
    const SparseMemory to;
    const SparseMemory from;
    if (!to.exists() || !from.exists()) GTEST_SKIP() << "there is no room for rows so far apart";
    const auto set = [](const SparseMemory& memory, int plane, int rows, std::uint8_t value) {
        for (int y = 0; y < rows; ++y) std::fill_n(memory.row(plane, y), 256, value);
    };
    set(to, 0, 6, 10);
    for (const int plane : {1, 2}) set(to, plane, 3, 20);
    for (const int plane : {0, 3}) set(from, plane, 6, 200);
    for (const int plane : {1, 2}) set(from, plane, 3, 200);
    std::uint8_t* const destination[] = {to.row(0, 0), to.row(1, 0), to.row(2, 0)};
    const std::uint8_t* const overlay[] = {from.row(0, 0), from.row(1, 0), from.row(2, 0), from.row(3, 0)};
    const int linesizes[] = {SparseMemory::linesize, SparseMemory::linesize, SparseMemory::linesize,
                             SparseMemory::linesize};
    blend_image_yuva420(destination, linesizes, 64, 6, overlay, linesizes, 64, 6, 0, 0);
    for (int y = 0; y < 6; ++y) {
        EXPECT_EQ(to.row(0, y)[63], blendedSample(10, 200, 200)) << "row " << y;
        EXPECT_EQ(to.row(0, y)[64], 10) << "row " << y;
    }
    for (int y = 0; y < 3; ++y) {
        for (const int plane : {1, 2}) EXPECT_EQ(to.row(plane, y)[31], blendedSample(20, 200, 200)) << y;
    }
    for (const auto blend : {blend_image_rgba, blend_image_argb}) {
        set(to, 0, 6, 10);
        blend(destination, linesizes, 64, 6, overlay, linesizes, 64, 6, 0, 0);
        for (int y = 0; y < 6; ++y) EXPECT_EQ(to.row(0, y)[254], blendedSample(10, 200, 200)) << "row " << y;
    }
}

TEST_P(BlendingTest, TakesNoMemory) {
    if (!test::heapIsOurs()) GTEST_SKIP() << "something else has replaced new";
    const Image overlay = noisyYuva(150, 40, 90);
    Image destination = noisyYuv(150, 40);
    Image packed = noisyPacked(150, 40);
    const Image pixels = noisyPacked(150, 40);
    const auto to = destination.data();
    const auto from = overlay.data();
    const auto packedTo = packed.data();
    const auto packedFrom = pixels.data();
    test::heap() = {};
    test::heap().recording = true;
    blend_image_yuva420(to.data(), destination.linesizes().data(), 150, 40, from.data(),
                        overlay.linesizes().data(), 150, 40, -3, 5);
    for (const auto blend : {blend_image_rgba, blend_image_argb}) {
        blend(packedTo.data(), packed.linesizes().data(), 150, 40, packedFrom.data(),
              pixels.linesizes().data(), 150, 40, -3, 5);
    }
    test::heap().recording = false;
    EXPECT_EQ(test::heap().requests, 0);
}

TEST_P(BlendingTest, PackedTakesNegativeLinesizes) {
    Image destination = noisyPacked(40, 10);
    Image expected = Image::packed(40, 10);
    expected.setContents(destination.contents());
    const Image overlay = noisyPacked(40, 10);
    // Both upside down is the same as both upright.
    std::uint8_t* const to[] = {&destination.planes[0].at(0, 9)};
    const std::uint8_t* const from[] = {overlay.planes[0].data + 9L * overlay.planes[0].linesize};
    const int toLinesize[] = {-destination.planes[0].linesize};
    const int fromLinesize[] = {-overlay.planes[0].linesize};
    blend_image_rgba(to, toLinesize, 40, 10, from, fromLinesize, 40, 10, 0, 0);
    referencePacked(Order::rgba, expected, overlay, 0, 0);
    EXPECT_EQ(destination.contents(), expected.contents());
}

TEST_P(BlendingTest, YuvaTakesNegativeLinesizes) {
    Image destination = noisyYuv(150, 41);
    Image overlay = noisyYuva(150, 41, 0);
    fillAlpha(overlay.planes[3], 1, 0, random_);
    Image expected = Image::yuv(150, 41, false);
    expected.setContents(destination.contents());
    referenceYuva(expected, overlay, -3, 5);

    const auto turnOver = [](Plane& plane) {
        for (int y = 0; y < plane.rows / 2; ++y) {
            std::swap_ranges(&plane.at(0, y), &plane.at(0, y) + plane.rowBytes,
                             &plane.at(0, plane.rows - 1 - y));
        }
    };
    std::array<std::uint8_t*, 4> to = {};
    std::array<std::uint8_t*, 4> from = {};
    std::array<int, 4> linesizes = {};
    for (std::size_t p = 0; p < 4; ++p) {
        if (p < 3) turnOver(destination.planes[p]);
        turnOver(overlay.planes[p]);
        const int lastRow = overlay.planes[p].rows - 1;
        if (p < 3) to[p] = &destination.planes[p].at(0, lastRow);
        from[p] = &overlay.planes[p].at(0, lastRow);
        linesizes[p] = -overlay.planes[p].linesize;
    }
    blend_image_yuva420(to.data(), linesizes.data(), 150, 41, from.data(), linesizes.data(), 150, 41, -3, 5);
    for (Plane& plane : destination.planes) turnOver(plane);
    EXPECT_EQ(destination.contents(), expected.contents());
}

TEST_P(BlendingTest, PictureBlendsOntoItselfInPlace) {
    // A * a + A * (255 - a) is A.
    Image image = noisyYuva(150, 40, 90);
    const auto before = image.contents();
    blendYuva(image, image, 0, 0);
    EXPECT_EQ(image.contents(), before);
    Image packed = noisyPacked(77, 30);
    const auto packedBefore = packed.contents();
    blendPacked(Order::rgba, packed, packed, 0, 0);
    EXPECT_EQ(packed.contents(), packedBefore);
}

TEST_P(BlendingTest, MemoryInCommonWithRowsOfAnotherLengthGoesSampleBySample) {
    const Image noise = noisyPacked(100, 12);
    for (const int longer : {4, 32, 100}) {
        Bytes expected = noise.planes[0].content();
        Bytes actual = expected;
        const auto blendInto = [&](Bytes& memory) {
            std::uint8_t* const to[] = {memory.data()};
            const std::uint8_t* const from[] = {memory.data()};
            const int fromRows[] = {200};
            const int toRows[] = {200 + longer};
            blend_image_rgba(to, toRows, 50, 12, from, fromRows, 50, 12, 0, 0);
        };
        kernels::setActive(&kernels::scalar);
        blendInto(expected);
        kernels::setActive(GetParam());
        blendInto(actual);
        EXPECT_EQ(actual, expected) << longer;
    }
}

TEST_P(BlendingTest, PictureOntoItselfElsewhereGoesSampleBySampleFromTheTopLeft) {
    for (const int x : {-35, -3, 1, 2, 33}) {
        for (const int y : {-4, 0, 3}) {
            Image image = Image::yuv(150, 40, true);
            for (std::size_t p = 0; p < 3; ++p) fillNoise(image.planes[p], random_);
            fillNoise(image.planes[3], random_);  // so that no run is uniform
            Image expected = Image::yuv(150, 40, true);
            expected.setContents(image.contents());
            blendYuva(image, image, x, y);
            referenceYuva(expected, expected, x, y);
            ASSERT_EQ(image.contents(), expected.contents()) << x << ", " << y;

            Image packed = noisyPacked(77, 30);
            Image expectedPacked = Image::packed(77, 30);
            expectedPacked.setContents(packed.contents());
            blendPacked(Order::argb, packed, packed, x, y);
            referencePacked(Order::argb, expectedPacked, expectedPacked, x, y);
            ASSERT_EQ(packed.contents(), expectedPacked.contents()) << x << ", " << y;
        }
    }
}

TEST_P(BlendingTest, PlanesThatShareMemoryWithAnotherPlaneGiveTheSameOnEveryCpu) {
    constexpr int width = 160;
    constexpr int height = 8;
    constexpr int chroma = width / 2;
    Bytes luma(width * height);
    // Where the planes of the destination begin in the memory of the overlay: luma in alpha, U in V, V in U.
    const auto blended = [&](const Bytes& start) {
        Bytes memory = start;
        std::uint8_t* const alpha = memory.data();
        std::uint8_t* const u = alpha + width * height + 64;
        std::uint8_t* const v = u + chroma * height / 2 + 64;
        const std::uint8_t* const from[] = {luma.data(), u, v, alpha};
        std::uint8_t* const to[] = {alpha + 5, v + 3, u + 3};
        const int fromLinesizes[] = {width, chroma, chroma, width};
        const int toLinesizes[] = {width, chroma, chroma};
        blend_image_yuva420(to, toLinesizes, width, height, from, fromLinesizes, width, height, 0, 0);
        return memory;
    };
    Bytes start(3 * width * height);
    std::uniform_int_distribution<int> byte(0, 255);
    for (Bytes* bytes : {&luma, &start}) {
        std::generate(bytes->begin(), bytes->end(), [&] { return static_cast<std::uint8_t>(byte(random_)); });
    }
    const Bytes result = blended(start);
    kernels::setActive(&kernels::scalar);
    EXPECT_EQ(result, blended(start));
}

}  // namespace
}  // namespace kvffmpeg
