#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kvffmpeg/image_utils.h"
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
using test::randomPicture;
using test::visibleBytes;
using testing::Each;
using testing::StrEq;
using testing::ThrowsMessage;

using Bytes = std::vector<std::uint8_t>;

const Color green(0, 255, 0);
constexpr int greenU = 44, greenV = 21;

Bytes bufferBytes(const Picture& picture) {
    return {picture.buffer()->data(), picture.buffer()->data() + picture.buffer()->size()};
}

void setPlane(Picture& picture, int plane, std::uint8_t value) {
    const bool isChroma = plane == 1 || plane == 2;
    for (int y = 0; y < (picture.height() + isChroma) >> isChroma; ++y) {
        std::uint8_t* row = picture.getPlanes()[plane] + y * picture.getLinesize()[plane];
        std::fill_n(row, (picture.width() + isChroma) >> isChroma, value);
    }
}

/// A picture of one colour with an alpha of 7.
Picture solid(rect_size_t size, int u, int v) {
    Picture picture(size, AV_PIX_FMT_YUVA420P);
    setPlane(picture, 0, 90);
    setPlane(picture, 1, static_cast<std::uint8_t>(u));
    setPlane(picture, 2, static_cast<std::uint8_t>(v));
    setPlane(picture, 3, 7);
    return picture;
}

int alphaAt(const Picture& picture, int x, int y) {
    return picture.getPlanes()[3][y * picture.getLinesize()[3] + x];
}

/// The alpha that one colour gets.
int keyedAlpha(int u, int v, const Color& key, float similarity, float blend) {
    Picture picture = solid({2, 2}, u, v);
    ImageUtils::chromaKeyingInPlace(picture, key, similarity, blend);
    return alphaAt(picture, 1, 1);
}

/// Writes what keying writes, pixel by pixel.
void keyNaively(Picture& picture, int keyU, int keyV, float similarity, float blend) {
    const float square = similarity * similarity;
    const int threshold = static_cast<int>(static_cast<double>(square) * 255.0 * 255.0);
    for (int y = 0; y < picture.height() / 2 * 2; ++y) {
        for (int x = 0; x < picture.width() / 2 * 2; ++x) {
            const int u = picture.getPlanes()[1][y / 2 * picture.getLinesize()[1] + x / 2] - keyU;
            const int v = picture.getPlanes()[2][y / 2 * picture.getLinesize()[2] + x / 2] - keyV;
            const int distance = u * u + v * v;
            int alpha = distance > threshold ? 255 : 0;
            if (blend > 0) {
                const float quotient = static_cast<float>(distance - threshold) / (blend * 255.0F);
                alpha = static_cast<int>(std::clamp(quotient, 0.0F, 255.0F));
            }
            picture.getPlanes()[3][y * picture.getLinesize()[3] + x] = static_cast<std::uint8_t>(alpha);
        }
    }
}

// ---- chromaKeyingInPlace

TEST(ChromaKeyingInPlaceTest, SharedPictureIsRefusedAndUnchanged) {
    Picture picture = solid({8, 8}, 1, 2);
    const Picture sharing = picture;
    const Bytes before = bufferBytes(picture);
    EXPECT_THAT([&] { ImageUtils::chromaKeyingInPlace(picture, green, 0.5F, 0); },
                ThrowsMessage<std::runtime_error>(StrEq("chromaKeyingInPlace: Picture must be editable")));
    EXPECT_EQ(bufferBytes(picture), before);
}

TEST(ChromaKeyingInPlaceTest, EmptyPictureIsRefused) {
    Picture empty;
    EXPECT_THAT([&] { ImageUtils::chromaKeyingInPlace(empty, green, 0.5F, 0); },
                ThrowsMessage<std::runtime_error>(StrEq("chromaKeyingInPlace: Picture must be editable")));
}

TEST(ChromaKeyingInPlaceTest, OtherFormatsAreRefusedAndUnchanged) {
    for (AVPixelFormat format : test::pictureFormats()) {
        if (format == AV_PIX_FMT_YUVA420P) continue;
        Picture picture = randomPicture({8, 8}, format);
        const Bytes before = bufferBytes(picture);
        EXPECT_THAT([&] { ImageUtils::chromaKeyingInPlace(picture, green, 0.5F, 0); },
                    ThrowsMessage<std::runtime_error>(StrEq("chromaKeyingInPlace: Unsupported pixel format")))
            << picture;
        EXPECT_EQ(bufferBytes(picture), before) << picture;
    }
}

TEST(ChromaKeyingInPlaceTest, EditableIsCheckedBeforeTheFormat) {
    Picture picture = randomPicture({8, 8}, AV_PIX_FMT_YUV420P);
    const Picture sharing = picture;
    EXPECT_THAT([&] { ImageUtils::chromaKeyingInPlace(picture, green, 0.5F, 0); },
                ThrowsMessage<std::runtime_error>(StrEq("chromaKeyingInPlace: Picture must be editable")));
}

TEST(ChromaKeyingInPlaceTest, KeyColourBecomesFullRangeChroma) {
    struct Case {
        Color key;
        int u, v;
    };
    const Case cases[] = {
        {green, greenU, greenV},
        {{255, 0, 0}, 85, 255},
        {{0, 0, 255}, 255, 107},
        {{0, 0, 0}, 128, 128},
        {{255, 255, 255}, 128, 128},
        {{12, 200, 77}, 98, 44},
        // Components are not limited to 255, and these sums need more than 32 bits.
        {{4294967295U, 0, 0}, 128, 127},
        {{3000000000U, 300, 4000000001U}, 60, 132},
        {{1, 4000000000U, 2}, 3, 254},
    };
    for (const Case& c : cases) {
        for (int du = -1; du <= 1; ++du) {
            for (int dv = -1; dv <= 1; ++dv) {
                const int u = std::clamp(c.u + du, 0, 255), v = std::clamp(c.v + dv, 0, 255);
                EXPECT_EQ(keyedAlpha(u, v, c.key, 0, 0), u == c.u && v == c.v ? 0 : 255)
                    << c.key << " " << u << " " << v;
            }
        }
    }
}

TEST(ChromaKeyingInPlaceTest, KeyDoesNotDependOnTheRangeOfThePicture) {
    for (AVColorRange range : {AVCOL_RANGE_UNSPECIFIED, AVCOL_RANGE_MPEG, AVCOL_RANGE_JPEG}) {
        Picture picture({2, 2}, AV_PIX_FMT_YUVA420P, range);
        setPlane(picture, 1, greenU);
        setPlane(picture, 2, greenV);
        setPlane(picture, 3, 7);
        ImageUtils::chromaKeyingInPlace(picture, green, 0, 0);
        EXPECT_EQ(alphaAt(picture, 0, 0), 0) << range;
        EXPECT_EQ(picture.colorRange(), range);
    }
}

TEST(ChromaKeyingInPlaceTest, AlphaOfTheKeyDoesNotCount) {
    for (unsigned alpha : {0U, 1U, 255U}) {
        EXPECT_EQ(keyedAlpha(greenU, greenV, Color(0, 255, 0, alpha), 0, 0), 0);
    }
}

TEST(ChromaKeyingInPlaceTest, DistanceEqualToTheThresholdIsTransparent) {
    ASSERT_EQ(static_cast<int>(static_cast<double>(0.2F * 0.2F) * 255.0 * 255.0), 51 * 51);
    EXPECT_EQ(keyedAlpha(greenU + 51, greenV, green, 0.2F, 0), 0);
    EXPECT_EQ(keyedAlpha(greenU + 51, greenV + 1, green, 0.2F, 0), 255);
}

TEST(ChromaKeyingInPlaceTest, SimilarityIsSquaredAsAFloat) {
    // T is 16256.
    EXPECT_EQ(keyedAlpha(greenU + 127, greenV + 11, green, 0.5F, 0), 0);    // 16250
    EXPECT_EQ(keyedAlpha(greenU + 127, greenV + 12, green, 0.5F, 0), 255);  // 16273
    EXPECT_EQ(keyedAlpha(greenU + 99, greenV + 80, green, 0.5F, 0), 0);     // 16201
    EXPECT_EQ(keyedAlpha(greenU + 96, greenV + 84, green, 0.5F, 0), 255);   // 16272
}

TEST(ChromaKeyingInPlaceTest, AlphaRisesBeyondTheThreshold) {
    EXPECT_EQ(keyedAlpha(greenU, greenV, green, 0, 0.1F), 0);
    EXPECT_EQ(keyedAlpha(greenU + 50, greenV, green, 0, 0.1F), 98);       // 2500 / 25.5
    EXPECT_EQ(keyedAlpha(greenU + 54, greenV + 9, green, 0, 0.1F), 117);  // 2997 / 25.5
    EXPECT_EQ(keyedAlpha(greenU + 100, greenV, green, 0, 0.1F), 255);     // 392, cut
    EXPECT_EQ(keyedAlpha(greenU + 10, greenV, green, 0.2F, 0.1F), 0);     // below
}

TEST(ChromaKeyingInPlaceTest, TinyBlendIsOpaqueBeyondTheThreshold) {
    for (float blend : {1e-30F, std::numeric_limits<float>::denorm_min()}) {
        EXPECT_EQ(keyedAlpha(greenU + 51, greenV + 1, green, 0.2F, blend), 255);
        EXPECT_EQ(keyedAlpha(greenU + 51, greenV, green, 0.2F, blend), 0);
        EXPECT_EQ(keyedAlpha(greenU, greenV, green, 0.2F, blend), 0);
    }
}

TEST(ChromaKeyingInPlaceTest, BlendThatIsNotPositiveIsHard) {
    for (float blend : {0.0F, -1.0F, std::numeric_limits<float>::quiet_NaN()}) {
        EXPECT_EQ(keyedAlpha(greenU + 51, greenV, green, 0.2F, blend), 0) << blend;
        EXPECT_EQ(keyedAlpha(greenU + 51, greenV + 1, green, 0.2F, blend), 255) << blend;
    }
}

TEST(ChromaKeyingInPlaceTest, ChromaSampleDecidesForFourPixels) {
    Picture picture = solid({6, 4}, 0, 0);
    picture.getPlanes()[1][1 * picture.getLinesize()[1] + 2] = greenU;
    picture.getPlanes()[2][1 * picture.getLinesize()[2] + 2] = greenV;
    ImageUtils::chromaKeyingInPlace(picture, green, 0, 0);
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 6; ++x) EXPECT_EQ(alphaAt(picture, x, y), x >= 4 && y >= 2 ? 0 : 255) << x << y;
    }
}

TEST(ChromaKeyingInPlaceTest, LastRowAndColumnOfOddSizesKeepTheirAlpha) {
    Picture picture = solid({5, 5}, 0, 0);
    ImageUtils::chromaKeyingInPlace(picture, green, 0, 0);
    for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 5; ++x) EXPECT_EQ(alphaAt(picture, x, y), x < 4 && y < 4 ? 255 : 7) << x << y;
    }
}

TEST(ChromaKeyingInPlaceTest, SinglePixelIsLeftAlone) {
    for (rect_size_t size : {rect_size_t{1, 1}, {1, 8}, {8, 1}}) {
        Picture picture = solid(size, 0, 0);
        const Bytes before = bufferBytes(picture);
        ImageUtils::chromaKeyingInPlace(picture, green, 0, 0);
        EXPECT_EQ(bufferBytes(picture), before);
    }
}

TEST(ChromaKeyingInPlaceTest, PictureWithoutBytesIsLeftAlone) {
    Picture picture = solid({4, 4}, 0, 0);
    picture.setData(std::make_shared<MemBuffer>());
    ImageUtils::chromaKeyingInPlace(picture, green, 0, 0);
    EXPECT_EQ(picture.getPlanes()[3], nullptr);
}

TEST(ChromaKeyingInPlaceTest, EqualsTheFormulaAndChangesAlphaAlone) {
    unsigned seed = 0;
    for (rect_size_t size : {rect_size_t{2, 2}, {63, 5}, {64, 6}, {65, 7}, {130, 9}, {200, 4}, {257, 3}}) {
        for (float similarity : {0.0F, 0.1F, 0.3F, 0.9F}) {
            for (float blend : {0.0F, 0.05F, 1.0F}) {
                ++seed;
                Picture actual =
                    randomPicture(size, AV_PIX_FMT_YUVA420P, AVCOL_RANGE_MPEG, seed % 2 == 0 ? 1 : 32, seed);
                Picture expected = actual;
                expected.makeEditable();
                keyNaively(expected, greenU, greenV, similarity, blend);
                ImageUtils::chromaKeyingInPlace(actual, green, similarity, blend);
                ASSERT_EQ(visibleBytes(actual), visibleBytes(expected))
                    << actual << " similarity " << similarity << " blend " << blend;
            }
        }
    }
}

TEST(ChromaKeyingInPlaceTest, CropIsKeyedAtTheStartOfItsUnmovedAlpha) {
    Picture whole = solid({16, 16}, 0, 0);
    Picture part = whole.crop({4, 8, 6, 4});
    whole = Picture();
    ASSERT_TRUE(part.editable());
    ImageUtils::chromaKeyingInPlace(part, green, 0, 0);
    const std::uint8_t* alpha = part.buffer()->data() + 256 + 2 * 64;
    for (int y = 0; y < 16; ++y) {
        for (int x = 0; x < 16; ++x) EXPECT_EQ(alpha[16 * y + x], x < 6 && y < 4 ? 255 : 7) << x << y;
    }
}

TEST(ChromaKeyingInPlaceTest, StaysInsideThePlanes) {
    for (int width = 1; width < 140; width += width < 10 ? 1 : 9) {
        for (int height : {1, 2, 3, 4}) {
            for (GuardedEnd end : {GuardedEnd::front, GuardedEnd::back}) {
                Picture expected = randomPicture({width, height}, AV_PIX_FMT_YUVA420P);
                GuardedPicture picture(expected, end);
                keyNaively(expected, greenU, greenV, 0.3F, 0.1F);
                ImageUtils::chromaKeyingInPlace(*picture, green, 0.3F, 0.1F);
                ASSERT_EQ(visibleBytes(*picture), visibleBytes(expected)) << *picture;
            }
        }
    }
}

// ---- chromaKeying

TEST(ChromaKeyingTest, ConvertsAndKeys) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV444P, AV_PIX_FMT_GRAY8}) {
        const Picture picture = randomPicture({37, 22}, format, AVCOL_RANGE_MPEG);
        const Bytes before = bufferBytes(picture);
        Picture expected = Scaler().convertToColorspace(picture, AV_PIX_FMT_YUVA420P, AVCOL_RANGE_MPEG);
        keyNaively(expected, greenU, greenV, 0.4F, 0.2F);
        const Picture keyed = ImageUtils::chromaKeying(picture, green, 0.4F, 0.2F);
        EXPECT_EQ(keyed.pixelFormat(), AV_PIX_FMT_YUVA420P);
        EXPECT_EQ(visibleBytes(keyed), visibleBytes(expected)) << picture;
        EXPECT_EQ(bufferBytes(picture), before) << picture;
    }
}

TEST(ChromaKeyingTest, PictureOfTheRightFormatIsKeyedInACopy) {
    const Picture picture = solid({8, 8}, greenU, greenV);
    const Picture keyed = ImageUtils::chromaKeying(picture, green, 0, 0);
    EXPECT_NE(keyed.buffer(), picture.buffer());
    EXPECT_TRUE(keyed.editable());
    EXPECT_TRUE(picture.editable());
    EXPECT_EQ(alphaAt(keyed, 0, 0), 0);
    EXPECT_EQ(bufferBytes(picture), bufferBytes(solid({8, 8}, greenU, greenV)));
}

TEST(ChromaKeyingTest, SharedPictureIsKeyedInACopy) {
    const Picture picture = solid({8, 8}, greenU, greenV);
    const Picture sharing = picture;
    EXPECT_EQ(alphaAt(ImageUtils::chromaKeying(picture, green, 0, 0), 0, 0), 0);
    EXPECT_EQ(alphaAt(sharing, 0, 0), 7);
}

TEST(ChromaKeyingTest, KeepsTheRange) {
    for (AVColorRange range : {AVCOL_RANGE_UNSPECIFIED, AVCOL_RANGE_MPEG, AVCOL_RANGE_JPEG}) {
        for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P, AV_PIX_FMT_RGB24}) {
            const Picture picture = randomPicture({8, 8}, format, range);
            EXPECT_EQ(ImageUtils::chromaKeying(picture, green, 0.2F, 0).colorRange(), range);
        }
    }
    const Picture full = randomPicture({8, 8}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG);
    const Picture keyed = ImageUtils::chromaKeying(full, green, 0.2F, 0);
    EXPECT_EQ(Bytes(keyed.getPlanes()[0], keyed.getPlanes()[0] + 64),
              Bytes(full.getPlanes()[0], full.getPlanes()[0] + 64));
}

TEST(ChromaKeyingTest, PictureWithoutPixelsIsRefused) {
    const Picture picture = solid({8, 8}, 0, 0);
    Picture withoutBuffer = picture;
    withoutBuffer.setData(nullptr);
    Picture rgb = randomPicture({8, 8}, AV_PIX_FMT_RGB24);
    rgb.setData(nullptr);
    for (const Picture& none : {Picture(), withoutBuffer, rgb, picture.crop({0, 0, 0, 4})}) {
        EXPECT_THAT([&] { ImageUtils::chromaKeying(none, green, 0.5F, 0); },
                    ThrowsMessage<std::runtime_error>(StrEq("chromaKeyingInPlace: Picture must be editable")))
            << none;
    }
}

TEST(ChromaKeyingTest, FormatThatCannotBeConvertedIsRefused) {
    int formats = 0;
    for (AVPixelFormat format : test::pictureFormats()) {
        if (sws_isSupportedInput(format)) continue;
        const Picture picture = randomPicture({8, 8}, format);
        EXPECT_THAT([&] { ImageUtils::chromaKeying(picture, green, 0.5F, 0); },
                    ThrowsMessage<std::runtime_error>(StrEq("chromaKeyingInPlace: Picture must be editable")))
            << picture;
        ++formats;
    }
    EXPECT_GT(formats, 0);
}

TEST(ChromaKeyingTest, WithoutMemoryThrowsAndLeavesTheArgument) {
    if (!test::heapIsOurs()) GTEST_SKIP() << "new cannot be made to fail here";
    for (AVPixelFormat format : {AV_PIX_FMT_RGBA, AV_PIX_FMT_YUVA420P}) {  // converted, and only copied
        const Picture picture = randomPicture({16, 16}, format);
        const Bytes before = bufferBytes(picture);
        const int failures =
            test::failEachAllocation([&] { ImageUtils::chromaKeying(picture, green, 0.5F, 0); },
                                     [&] {
                                         EXPECT_EQ(bufferBytes(picture), before) << picture;
                                         EXPECT_TRUE(picture.editable()) << picture;
                                     });
        EXPECT_GT(failures, 1);
    }
}

}  // namespace
}  // namespace kvffmpeg
