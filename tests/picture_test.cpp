#include "kvffmpeg/picture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/media.h"
#include "support/test_heap.h"

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg {
namespace {

using test::failEachAllocation;
using testing::Each;
using testing::ElementsAre;

static_assert(std::is_nothrow_move_constructible_v<Picture> && std::is_nothrow_move_assignable_v<Picture>);
static_assert(std::is_copy_constructible_v<Picture> && std::is_copy_assignable_v<Picture>);

struct FreeFrame {
    void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FreeFrame>;
FramePtr blankFrame() {
    return FramePtr(av_frame_alloc());
}

/// A frame of FFmpeg's own layout, whose rows have padding, with random bytes.
FramePtr randomFrame(rect_size_t size, AVPixelFormat format, AVColorRange range = AVCOL_RANGE_UNSPECIFIED) {
    FramePtr frame = blankFrame();
    frame->width = size.w;
    frame->height = size.h;
    frame->format = format;
    frame->color_range = range;
    if (av_frame_get_buffer(frame.get(), 32) < 0) throw std::runtime_error("no such frame");
    unsigned value = 1;
    for (AVBufferRef* buffer : frame->buf) {
        for (std::size_t i = 0; buffer && i < static_cast<std::size_t>(buffer->size); ++i) {
            buffer->data[i] = static_cast<std::uint8_t>((value = value * 1103515245 + 12345) >> 16);
        }
    }
    return frame;
}

/// FFmpeg refuses allocations of more than a few bytes while it lives.
struct FFmpegWithoutMemory {
    FFmpegWithoutMemory() { av_max_alloc(33); }
    ~FFmpegWithoutMemory() { av_max_alloc(INT_MAX); }
    FFmpegWithoutMemory(const FFmpegWithoutMemory&) = delete;
    FFmpegWithoutMemory& operator=(const FFmpegWithoutMemory&) = delete;
};

std::vector<unsigned char> bufferBytes(const Picture& picture) {
    return {picture.buffer()->data(), picture.buffer()->data() + picture.buffer()->size()};
}
std::array<unsigned char*, 4> planes(const Picture& picture) {
    std::array<unsigned char*, 4> result{};
    std::copy_n(picture.getPlanes(), 4, result.begin());
    return result;
}
std::array<int, 4> linesizes(const Picture& picture) {
    std::array<int, 4> result{};
    std::copy_n(picture.getLinesize(), 4, result.begin());
    return result;
}

/// Everything that can be asked of a picture, for "nothing has changed".
auto state(const Picture& picture) {
    return std::make_tuple(picture.size(), picture.pixelFormat(), picture.colorRange(), picture.alignment(),
                           picture.buffer().get(), picture.buffer().use_count(), planes(picture),
                           linesizes(picture),
                           picture.empty() ? std::vector<unsigned char>() : bufferBytes(picture));
}

TEST(PictureTest, DefaultIsEmptyAndFullyInitialised) {
    const Picture picture;
    EXPECT_TRUE(picture.empty());
    EXPECT_FALSE(picture.editable());
    EXPECT_EQ(picture.width(), 0);
    EXPECT_EQ(picture.height(), 0);
    EXPECT_EQ(picture.size(), (rect_size_t{0, 0}));
    EXPECT_EQ(picture.pixelFormat(), AV_PIX_FMT_NONE);
    EXPECT_EQ(picture.colorRange(), AVCOL_RANGE_UNSPECIFIED);
    EXPECT_EQ(picture.alignment(), 1);
    EXPECT_EQ(picture.buffer(), nullptr);
    EXPECT_THAT(planes(picture), Each(nullptr));
    EXPECT_THAT(linesizes(picture), Each(0));
    EXPECT_FALSE(picture.hasAlpha());
}

TEST(PictureTest, ConstructorAllocatesExactlyTheLayout) {
    const Picture picture({4, 4}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG, 0);
    EXPECT_EQ(picture.size(), (rect_size_t{4, 4}));
    EXPECT_EQ(picture.width(), 4);
    EXPECT_EQ(picture.height(), 4);
    EXPECT_EQ(picture.pixelFormat(), AV_PIX_FMT_YUV420P);
    EXPECT_EQ(picture.colorRange(), AVCOL_RANGE_MPEG);
    EXPECT_EQ(picture.alignment(), 1);
    EXPECT_EQ(picture.buffer()->size(), 24u);
    EXPECT_EQ(picture.getVideoBufferSize(), 24u);
    EXPECT_THAT(linesizes(picture), ElementsAre(4, 2, 2, 0));
    unsigned char* const data = picture.buffer()->data();
    EXPECT_THAT(planes(picture), ElementsAre(data, data + 16, data + 20, nullptr));
    EXPECT_FALSE(picture.empty());
    EXPECT_TRUE(picture.editable());
}

TEST(PictureTest, NegativeAlignmentCountsAsOne) {
    const Picture picture({5, 3}, AV_PIX_FMT_GRAY8, AVCOL_RANGE_JPEG, -16);
    EXPECT_EQ(picture.alignment(), 1);
    EXPECT_EQ(picture.getLinesize()[0], 5);
}

TEST(PictureTest, LayoutIsTheOneOfFFmpegForEveryFormatSizeAndAlignment) {
    int formats = 0;
    for (const AVPixFmtDescriptor* descriptor = nullptr; (descriptor = av_pix_fmt_desc_next(descriptor));) {
        const AVPixelFormat format = av_pix_fmt_desc_get_id(descriptor);
        if ((descriptor->flags & AV_PIX_FMT_FLAG_HWACCEL) != 0) continue;
        for (rect_size_t size : {rect_size_t{1, 1}, rect_size_t{5, 3}, rect_size_t{64, 48}}) {
            for (int align : {1, 2, 32, 64}) {
                std::uint8_t* wantPlanes[4];
                int wantLinesizes[4];
                if (av_image_fill_arrays(wantPlanes, wantLinesizes, nullptr, format, size.w, size.h, align) <
                    0)
                    continue;
                SCOPED_TRACE(testing::Message() << descriptor->name << " " << size << " align " << align);
                const Picture picture(size, format, AVCOL_RANGE_UNSPECIFIED, align);
                const int bytes = av_image_fill_arrays(wantPlanes, wantLinesizes, picture.buffer()->data(),
                                                       format, size.w, size.h, align);
                ASSERT_EQ(picture.buffer()->size(), static_cast<std::size_t>(bytes));
                ASSERT_EQ(picture.getVideoBufferSize(), static_cast<std::size_t>(bytes));
                ASSERT_THAT(planes(picture), testing::ElementsAreArray(wantPlanes));
                ASSERT_THAT(linesizes(picture), testing::ElementsAreArray(wantLinesizes));
                ++formats;
            }
        }
    }
    EXPECT_GT(formats, 12 * 100);
}

TEST(PictureTest, BufferHasWritableTailPadding) {
    const Picture picture({3, 3}, AV_PIX_FMT_RGB24);
    std::memset(picture.buffer()->data(), 1, picture.buffer()->size() + 32);
    EXPECT_EQ(picture.buffer()->data()[27 + 31], 1);
}

TEST(PictureTest, RefusedFormatsAndSizesAreBadAlloc) {
    const auto make = [](rect_size_t size, int format) {
        return Picture(size, static_cast<AVPixelFormat>(format), AVCOL_RANGE_UNSPECIFIED, 1);
    };
    for (int format : {int{AV_PIX_FMT_NONE}, -2, int{AV_PIX_FMT_NB}, int{AV_PIX_FMT_VDPAU}}) {
        EXPECT_THROW(make({4, 4}, format), std::bad_alloc) << format;
    }
    for (rect_size_t size : {rect_size_t{0, 0}, rect_size_t{4, 0}, rect_size_t{0, 4}, rect_size_t{-4, 4},
                             rect_size_t{4, -4}, rect_size_t{-4, -4}, rect_size_t{INT_MIN, INT_MIN},
                             rect_size_t{INT_MAX, INT_MAX}, rect_size_t{65536, 65536}}) {
        EXPECT_THROW(make(size, AV_PIX_FMT_RGBA), std::bad_alloc) << size;
    }
}

TEST(PictureTest, BufferSizeOfARefusedLayoutIsTheErrorCodeAsAHugeNumber) {
    EXPECT_EQ(Picture().getVideoBufferSize(),
              static_cast<std::size_t>(static_cast<std::ptrdiff_t>(AVERROR(EINVAL))));
}

TEST(PictureTest, ConstructionFailsCleanlyWhenMemoryRunsOut) {
    EXPECT_GE(failEachAllocation([] { Picture({4, 4}, AV_PIX_FMT_RGBA, AVCOL_RANGE_JPEG, 1); }, [] {}), 2);
}

TEST(PictureTest, CopiesShareThePixelsAndCarryTheSamePlanes) {
    Picture picture = test::randomPicture({6, 4}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG, 16);
    const Picture copy = picture;
    Picture assigned;
    assigned = picture;
    for (const Picture& other : {std::cref(copy), std::cref(std::as_const(assigned))}) {
        EXPECT_EQ(other.buffer(), picture.buffer());
        EXPECT_EQ(planes(other), planes(picture));
        EXPECT_EQ(linesizes(other), linesizes(picture));
        EXPECT_EQ(other.size(), picture.size());
        EXPECT_EQ(other.pixelFormat(), AV_PIX_FMT_YUV420P);
        EXPECT_EQ(other.colorRange(), AVCOL_RANGE_JPEG);
        EXPECT_EQ(other.alignment(), 16);
        EXPECT_FALSE(other.editable());
    }
    EXPECT_EQ(picture.buffer().use_count(), 3);
    EXPECT_FALSE(picture.editable());
}

TEST(PictureTest, TheLastHolderIsEditableAgain) {
    Picture picture({4, 4}, AV_PIX_FMT_GRAY8);
    {
        const Picture copy = picture;
        EXPECT_FALSE(picture.editable());
    }
    EXPECT_TRUE(picture.editable());
}

TEST(PictureTest, MovedFromPictureIsEmpty) {
    Picture picture = test::randomPicture({4, 4}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG, 8);
    unsigned char* const data = picture.buffer()->data();
    Picture moved(std::move(picture));
    EXPECT_EQ(state(picture), state(Picture()));  // NOLINT: what is left is the point
    EXPECT_TRUE(moved.editable());
    EXPECT_EQ(moved.getPlanes()[0], data);
    EXPECT_EQ(moved.alignment(), 8);

    Picture target({2, 2}, AV_PIX_FMT_RGB24);
    target = std::move(moved);
    EXPECT_EQ(state(moved), state(Picture()));  // NOLINT
    EXPECT_TRUE(target.editable());
    EXPECT_EQ(target.getPlanes()[0], data);
    EXPECT_EQ(target.size(), (rect_size_t{4, 4}));
}

TEST(PictureTest, SelfAssignmentChangesNothing) {
    Picture picture = test::randomPicture({4, 4}, AV_PIX_FMT_YUV420P);
    const auto before = state(picture);
    Picture& self = picture;
    picture = self;
    EXPECT_EQ(state(picture), before);
    picture = std::move(self);
    EXPECT_EQ(state(picture), before);
}

TEST(PictureTest, SetDataReplacesTheBufferAndLaysThePlanesOut) {
    Picture picture({4, 4}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG, 1);
    const std::weak_ptr<MemBuffer> before = picture.buffer();
    const auto buffer = std::make_shared<MemBuffer>(100, nullptr);  // larger than needed: not checked
    picture.setData(buffer);
    EXPECT_TRUE(before.expired());
    EXPECT_EQ(picture.buffer(), buffer);
    EXPECT_THAT(planes(picture),
                ElementsAre(buffer->data(), buffer->data() + 16, buffer->data() + 20, nullptr));
    EXPECT_THAT(linesizes(picture), ElementsAre(4, 2, 2, 0));
    EXPECT_FALSE(picture.editable());
}

TEST(PictureTest, SetDataUsesThePicturesAlignment) {
    Picture picture({4, 4}, AV_PIX_FMT_GRAY8, AVCOL_RANGE_MPEG, 32);
    picture.setData(std::make_shared<MemBuffer>(picture.getVideoBufferSize(), nullptr));
    EXPECT_EQ(picture.getLinesize()[0], 32);
}

TEST(PictureTest, SetDataOfACropForgetsWhatTheCropHid) {
    Picture crop = Picture({8, 8}, AV_PIX_FMT_GRAY8).crop({2, 2, 4, 3});
    const auto buffer = std::make_shared<MemBuffer>(12, nullptr);
    crop.setData(buffer);
    EXPECT_EQ(crop.getPlanes()[0], buffer->data());
    EXPECT_EQ(crop.getLinesize()[0], 4);
}

TEST(PictureTest, SetDataOfNullOrOfABufferWithoutBytesLeavesNoPlanes) {
    Picture picture({4, 4}, AV_PIX_FMT_YUV420P);
    picture.setData(std::make_shared<MemBuffer>());
    EXPECT_THAT(planes(picture), Each(nullptr));
    picture.setData(nullptr);
    EXPECT_TRUE(picture.empty());
    EXPECT_THAT(planes(picture), Each(nullptr));
}

TEST(PictureTest, SetDataOfAPictureWithoutFormatDoesNotReachForALayout) {
    Picture picture;
    picture.setData(std::make_shared<MemBuffer>(10, nullptr));
    EXPECT_FALSE(picture.empty());
    EXPECT_THAT(planes(picture), Each(nullptr));
}

TEST(PictureTest, PictureOfOutsideMemoryWorksLikeAnyOther) {
    std::vector<unsigned char> outside(24);
    for (std::size_t i = 0; i < outside.size(); ++i) outside[i] = static_cast<unsigned char>(i);
    Picture picture({4, 4}, AV_PIX_FMT_YUV420P);
    picture.setData(std::make_shared<MemBuffer>(24, outside.data()));
    const Picture copy = picture;
    EXPECT_TRUE(picture == copy);
    picture.makeEditable();
    EXPECT_TRUE(picture == copy);
    EXPECT_EQ(bufferBytes(picture), outside);
    Picture crop = copy.crop({2, 2, 2, 2});
    crop.makeEditable();
    EXPECT_THAT(bufferBytes(crop), ElementsAre(10, 11, 14, 15, 19, 23));
}

TEST(PictureTest, MakeEditableGivesBothHoldersTheirOwnEqualPixels) {
    Picture picture = test::randomPicture({6, 4}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG, 16);
    Picture copy = picture;
    copy.makeEditable();
    EXPECT_TRUE(copy.editable());
    EXPECT_TRUE(picture.editable());
    EXPECT_NE(copy.getPlanes()[0], picture.getPlanes()[0]);
    EXPECT_EQ(test::visibleBytes(copy), test::visibleBytes(picture));
    EXPECT_EQ(copy.alignment(), 16);
    EXPECT_EQ(linesizes(copy), linesizes(picture));
    EXPECT_EQ(copy.colorRange(), AVCOL_RANGE_JPEG);

    const auto before = bufferBytes(picture);
    std::memset(copy.buffer()->data(), 0, copy.buffer()->size());
    EXPECT_EQ(bufferBytes(picture), before);
}

TEST(PictureTest, MakeEditableOfAnEditablePictureDoesNothing) {
    Picture picture = test::randomPicture({4, 4}, AV_PIX_FMT_RGB24);
    const auto before = state(picture);
    picture.makeEditable();
    EXPECT_EQ(state(picture), before);
}

TEST(PictureTest, MakeEditableWithoutABufferAllocatesOne) {
    Picture picture({4, 4}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG, 1);
    picture.setData(nullptr);
    picture.makeEditable();
    EXPECT_TRUE(picture.editable());
    EXPECT_EQ(picture.buffer()->size(), 24u);
    EXPECT_EQ(picture.colorRange(), AVCOL_RANGE_JPEG);
}

TEST(PictureTest, MakeEditableOfADefaultPictureIsBadAllocAndLeavesItEmpty) {
    Picture picture;
    EXPECT_THROW(picture.makeEditable(), std::bad_alloc);
    EXPECT_EQ(state(picture), state(Picture()));
}

TEST(PictureTest, FailedMakeEditableLeavesThePictureAsItWas) {
    Picture picture = test::randomPicture({6, 4}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG, 4);
    const Picture copy = picture;
    const auto before = state(picture);
    const int failures =
        failEachAllocation([&] { picture.makeEditable(); }, [&] { EXPECT_EQ(state(picture), before); });
    EXPECT_GE(failures, 2);
    EXPECT_TRUE(picture.editable());
    EXPECT_TRUE(picture == copy);

    Picture noArea = copy.crop({6, 0, 2, 2});
    const auto noAreaBefore = state(noArea);
    EXPECT_THROW(noArea.makeEditable(), std::bad_alloc);
    EXPECT_EQ(state(noArea), noAreaBefore);
}

TEST(PictureTest, PicturesThatShareABufferMayBeEditedOnDifferentThreads) {
    const Picture picture = test::randomPicture({64, 64}, AV_PIX_FMT_YUV420P);
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([copy = picture, t]() mutable {
            copy.makeEditable();
            std::memset(copy.buffer()->data(), t, copy.buffer()->size());
        });
    }
    for (std::thread& worker : workers) worker.join();
    EXPECT_TRUE(picture == test::randomPicture({64, 64}, AV_PIX_FMT_YUV420P));
}

TEST(PictureTest, HasAlphaIsTrueForAlphaFormatsAndPalettes) {
    for (AVPixelFormat format : {AV_PIX_FMT_PAL8, AV_PIX_FMT_RGBA, AV_PIX_FMT_YUVA420P, AV_PIX_FMT_YA8}) {
        EXPECT_TRUE(Picture({4, 4}, format).hasAlpha()) << format;
    }
    for (AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24, AV_PIX_FMT_GRAY8, AV_PIX_FMT_RGB0}) {
        EXPECT_FALSE(Picture({4, 4}, format).hasAlpha()) << format;
    }
}

TEST(PictureFillTest, BytesGoToTheStartOfTheBufferAndNoFurther) {
    Picture picture({4, 2}, AV_PIX_FMT_GRAY8);
    const std::vector<unsigned char> bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const auto first8 = [&] {
        return std::vector<unsigned char>(picture.buffer()->data(), picture.buffer()->data() + 8);
    };
    std::memset(picture.buffer()->data(), 0x55, picture.buffer()->size() + 32);
    picture.fill(bytes.data(), 3);
    EXPECT_THAT(first8(), ElementsAre(1, 2, 3, 0x55, 0x55, 0x55, 0x55, 0x55));
    picture.fill(bytes.data(), 0);
    EXPECT_THAT(first8(), ElementsAre(1, 2, 3, 0x55, 0x55, 0x55, 0x55, 0x55));
}

TEST(PictureFillTest, MoreBytesThanTheBufferHoldsAreLeftOut) {
    Picture picture({4, 4}, AV_PIX_FMT_YUV420P);  // 24 bytes in all versions
    std::memset(picture.buffer()->data(), 0x55, 24 + 32);
    const std::vector<unsigned char> bytes(100, 7);
    picture.fill(bytes.data(), bytes.size());
    EXPECT_THAT(bufferBytes(picture), Each(7));
    EXPECT_EQ(picture.buffer()->data()[24], 0x55);
}

TEST(PictureFillTest, BytesOfACropGoToTheStartOfTheWholeBuffer) {
    Picture picture({4, 4}, AV_PIX_FMT_RGB24);
    std::memset(picture.buffer()->data(), 0, picture.buffer()->size());
    Picture crop = picture.crop({2, 2, 2, 2});
    const unsigned char bytes[] = {1, 2, 3};
    crop.fill(bytes, 3);
    EXPECT_EQ(picture.getPlanes()[0][0], 1);
    EXPECT_EQ(picture.getPlanes()[0][2], 3);
    EXPECT_EQ(crop.getPlanes()[0][0], 0);
}

TEST(PictureFillTest, PlanesAreCopiedWithTheirLinesizes) {
    for (AVPixelFormat format :
         {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_RGB24, AV_PIX_FMT_YUVA420P, AV_PIX_FMT_YUV420P10LE,
          AV_PIX_FMT_MONOWHITE, AV_PIX_FMT_PAL8, AV_PIX_FMT_GRAY8}) {
        Picture source = test::randomPicture({7, 5}, format, AVCOL_RANGE_UNSPECIFIED, 32);
        Picture target({7, 5}, format);
        int sourceLinesizes[4];
        std::copy_n(source.getLinesize(), 4, sourceLinesizes);
        target.fill(source.getPlanes(), sourceLinesizes, 7, 5);
        EXPECT_EQ(test::visibleBytes(target), test::visibleBytes(source)) << av_get_pix_fmt_name(format);
    }
}

TEST(PictureFillTest, FewerRowsAndColumnsLeaveTheRest) {
    Picture source = test::randomPicture({6, 6}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED, 1, 3);
    Picture target({6, 6}, AV_PIX_FMT_YUV420P);
    std::memset(target.buffer()->data(), 0x55, target.buffer()->size());
    target.fill(source.getPlanes(), source.getLinesize(), 3, 2);
    for (int y = 0; y < 6; ++y) {
        for (int x = 0; x < 6; ++x) {
            const int i = y * 6 + x;
            EXPECT_EQ(target.getPlanes()[0][i], x < 3 && y < 2 ? source.getPlanes()[0][i] : 0x55)
                << x << " " << y;
        }
    }
    for (int i = 0; i < 9; ++i) {  // chroma sizes are rounded up: 2 x 1
        EXPECT_EQ(target.getPlanes()[1][i], i < 2 ? source.getPlanes()[1][i] : 0x55) << i;
        EXPECT_EQ(target.getPlanes()[2][i], i < 2 ? source.getPlanes()[2][i] : 0x55) << i;
    }
}

TEST(PictureFillTest, NothingIsFilledInAnEmptyPicture) {
    Picture picture;
    const unsigned char bytes[] = {1, 2, 3};
    picture.fill(bytes, 3);
    Picture source({4, 4}, AV_PIX_FMT_RGB24);
    picture.fill(source.getPlanes(), source.getLinesize(), 4, 4);
    EXPECT_EQ(state(picture), state(Picture()));
}

TEST(PictureFillTest, FillsOfASharedPictureAreSeenByAllHolders) {
    Picture picture({2, 2}, AV_PIX_FMT_RGBA);
    const Picture copy = picture;
    const std::vector<unsigned char> bytes(16, 9);
    picture.fill(bytes.data(), bytes.size());
    EXPECT_THAT(bufferBytes(copy), Each(9));
    Picture source = test::randomPicture({2, 2}, AV_PIX_FMT_RGBA);
    picture.fill(source.getPlanes(), source.getLinesize(), 2, 2);
    EXPECT_TRUE(copy == source);
    EXPECT_EQ(copy.buffer(), picture.buffer());
}

TEST(PictureFromFrameTest, IsADeepCopyWithoutRowPadding) {
    for (AVPixelFormat format :
         {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_RGB24, AV_PIX_FMT_YUVA420P, AV_PIX_FMT_YUV420P10LE,
          AV_PIX_FMT_MONOWHITE, AV_PIX_FMT_PAL8, AV_PIX_FMT_GRAY8}) {
        SCOPED_TRACE(av_get_pix_fmt_name(format));
        const FramePtr frame = randomFrame({7, 5}, format, AVCOL_RANGE_JPEG);
        const Picture picture(frame.get());
        EXPECT_EQ(picture.size(), (rect_size_t{7, 5}));
        EXPECT_EQ(picture.pixelFormat(), format);
        EXPECT_EQ(picture.colorRange(), AVCOL_RANGE_JPEG);
        EXPECT_EQ(picture.alignment(), 1);
        EXPECT_TRUE(picture.editable());
        EXPECT_EQ(picture.getVideoBufferSize(), picture.buffer()->size());
        EXPECT_EQ(av_image_get_linesize(format, 7, 0), picture.getLinesize()[0]);

        std::vector<std::uint8_t> want(picture.buffer()->size());
        const int written = av_image_copy_to_buffer(want.data(), static_cast<int>(want.size()), frame->data,
                                                    frame->linesize, format, 7, 5, 1);
        ASSERT_GT(written, 0);
        // FFmpeg 3 and 4 have room for a palette behind gray, and do not write it.
        want.resize(static_cast<std::size_t>(written));
        EXPECT_EQ(test::visibleBytes(picture), want);
        const std::vector<unsigned char> before = bufferBytes(picture);
        for (AVBufferRef* buffer : frame->buf) {
            if (buffer) std::memset(buffer->data, 0, static_cast<std::size_t>(buffer->size));
        }
        EXPECT_EQ(bufferBytes(picture), before);
    }
}

TEST(PictureFromFrameTest, FrameStoredBottomUpIsCopiedTopDown) {
    const FramePtr frame = randomFrame({4, 3}, AV_PIX_FMT_RGB24);
    const Picture upright(frame.get());
    std::uint8_t* const top = frame->data[0];
    frame->data[0] += 2 * frame->linesize[0];
    frame->linesize[0] = -frame->linesize[0];
    const Picture flipped(frame.get());
    for (int y = 0; y < 3; ++y) {
        EXPECT_EQ(std::memcmp(flipped.getPlanes()[0] + y * 12, upright.getPlanes()[0] + (2 - y) * 12, 12), 0)
            << y;
    }
    frame->linesize[0] = -frame->linesize[0];
    frame->data[0] = top;
}

TEST(PictureFromFrameTest, BlankFrameIsBadAlloc) {
    const FramePtr frame = blankFrame();
    EXPECT_THROW(Picture(frame.get()), std::bad_alloc);
    frame->width = 4;
    frame->height = 4;
    EXPECT_THROW(Picture(frame.get()), std::bad_alloc);
}

TEST(PictureFromFrameTest, FrameWithoutAPlaneIsRefusedInsteadOfRead) {
    const FramePtr frame = blankFrame();
    frame->width = 4;
    frame->height = 4;
    frame->format = AV_PIX_FMT_YUV420P;
    EXPECT_THROW(Picture(frame.get()), std::runtime_error);
}

TEST(PictureExportTest, FrameSharesThePixelsAndCarriesTheDescription) {
    const Picture picture = test::randomPicture({6, 4}, AV_PIX_FMT_YUVA420P, AVCOL_RANGE_JPEG, 16);
    const FramePtr frame = blankFrame();
    picture.fillAVFrame(frame.get());
    EXPECT_THAT(planes(picture), testing::ElementsAreArray(frame->data, 4));
    EXPECT_THAT(linesizes(picture), testing::ElementsAreArray(frame->linesize, 4));
    EXPECT_EQ(frame->width, 6);
    EXPECT_EQ(frame->height, 4);
    EXPECT_EQ(frame->format, AV_PIX_FMT_YUVA420P);
    EXPECT_EQ(frame->color_range, AVCOL_RANGE_JPEG);
    ASSERT_NE(frame->buf[0], nullptr);
    EXPECT_EQ(frame->buf[0]->data, picture.buffer()->data());
    EXPECT_EQ(static_cast<std::size_t>(frame->buf[0]->size), picture.buffer()->size());
    EXPECT_EQ(frame->buf[1], nullptr);
    EXPECT_EQ(frame->extended_data, frame->data);
}

TEST(PictureExportTest, PictureIsEditableAgainWhenTheFrameIsUnreferenced) {
    Picture picture({4, 4}, AV_PIX_FMT_RGB24);
    const FramePtr frame = blankFrame();
    picture.fillAVFrame(frame.get());
    EXPECT_FALSE(picture.editable());
    EXPECT_EQ(picture.buffer().use_count(), 2);
    const FramePtr second = blankFrame();
    ASSERT_EQ(av_frame_ref(second.get(), frame.get()), 0);
    EXPECT_EQ(picture.buffer().use_count(), 2);  // FFmpeg counts its own references
    av_frame_unref(frame.get());
    EXPECT_FALSE(picture.editable());
    av_frame_unref(second.get());
    EXPECT_TRUE(picture.editable());
}

TEST(PictureExportTest, EveryExportHoldsAReferenceOfItsOwn) {
    const Picture picture({4, 4}, AV_PIX_FMT_RGB24);
    const FramePtr a = blankFrame(), b = blankFrame();
    picture.fillAVFrame(a.get());
    picture.fillAVFrame(b.get());
    EXPECT_EQ(picture.buffer().use_count(), 3);
}

TEST(PictureExportTest, PixelsLiveAsLongAsTheFrame) {
    const FramePtr frame = blankFrame();
    std::vector<std::uint8_t> want;
    {
        const Picture picture = test::randomPicture({4, 4}, AV_PIX_FMT_YUV420P);
        want = test::visibleBytes(picture);
        picture.fillAVFrame(frame.get());
    }
    EXPECT_EQ(test::visibleBytes(Picture(frame.get())), want);
}

TEST(PictureExportTest, MakeEditableOfAnExportedPictureLeavesTheFrameAlone) {
    Picture picture = test::randomPicture({4, 4}, AV_PIX_FMT_YUV420P);
    const FramePtr frame = blankFrame();
    picture.fillAVFrame(frame.get());
    picture.makeEditable();
    EXPECT_TRUE(picture.editable());
    EXPECT_NE(frame->data[0], picture.getPlanes()[0]);
    EXPECT_TRUE(Picture(frame.get()) == picture);
}

TEST(PictureExportTest, CropIsExportedWithoutCopying) {
    const Picture picture = test::randomPicture({8, 8}, AV_PIX_FMT_YUV420P);
    const Picture crop = picture.crop({2, 4, 4, 2});
    const FramePtr frame = blankFrame();
    crop.fillAVFrame(frame.get());
    EXPECT_EQ(frame->data[0], picture.getPlanes()[0] + 4 * 8 + 2);
    EXPECT_EQ(frame->buf[0]->data, picture.buffer()->data());
    EXPECT_TRUE(Picture(frame.get()) == crop);
}

TEST(PictureExportTest, AReferenceHeldBeforeIsOverwrittenNotReleased) {
    const Picture picture({4, 4}, AV_PIX_FMT_RGB24);
    const FramePtr frame = blankFrame();
    AVBufferRef* before = av_buffer_alloc(16);
    frame->buf[0] = before;
    picture.fillAVFrame(frame.get());
    EXPECT_NE(frame->buf[0], before);
    EXPECT_EQ(av_buffer_get_ref_count(before), 1);
    av_buffer_unref(&before);
}

TEST(PictureExportTest, EmptyPictureLeavesTheFrameAlone) {
    const FramePtr frame = blankFrame();
    frame->width = 17;
    frame->color_range = AVCOL_RANGE_JPEG;
    Picture().fillAVFrame(frame.get());
    EXPECT_EQ(frame->width, 17);
    EXPECT_EQ(frame->height, 0);
    EXPECT_EQ(frame->format, -1);
    EXPECT_EQ(frame->color_range, AVCOL_RANGE_JPEG);
    EXPECT_EQ(frame->buf[0], nullptr);
    EXPECT_EQ(frame->data[0], nullptr);
}

TEST(PictureExportTest, WithoutABufferReferenceNoDataPointersAreSetAndNothingLeaks) {
    const Picture picture({4, 4}, AV_PIX_FMT_RGB24);
    const FramePtr frame = blankFrame();
    {
        const FFmpegWithoutMemory outOfMemory;
        picture.fillAVFrame(frame.get());
    }
    EXPECT_EQ(frame->buf[0], nullptr);
    EXPECT_EQ(frame->data[0], nullptr);
    EXPECT_TRUE(picture.editable());
}

TEST(PictureExportTest, FailedAllocationLeavesFrameAndPicture) {
    const Picture picture({4, 4}, AV_PIX_FMT_RGB24);
    const FramePtr frame = blankFrame();
    EXPECT_EQ(failEachAllocation([&] { picture.fillAVFrame(frame.get()); },
                                 [&] {
                                     EXPECT_EQ(frame->buf[0], nullptr);
                                     EXPECT_EQ(frame->data[0], nullptr);
                                     EXPECT_EQ(frame->width, 0);
                                     EXPECT_TRUE(picture.editable());
                                 }),
              1);
}

TEST(PictureTextTest, EmptyPictureSaysSo) {
    EXPECT_EQ(Picture().debugDescription(), "(empty picture)");
    Picture withoutBuffer({4, 4}, AV_PIX_FMT_RGB24);
    withoutBuffer.setData(nullptr);
    EXPECT_EQ(withoutBuffer.debugDescription(), "(empty picture)");
}

TEST(PictureTextTest, DescribesSizeFormatAndRange) {
    EXPECT_EQ(Picture({2, 2}, AV_PIX_FMT_RGBA).debugDescription(), "2x2, rgba (unknown)");
    EXPECT_EQ(Picture({1280, 720}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG).debugDescription(),
              "1280x720, yuv420p (tv)");
    EXPECT_EQ(Picture({3, 1}, AV_PIX_FMT_GRAY8, AVCOL_RANGE_JPEG).debugDescription(), "3x1, gray (pc)");
}

TEST(PictureTextTest, FormatWithoutDescriptorIsUnknown) {
    Picture picture;
    picture.setData(std::make_shared<MemBuffer>(10, nullptr));
    EXPECT_EQ(picture.debugDescription(), "0x0, (pix fmt unknown) (unknown)");
}

TEST(PictureTextTest, StreamGetsTheDescription) {
    std::ostringstream out;
    EXPECT_EQ(&(out << Picture({2, 2}, AV_PIX_FMT_RGBA)), &out);
    out << Picture();
    EXPECT_EQ(out.str(), "2x2, rgba (unknown)(empty picture)");
}

}  // namespace
}  // namespace kvffmpeg
