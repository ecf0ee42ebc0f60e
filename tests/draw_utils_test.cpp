#include "kvffmpeg/draw_utils.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/media.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg {
namespace {

using test::randomPicture;
using test::visibleBytes;
using testing::Each;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

using Bytes = std::vector<std::uint8_t>;

Bytes bufferBytes(const Picture& picture) {
    return {picture.buffer()->data(), picture.buffer()->data() + picture.buffer()->size()};
}

Picture uniform(rect_size_t size, AVPixelFormat format, int value,
                AVColorRange range = AVCOL_RANGE_UNSPECIFIED) {
    Picture picture(size, format, range);
    std::memset(picture.buffer()->data(), value, picture.buffer()->size());
    return picture;
}

/// The same pixels in memory of their own.
Picture ownCopy(const Picture& picture) {
    Picture copy = picture;
    copy.makeEditable();
    return copy;
}

int at(const Picture& picture, int plane, int x, int y) {
    return picture.getPlanes()[plane][y * picture.getLinesize()[plane] + x];
}

/// The rows of a plane of one byte a sample.
std::vector<std::vector<int>> rowsOf(const Picture& picture, int plane, int width, int height) {
    std::vector<std::vector<int>> rows;
    for (int y = 0; y < height; ++y) {
        const unsigned char* row = picture.getPlanes()[plane] + y * picture.getLinesize()[plane];
        rows.emplace_back(row, row + width);
    }
    return rows;
}

// ---- fillRectangle

constexpr const char* fillNeedsEditable = "fillRectangle: Picture must be editable";

TEST(FillRectangleTest, SharedPictureThrowsAndStaysUnchanged) {
    Picture picture = randomPicture({8, 8}, AV_PIX_FMT_YUV420P);
    const Picture other = picture;
    const Bytes before = bufferBytes(picture);
    EXPECT_THAT(
        [&] {
            DrawUtils::fillRectangle(picture, {0, 0, 8, 8}, Color());
        },
        ThrowsMessage<std::runtime_error>(StrEq(fillNeedsEditable)));
    EXPECT_THAT([&] { DrawUtils::fillRectangle(picture, Color()); },
                ThrowsMessage<std::runtime_error>(StrEq(fillNeedsEditable)));
    EXPECT_EQ(bufferBytes(picture), before);
}

TEST(FillRectangleTest, EmptyPictureThrows) {
    Picture picture;
    EXPECT_THAT(
        [&] {
            DrawUtils::fillRectangle(picture, {0, 0, 8, 8}, Color());
        },
        ThrowsMessage<std::runtime_error>(StrEq(fillNeedsEditable)));
}

TEST(FillRectangleTest, EditableIsCheckedBeforeTheFormatAndTheRectangle) {
    Picture picture = randomPicture({8, 8}, AV_PIX_FMT_YUYV422);
    const Picture other = picture;
    EXPECT_THAT(
        [&] {
            DrawUtils::fillRectangle(picture, {0, 0, 0, 0}, Color());
        },
        ThrowsMessage<std::runtime_error>(StrEq(fillNeedsEditable)));
}

TEST(FillRectangleTest, OddRectangleIsRoundedDownToTheChromaGrid) {
    Picture picture = uniform({10, 10}, AV_PIX_FMT_YUV420P, 1);
    DrawUtils::fillRectangle(picture, {3, 3, 5, 5}, Color(255, 0, 0));
    for (int y = 0; y < 10; ++y) {
        for (int x = 0; x < 10; ++x) {
            const bool inside = x >= 2 && x <= 5 && y >= 2 && y <= 5;
            EXPECT_EQ(at(picture, 0, x, y), inside ? 81 : 1) << x << "," << y;
        }
    }
    for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 5; ++x) {
            const bool inside = x >= 1 && x <= 2 && y >= 1 && y <= 2;
            EXPECT_EQ(at(picture, 1, x, y), inside ? 90 : 1) << x << "," << y;
            EXPECT_EQ(at(picture, 2, x, y), inside ? 240 : 1) << x << "," << y;
        }
    }
}

TEST(FillRectangleTest, RectangleOutsideChangesNothingWhateverTheFormat) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA, AV_PIX_FMT_YUYV422}) {
        Picture picture = randomPicture({8, 8}, format);
        const Bytes before = bufferBytes(picture);
        for (const rect_t& rect : {rect_t{20, 0, 4, 4},
                                   {0, 20, 4, 4},
                                   {-9, 0, 4, 4},
                                   {0, -9, 4, 4},
                                   {INT_MIN, INT_MIN, 4, 4},
                                   {INT_MAX, INT_MAX, INT_MAX, INT_MAX}}) {
            DrawUtils::fillRectangle(picture, rect, Color());
            EXPECT_EQ(bufferBytes(picture), before) << rect;
        }
    }
}

TEST(FillRectangleTest, RectangleOfNoSizeChangesNothingWhateverTheFormat) {
    Picture picture = randomPicture({8, 8}, AV_PIX_FMT_YUYV422);
    const Bytes before = bufferBytes(picture);
    DrawUtils::fillRectangle(picture, {5, 5, 0, 0}, Color());
    EXPECT_EQ(bufferBytes(picture), before);
}

TEST(FillRectangleTest, RectangleWithOneSideOfNoSizeChangesNothing) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA}) {
        Picture picture = randomPicture({8, 8}, format);
        const Bytes before = bufferBytes(picture);
        DrawUtils::fillRectangle(picture, {4, 4, 0, 4}, Color());
        DrawUtils::fillRectangle(picture, {4, 4, 4, 0}, Color());
        EXPECT_EQ(bufferBytes(picture), before);
    }
}

TEST(FillRectangleTest, RectangleThatTouchesChangesNothing) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA}) {
        Picture picture = randomPicture({8, 8}, format);
        const Bytes before = bufferBytes(picture);
        for (const rect_t& rect :
             {rect_t{8, 0, 4, 4}, {0, 8, 4, 4}, {-4, 0, 4, 4}, {0, -4, 4, 4}, {8, 8, 4, 4}}) {
            DrawUtils::fillRectangle(picture, rect, Color());
            EXPECT_EQ(bufferBytes(picture), before) << rect;
        }
    }
}

TEST(FillRectangleTest, RectangleThatTouchesAFormatThatIsNotDrawnOnThrows) {
    Picture picture = randomPicture({8, 8}, AV_PIX_FMT_YUYV422);
    EXPECT_THAT(
        [&] {
            DrawUtils::fillRectangle(picture, {8, 0, 4, 4}, Color());
        },
        ThrowsMessage<std::runtime_error>(StrEq("Drawing is not supported for yuyv422")));
}

TEST(FillRectangleTest, RectangleThatTouchesACornerIsOfNoSize) {
    Picture picture = randomPicture({8, 8}, AV_PIX_FMT_YUYV422);
    EXPECT_NO_THROW(DrawUtils::fillRectangle(picture, {8, 8, 4, 4}, Color()));
}

TEST(FillRectangleTest, NegativeSizesDrawNothing) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA, AV_PIX_FMT_RGB24, AV_PIX_FMT_GRAY8}) {
        Picture picture = randomPicture({8, 8}, format);
        const Bytes before = bufferBytes(picture);
        for (const rect_t& rect : {rect_t{4, 4, -1, 4},
                                   {4, 4, 4, -1},
                                   {4, 4, -3, -3},
                                   {8, 8, -4, -4},
                                   {4, 4, INT_MIN, 4},
                                   {4, 4, 4, INT_MIN},
                                   {6, 0, -5, 8}}) {
            DrawUtils::fillRectangle(picture, rect, Color());
            EXPECT_EQ(bufferBytes(picture), before) << rect;
        }
    }
}

TEST(FillRectangleTest, FormatThatIsNotDrawnOnThrowsItsNameAndStaysUnchanged) {
    for (const auto& [format, message] :
         {std::pair{AV_PIX_FMT_YUYV422, "Drawing is not supported for yuyv422"},
          {AV_PIX_FMT_PAL8, "Drawing is not supported for pal8"},
          {AV_PIX_FMT_RGB565LE, "Drawing is not supported for rgb565le"},
          {AV_PIX_FMT_RGBA64LE, "Drawing is not supported for rgba64le"}}) {
        Picture picture = randomPicture({8, 8}, format);
        const Bytes before = bufferBytes(picture);
        EXPECT_THAT([&] { DrawUtils::fillRectangle(picture, Color()); },
                    ThrowsMessage<std::runtime_error>(StrEq(message)));
        EXPECT_EQ(bufferBytes(picture), before) << message;
    }
}

TEST(FillRectangleTest, SinglePixelOfSubsampledChromaFillsNothing) {
    Picture picture = randomPicture({8, 8}, AV_PIX_FMT_YUV420P);
    const Bytes before = bufferBytes(picture);
    DrawUtils::fillRectangle(picture, {4, 4, 1, 1}, Color());
    EXPECT_EQ(bufferBytes(picture), before);
}

TEST(FillRectangleTest, OddPictureOfSubsampledChromaKeepsItsLastRowAndColumn) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12}) {
        Picture picture = uniform({5, 5}, format, 1);
        DrawUtils::fillRectangle(picture, Color(0, 0, 0));
        EXPECT_THAT(rowsOf(picture, 0, 5, 5),
                    ElementsAre(ElementsAre(16, 16, 16, 16, 1), ElementsAre(16, 16, 16, 16, 1),
                                ElementsAre(16, 16, 16, 16, 1), ElementsAre(16, 16, 16, 16, 1), Each(1)));
    }
    Picture picture = uniform({5, 5}, AV_PIX_FMT_YUV420P, 1);
    DrawUtils::fillRectangle(picture, Color(0, 0, 0));
    for (int plane : {1, 2}) {
        EXPECT_THAT(rowsOf(picture, plane, 3, 3),
                    ElementsAre(ElementsAre(128, 128, 1), ElementsAre(128, 128, 1), Each(1)));
    }
}

TEST(FillRectangleTest, AlphaIsReplacedAndNotBlendedWith) {
    Picture yuva = uniform({4, 4}, AV_PIX_FMT_YUVA420P, 1);
    DrawUtils::fillRectangle(yuva, Color(255, 0, 0, 7));
    EXPECT_EQ(at(yuva, 0, 0, 0), 81);
    EXPECT_THAT(rowsOf(yuva, 3, 4, 4), Each(Each(7)));
    Picture rgba = uniform({4, 4}, AV_PIX_FMT_RGBA, 1);
    DrawUtils::fillRectangle(rgba, Color(10, 20, 30, 0));
    EXPECT_THAT(rowsOf(rgba, 0, 4, 1), ElementsAre(ElementsAre(10, 20, 30, 0)));
}

TEST(FillRectangleTest, AlphaRowsOfYuvaFollowLumaAndNotChroma) {
    Picture picture = uniform({8, 8}, AV_PIX_FMT_YUVA420P, 1);
    DrawUtils::fillRectangle(picture, {2, 4, 4, 2}, Color(0, 0, 0, 99));
    for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 8; ++x) {
            const bool inside = x >= 2 && x < 6 && y >= 4 && y < 6;
            EXPECT_EQ(at(picture, 3, x, y), inside ? 99 : 1) << x << "," << y;
        }
    }
}

TEST(FillRectangleTest, ColorsFollowThePicturesRange) {
    const auto white = [](AVPixelFormat format, AVColorRange range) {
        Picture picture = uniform({2, 2}, format, 1, range);
        DrawUtils::fillRectangle(picture, Color(255, 255, 255));
        return at(picture, 0, 0, 0);
    };
    EXPECT_EQ(white(AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED), 235);
    EXPECT_EQ(white(AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG), 235);
    EXPECT_EQ(white(AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG), 255);
    EXPECT_EQ(white(AV_PIX_FMT_YUVJ420P, AVCOL_RANGE_UNSPECIFIED), 255);
    EXPECT_EQ(white(AV_PIX_FMT_GRAY8, AVCOL_RANGE_UNSPECIFIED), 235);
    EXPECT_EQ(white(AV_PIX_FMT_GRAY8, AVCOL_RANGE_JPEG), 255);
    EXPECT_EQ(white(AV_PIX_FMT_RGBA, AVCOL_RANGE_MPEG), 255);
}

TEST(FillRectangleTest, LowEightBitsOfComponentsCount) {
    Picture picture = uniform({1, 1}, AV_PIX_FMT_RGBA, 1);
    DrawUtils::fillRectangle(picture, Color(256 + 10, 512 + 20, 30, 0xFFFFFF28));
    EXPECT_THAT(bufferBytes(picture), ElementsAre(10, 20, 30, 40));
}

TEST(FillRectangleTest, WholePictureIsFilledWithoutARectangle) {
    Picture picture = uniform({3, 3}, AV_PIX_FMT_RGB24, 1);
    DrawUtils::fillRectangle(picture, Color(9, 9, 9));
    EXPECT_THAT(bufferBytes(picture), Each(9));
}

TEST(FillRectangleTest, RectangleBeyondAllEdgesFillsThePicture) {
    Picture picture = uniform({4, 4}, AV_PIX_FMT_YUVA420P, 1);
    DrawUtils::fillRectangle(picture, {-1000, -1000, INT_MAX, INT_MAX}, Color(255, 0, 0));
    Picture whole = uniform({4, 4}, AV_PIX_FMT_YUVA420P, 2);
    DrawUtils::fillRectangle(whole, Color(255, 0, 0));
    EXPECT_EQ(bufferBytes(picture), bufferBytes(whole));
}

TEST(FillRectangleTest, EveryFormatIsFilledOnItsChromaGridAndNowhereElse) {
    const rect_t rect{5, 3, 11, 9};
    int checked = 0;
    for (const AVPixFmtDescriptor* d = av_pix_fmt_desc_next(nullptr); d; d = av_pix_fmt_desc_next(d)) {
        const AVPixelFormat format = av_pix_fmt_desc_get_id(d);
        FFDrawContext context;
        if (ff_draw_init(&context, format, 0) < 0) continue;
        const FFDrawColor color = initDrawColor(context, Color(200, 100, 50, 150));
        const int x0 = rect.x >> d->log2_chroma_w << d->log2_chroma_w;
        const int y0 = rect.y >> d->log2_chroma_h << d->log2_chroma_h;
        const int w = rect.w >> d->log2_chroma_w << d->log2_chroma_w;
        const int h = rect.h >> d->log2_chroma_h << d->log2_chroma_h;
        for (int align : {1, 32}) {
            Picture picture = randomPicture({21, 17}, format, AVCOL_RANGE_UNSPECIFIED, align);
            Picture model = ownCopy(picture);
            std::memcpy(model.buffer()->data(), picture.buffer()->data(), picture.buffer()->size());
            for (int p = 0; p < static_cast<int>(context.nb_planes); ++p) {
                const int hs = context.hsub[p], vs = context.vsub[p], step = context.pixelstep[p];
                for (int y = y0 >> vs; y < (y0 + h) >> vs; ++y) {
                    for (int x = x0 >> hs; x < (x0 + w) >> hs; ++x) {
                        std::memcpy(model.getPlanes()[p] + y * model.getLinesize()[p] + x * step,
                                    color.comp[p].u8, static_cast<std::size_t>(step));
                    }
                }
            }
            DrawUtils::fillRectangle(picture, rect, Color(200, 100, 50, 150));
            ASSERT_EQ(bufferBytes(picture), bufferBytes(model)) << d->name << " align " << align;
        }
        ++checked;
    }
    EXPECT_GE(checked, 73);
}

TEST(FillRectangleTest, OnlyThePartThatACropShowsIsFilled) {
    Picture whole = uniform({12, 12}, AV_PIX_FMT_YUV420P, 1);
    Picture part = whole.crop({4, 4, 4, 4});
    const unsigned char* const first = part.getPlanes()[0];
    whole = Picture();
    ASSERT_TRUE(part.editable());
    DrawUtils::fillRectangle(part, Color(255, 0, 0));
    for (int y = -4; y < 8; ++y) {
        for (int x = -4; x < 8; ++x) {
            const bool inside = x >= 0 && x < 4 && y >= 0 && y < 4;
            EXPECT_EQ(first[y * part.getLinesize()[0] + x], inside ? 81 : 1) << x << "," << y;
        }
    }
}

TEST(FillRectangleTest, PictureWithoutBytesIsLeftAlone) {
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA}) {
        Picture picture({4, 4}, format);
        picture.setData(std::make_shared<MemBuffer>());
        ASSERT_TRUE(picture.editable());
        ASSERT_EQ(picture.getPlanes()[0], nullptr);
        EXPECT_NO_THROW(DrawUtils::fillRectangle(picture, Color()));
    }
}

// ---- compose

constexpr const char* unsupportedDestination = "compose: Unsupported destination pixel format.";

TEST(ComposeTest, SharedDestinationThrowsAndStaysUnchanged) {
    Picture destination = randomPicture({8, 8}, AV_PIX_FMT_RGBA);
    const Picture other = destination;
    const Bytes before = bufferBytes(destination);
    EXPECT_THAT(
        [&] {
            DrawUtils::compose(destination, randomPicture({4, 4}, AV_PIX_FMT_RGBA), {0, 0});
        },
        ThrowsMessage<std::runtime_error>(StrEq("compose: Picture must be editable")));
    EXPECT_EQ(bufferBytes(destination), before);
}

TEST(ComposeTest, EmptyDestinationThrows) {
    Picture destination;
    EXPECT_THAT(
        [&] {
            DrawUtils::compose(destination, randomPicture({4, 4}, AV_PIX_FMT_RGBA), {0, 0});
        },
        ThrowsMessage<std::runtime_error>(StrEq("compose: Picture must be editable")));
}

TEST(ComposeTest, EditableIsCheckedBeforeThePosition) {
    Picture destination = randomPicture({8, 8}, AV_PIX_FMT_RGBA);
    const Picture other = destination;
    EXPECT_THAT(
        [&] {
            DrawUtils::compose(destination, randomPicture({4, 4}, AV_PIX_FMT_RGBA), {50, 50});
        },
        ThrowsMessage<std::runtime_error>(StrEq("compose: Picture must be editable")));
}

struct Mismatch {
    AVPixelFormat destination;
    std::vector<AVPixelFormat> overlays;
    const char* message;
};

TEST(ComposeTest, FormatsThatDoNotGoTogetherThrowAndChangeNothing) {
    const Mismatch mismatches[] = {
        {AV_PIX_FMT_ARGB,
         {AV_PIX_FMT_RGBA, AV_PIX_FMT_BGRA, AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P, AV_PIX_FMT_RGB24},
         "compose: Unsupported overlay pixel format for ARGB"},
        {AV_PIX_FMT_RGBA,
         {AV_PIX_FMT_ARGB, AV_PIX_FMT_BGRA, AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P, AV_PIX_FMT_RGB24},
         "compose: Unsupported overlay pixel format for RGBA"},
        {AV_PIX_FMT_YUV420P,
         {AV_PIX_FMT_RGBA, AV_PIX_FMT_ARGB, AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUVA422P, AV_PIX_FMT_NV12},
         "compose: Unsupported overlay pixel format for YUV420P"},
        {AV_PIX_FMT_YUVA420P,
         {AV_PIX_FMT_YUVA420P, AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA},
         unsupportedDestination},
        {AV_PIX_FMT_RGB24, {AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA, AV_PIX_FMT_YUVA420P}, unsupportedDestination},
        {AV_PIX_FMT_BGRA, {AV_PIX_FMT_BGRA}, unsupportedDestination},
        {AV_PIX_FMT_YUVJ420P, {AV_PIX_FMT_YUVA420P, AV_PIX_FMT_YUVJ420P}, unsupportedDestination},
    };
    for (const Mismatch& mismatch : mismatches) {
        for (AVPixelFormat format : mismatch.overlays) {
            SCOPED_TRACE(std::string(av_get_pix_fmt_name(format)) + " on " +
                         av_get_pix_fmt_name(mismatch.destination));
            Picture destination = randomPicture({8, 8}, mismatch.destination);
            const Bytes before = bufferBytes(destination);
            const Picture overlay = randomPicture({4, 4}, format);
            EXPECT_THAT(
                [&] {
                    DrawUtils::compose(destination, overlay, {2, 2});
                },
                ThrowsMessage<std::runtime_error>(StrEq(mismatch.message)));
            EXPECT_EQ(bufferBytes(destination), before);
        }
    }
}

TEST(ComposeTest, OverlayOutsideDoesNothingWhateverTheFormats) {
    for (AVPixelFormat format : {AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P}) {
        Picture destination = randomPicture({8, 8}, format);
        const Bytes before = bufferBytes(destination);
        for (const point_t& position : {point_t{9, 0},
                                        {0, 9},
                                        {-5, 0},
                                        {0, -5},
                                        {INT_MIN, 0},
                                        {0, INT_MIN},
                                        {INT_MIN, INT_MIN},
                                        {INT_MAX, INT_MAX},
                                        {INT_MAX, 0}}) {
            DrawUtils::compose(destination, randomPicture({4, 4}, AV_PIX_FMT_ARGB), position);
            EXPECT_EQ(bufferBytes(destination), before) << position;
        }
    }
}

TEST(ComposeTest, OverlayThatTouchesDoesNothing) {
    for (const auto& [format, overlayFormat] : {std::pair{AV_PIX_FMT_RGBA, AV_PIX_FMT_RGBA},
                                                {AV_PIX_FMT_ARGB, AV_PIX_FMT_ARGB},
                                                {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P},
                                                {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P}}) {
        Picture destination = randomPicture({8, 8}, format);
        const Bytes before = bufferBytes(destination);
        for (const point_t& position : {point_t{8, 0}, {0, 8}, {-4, 0}, {0, -4}, {8, 8}}) {
            DrawUtils::compose(destination, randomPicture({4, 4}, overlayFormat), position);
            EXPECT_EQ(bufferBytes(destination), before) << position;
        }
    }
}

TEST(ComposeTest, OverlayThatTouchesHasItsFormatChecked) {
    Picture rgb24 = randomPicture({8, 8}, AV_PIX_FMT_RGB24);
    EXPECT_THAT(
        [&] {
            DrawUtils::compose(rgb24, randomPicture({4, 4}, AV_PIX_FMT_RGBA), {8, 0});
        },
        ThrowsMessage<std::runtime_error>(StrEq(unsupportedDestination)));
    Picture argb = randomPicture({8, 8}, AV_PIX_FMT_ARGB);
    EXPECT_THAT(
        [&] {
            DrawUtils::compose(argb, randomPicture({4, 4}, AV_PIX_FMT_RGBA), {0, -4});
        },
        ThrowsMessage<std::runtime_error>(StrEq("compose: Unsupported overlay pixel format for ARGB")));
}

TEST(ComposeTest, EmptyOverlayDoesNothing) {
    Picture destination = randomPicture({8, 8}, AV_PIX_FMT_RGB24);
    const Bytes before = bufferBytes(destination);
    DrawUtils::compose(destination, Picture(), {0, 0});
    EXPECT_EQ(bufferBytes(destination), before);
}

TEST(ComposeTest, PicturesWithoutBytesAreLeftAlone) {
    for (const auto& [format, overlayFormat] : {std::pair{AV_PIX_FMT_RGBA, AV_PIX_FMT_RGBA},
                                                {AV_PIX_FMT_ARGB, AV_PIX_FMT_ARGB},
                                                {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P},
                                                {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P}}) {
        Picture destination = randomPicture({4, 4}, format);
        Picture overlay({4, 4}, overlayFormat);
        overlay.setData(nullptr);
        const Bytes before = bufferBytes(destination);
        DrawUtils::compose(destination, overlay, {0, 0});
        EXPECT_EQ(bufferBytes(destination), before);
        destination.setData(std::make_shared<MemBuffer>());
        DrawUtils::compose(destination, randomPicture({4, 4}, overlayFormat), {0, 0});
        EXPECT_EQ(destination.getPlanes()[0], nullptr);
    }
}

/// (d (255 - a) + s a) / 255, rounded to nearest.
int blended(int d, int s, int a) {
    return (2 * (d * (255 - a) + s * a) + 255) / 510;
}

/// Pixels of four bytes, with alpha at byte `alphaAt`.
void expectBlended(const Picture& before, const Picture& overlay, point_t position, int alphaAt,
                   const Picture& result) {
    for (int y = 0; y < before.height(); ++y) {
        for (int x = 0; x < before.width(); ++x) {
            const long i = static_cast<long>(x) - position.x, j = static_cast<long>(y) - position.y;
            const bool covered = i >= 0 && j >= 0 && i < overlay.width() && j < overlay.height();
            for (int byte = 0; byte < 4; ++byte) {
                int expected = at(before, 0, 4 * x + byte, y);
                if (covered && byte != alphaAt) {
                    const int left = 4 * static_cast<int>(i), row = static_cast<int>(j);
                    expected = blended(expected, at(overlay, 0, left + byte, row),
                                       at(overlay, 0, left + alphaAt, row));
                }
                ASSERT_EQ(at(result, 0, 4 * x + byte, y), expected)
                    << x << "," << y << " byte " << byte << " overlay at " << position;
            }
        }
    }
}

class ComposePackedTest : public testing::TestWithParam<std::pair<AVPixelFormat, int>> {};

TEST_P(ComposePackedTest, OverlayIsBlendedAndTheDestinationsAlphaStays) {
    const auto [format, alphaAt] = GetParam();
    for (const point_t& position :
         {point_t{0, 0}, {3, 5}, {-10, -10}, {-1, 4}, {4, -1}, {25, 15}, {-40, 2}, {2, -17}, {-70, -70}}) {
        const Picture before = randomPicture({31, 19}, format, AVCOL_RANGE_UNSPECIFIED, 1, 5);
        const Picture overlay = randomPicture({43, 23}, format, AVCOL_RANGE_UNSPECIFIED, 32, 6);
        Picture destination = ownCopy(before);
        DrawUtils::compose(destination, overlay, position);
        expectBlended(before, overlay, position, alphaAt, destination);
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, ComposePackedTest,
                         testing::Values(std::pair{AV_PIX_FMT_RGBA, 3}, std::pair{AV_PIX_FMT_ARGB, 0}),
                         [](const auto& test) { return std::string(av_get_pix_fmt_name(test.param.first)); });

TEST(ComposeTest, OverlayIsNotChangedAndMayBeShared) {
    Picture destination = randomPicture({8, 8}, AV_PIX_FMT_RGBA);
    const Picture overlay = randomPicture({6, 6}, AV_PIX_FMT_RGBA, AVCOL_RANGE_UNSPECIFIED, 1, 2);
    const Picture other = overlay;
    const Bytes before = bufferBytes(overlay);
    DrawUtils::compose(destination, overlay, {1, 1});
    EXPECT_EQ(bufferBytes(overlay), before);
    EXPECT_TRUE(destination.editable());
}

/// A YUVA 4:2:0 picture of one colour and alpha.
Picture overlayOf(rect_size_t size, int y, int u, int v, int alpha) {
    Picture picture(size, AV_PIX_FMT_YUVA420P);
    const int values[] = {y, u, v, alpha};
    for (int p = 0; p < 4; ++p) {
        const int shift = p == 1 || p == 2 ? 1 : 0;
        for (int row = 0; row < (size.h + shift) >> shift; ++row) {
            std::memset(picture.getPlanes()[p] + row * picture.getLinesize()[p], values[p],
                        static_cast<std::size_t>((size.w + shift) >> shift));
        }
    }
    return picture;
}

/// Expects rows and columns `area` of luma, and the chroma below them, to have become these values.
void expectArea(const Picture& picture, rect_t area, int before, const std::vector<int>& yuv) {
    for (int p = 0; p < 3; ++p) {
        const int shift = p == 0 ? 0 : 1;
        for (int y = 0; y < (picture.height() + shift) >> shift; ++y) {
            for (int x = 0; x < (picture.width() + shift) >> shift; ++x) {
                const bool inside = x >= area.x >> shift && x < (area.x >> shift) + (area.w >> shift) &&
                                    y >= area.y >> shift && y < (area.y >> shift) + (area.h >> shift);
                ASSERT_EQ(at(picture, p, x, y), inside ? yuv[static_cast<std::size_t>(p)] : before)
                    << "plane " << p << " " << x << "," << y;
            }
        }
    }
}

TEST(ComposeTest, YuvaIsBlendedOntoYuv) {
    Picture destination = uniform({16, 16}, AV_PIX_FMT_YUV420P, 10);
    DrawUtils::compose(destination, overlayOf({6, 4}, 200, 100, 50, 100), {4, 2});
    expectArea(destination, {4, 2, 6, 4}, 10,
               {blended(10, 200, 100), blended(10, 100, 100), blended(10, 50, 100)});
    EXPECT_EQ(at(destination, 0, 4, 2), 85);
}

TEST(ComposeTest, OverlayAtANegativePositionShowsItsRest) {
    Picture destination = uniform({16, 16}, AV_PIX_FMT_YUV420P, 10);
    Picture overlay = overlayOf({20, 20}, 0, 0, 0, 255);
    for (int y = 0; y < 20; ++y) {
        for (int x = 0; x < 20; ++x) {
            overlay.getPlanes()[0][y * 20 + x] = static_cast<std::uint8_t>(10 * y + x);
            overlay.getPlanes()[1][y / 2 * 10 + x / 2] = static_cast<std::uint8_t>(10 * (y / 2) + x / 2);
        }
    }
    DrawUtils::compose(destination, overlay, {-10, -10});
    for (int y = 0; y < 16; ++y) {
        for (int x = 0; x < 16; ++x) {
            const bool inside = x < 10 && y < 10;
            EXPECT_EQ(at(destination, 0, x, y), inside ? (10 * (y + 10) + x + 10) & 255 : 10)
                << x << "," << y;
            EXPECT_EQ(at(destination, 1, x / 2, y / 2), inside ? 10 * (y / 2 + 5) + x / 2 + 5 : 10)
                << x << "," << y;
        }
    }
}

TEST(ComposeTest, AlphaOfAClippedYuvaOverlayIsReadFromItsTopLeftCorner) {
    Picture destination = uniform({8, 8}, AV_PIX_FMT_YUV420P, 10);
    Picture overlay = overlayOf({8, 8}, 200, 100, 50, 0);
    // Opaque in the top left quarter, which is clipped away.
    for (int y = 0; y < 4; ++y) std::memset(overlay.getPlanes()[3] + y * overlay.getLinesize()[3], 255, 4);
    DrawUtils::compose(destination, overlay, {-4, -4});
    expectArea(destination, {0, 0, 4, 4}, 10, {200, 100, 50});
}

TEST(ComposeTest, OddYuvaOverlayLosesItsLastRowAndColumn) {
    Picture destination = uniform({16, 16}, AV_PIX_FMT_YUV420P, 10);
    DrawUtils::compose(destination, overlayOf({7, 5}, 200, 100, 50, 255), {2, 2});
    expectArea(destination, {2, 2, 6, 4}, 10, {200, 100, 50});
}

TEST(ComposeTest, YuvIsCopiedOntoYuv) {
    Picture destination = uniform({16, 16}, AV_PIX_FMT_YUV420P, 10);
    const Picture overlay = randomPicture({6, 4}, AV_PIX_FMT_YUV420P);
    DrawUtils::compose(destination, overlay, {4, 2});
    EXPECT_EQ(visibleBytes(destination.crop({4, 2, 6, 4})), visibleBytes(overlay));
    for (int p = 0; p < 3; ++p) {
        const int shift = p == 0 ? 0 : 1;
        for (int y = 0; y < 16 >> shift; ++y) {
            for (int x = 0; x < 16 >> shift; ++x) {
                const bool inside = x >= 4 >> shift && x < 10 >> shift && y >= 2 >> shift && y < 6 >> shift;
                EXPECT_TRUE(inside || at(destination, p, x, y) == 10) << p << " " << x << "," << y;
            }
        }
    }
}

TEST(ComposeTest, OddYuvOverlayLosesItsLastRowAndColumn) {
    Picture destination = uniform({16, 16}, AV_PIX_FMT_YUV420P, 10);
    DrawUtils::compose(destination, uniform({7, 5}, AV_PIX_FMT_YUV420P, 99), {2, 2});
    expectArea(destination, {2, 2, 6, 4}, 10, {99, 99, 99});
}

TEST(ComposeTest, YuvIsCopiedAtOddPositionsWithItsChromaToTheLeftAndTop) {
    Picture destination = uniform({16, 16}, AV_PIX_FMT_YUV420P, 10);
    DrawUtils::compose(destination, uniform({4, 4}, AV_PIX_FMT_YUV420P, 99), {3, 5});
    expectArea(destination, {3, 5, 4, 4}, 10, {99, 99, 99});
}

TEST(ComposeTest, ClippedYuvIsCopiedFromAnEvenPosition) {
    Picture destination = uniform({16, 16}, AV_PIX_FMT_YUV420P, 10);
    Picture overlay = randomPicture({9, 9}, AV_PIX_FMT_YUV420P);
    DrawUtils::compose(destination, overlay, {-3, -5});
    // 6 x 4 pixels are visible, from (3, 5) on, which becomes (2, 4).
    EXPECT_EQ(visibleBytes(destination.crop({0, 0, 6, 4})), visibleBytes(overlay.crop({2, 4, 6, 4})));
    EXPECT_EQ(at(destination, 0, 6, 0), 10);
    EXPECT_EQ(at(destination, 0, 0, 4), 10);
}

TEST(ComposeTest, AnyPositionAndSizeStaysInsideBothPictures) {
    // The address sanitizer watches the buffers; the padding behind the rows is compared here.
    for (const auto& [format, overlayFormat] : {std::pair{AV_PIX_FMT_RGBA, AV_PIX_FMT_RGBA},
                                                {AV_PIX_FMT_ARGB, AV_PIX_FMT_ARGB},
                                                {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVA420P},
                                                {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P}}) {
        for (int w = 1; w <= 5; ++w) {
            for (int h = 1; h <= 5; ++h) {
                for (int x = -6; x <= 8; ++x) {
                    for (int y = -6; y <= 6; ++y) {
                        Picture destination = randomPicture({7, 5}, format, AVCOL_RANGE_UNSPECIFIED, 32);
                        const Bytes before = bufferBytes(destination);
                        DrawUtils::compose(destination, randomPicture({w, h}, overlayFormat), {x, y});
                        const Bytes after = bufferBytes(destination);
                        const unsigned char* buffer = destination.buffer()->data();
                        for (int p = 0; p < 4 && destination.getPlanes()[p]; ++p) {
                            const bool chroma = p > 0;
                            const int bytes = format == AV_PIX_FMT_YUV420P ? (chroma ? 4 : 7) : 28;
                            for (int row = 0; row < (chroma ? 3 : 5); ++row) {
                                const auto start = static_cast<std::size_t>(
                                    destination.getPlanes()[p] - buffer + row * destination.getLinesize()[p]);
                                for (std::size_t i = static_cast<std::size_t>(bytes);
                                     i < static_cast<std::size_t>(destination.getLinesize()[p]); ++i) {
                                    ASSERT_EQ(after[start + i], before[start + i])
                                        << w << "x" << h << " at " << x << "," << y;
                                }
                            }
                        }
                    }
                }
            }
        }
    }
}

TEST(ComposeTest, PictureOntoItselfIsCopiedAsItWas) {
    const Picture before = randomPicture({16, 16}, AV_PIX_FMT_YUV420P);
    for (const point_t& position : {point_t{2, 2}, {-2, -2}, {2, -2}, {-2, 2}, {0, 4}, {0, 0}}) {
        Picture picture = ownCopy(before);
        Picture expected = ownCopy(before);
        DrawUtils::compose(picture, picture, position);
        DrawUtils::compose(expected, before, position);
        EXPECT_EQ(visibleBytes(picture), visibleBytes(expected)) << position;
        EXPECT_TRUE(picture.editable());
    }
}

TEST(ComposeTest, TransparentPictureOntoItselfStaysAsItWas) {
    Picture picture = uniform({16, 16}, AV_PIX_FMT_RGBA, 0);
    DrawUtils::compose(picture, picture, {2, 2});
    EXPECT_THAT(bufferBytes(picture), Each(0));
}

TEST(ComposeTest, ThreadsMayDrawOnPicturesOfTheirOwnAtTheSameTime) {
    const Picture yuv = randomPicture({64, 32}, AV_PIX_FMT_YUV420P);
    const Picture yuva = randomPicture({64, 32}, AV_PIX_FMT_YUVA420P, AVCOL_RANGE_UNSPECIFIED, 1, 2);
    const auto draw = [&](Picture& picture) {
        DrawUtils::fillRectangle(picture, Color(1, 2, 3));
        DrawUtils::compose(picture, yuv, {2, 4});
        DrawUtils::compose(picture, yuva, {-8, 6});
    };
    std::vector<Picture> pictures;
    for (int i = 0; i < 4; ++i) pictures.emplace_back(rect_size_t{64, 32}, AV_PIX_FMT_YUV420P);
    std::vector<std::thread> threads;
    for (Picture& picture : pictures) {
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round) draw(picture);
        });
    }
    for (std::thread& thread : threads) thread.join();
    Picture expected({64, 32}, AV_PIX_FMT_YUV420P);
    draw(expected);
    for (const Picture& picture : pictures) EXPECT_EQ(visibleBytes(picture), visibleBytes(expected));
}

}  // namespace
}  // namespace kvffmpeg
