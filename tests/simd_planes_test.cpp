#include "simd_planes.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

#include "ffmpeg_ptr.h"
#include "kvffmpeg/utils.h"
#include "support/guarded_picture.h"
#include "support/media.h"
#include "support/temporary_folder.h"

namespace kvffmpeg {
namespace {

FramePtr exported(const Picture& picture) {
    FramePtr frame = makeFrame();
    picture.fillAVFrame(frame.get());
    frame->pts = 1234;
    return frame;
}

TEST(WithPaddingTest, PictureOfACommonSizeIsNotCopied) {
    for (const rect_size_t size : {rect_size_t{1920, 1080}, {1280, 720}, {640, 480}}) {
        for (const AVPixelFormat format :
             {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA}) {
            const Picture picture(size, format);
            const FramePtr frame = withPadding(exported(picture), picture);
            EXPECT_EQ(frame->data[0], picture.getPlanes()[0]) << picture;
        }
    }
}

TEST(WithPaddingTest, OtherPicturesBecomeCopiesWithTheSameSamplesAndTime) {
    for (const AVPixelFormat format : test::pictureFormats()) {
        for (const rect_size_t size : {rect_size_t{1, 1}, {33, 17}, {64, 47}}) {
            const Picture picture = test::randomPicture(size, format, AVCOL_RANGE_JPEG);
            const FramePtr frame = withPadding(exported(picture), picture);
            ASSERT_NE(frame->data[0], picture.getPlanes()[0]) << picture;
            EXPECT_EQ(frame->pts, 1234);
            EXPECT_EQ(frame->color_range, AVCOL_RANGE_JPEG);
            EXPECT_EQ(test::visibleBytes(Picture(frame.get())), test::visibleBytes(picture)) << picture;
        }
    }
}

TEST(WithPaddingTest, BorrowedMemoryIsCopiedBesideGuardPages) {
    for (const test::GuardedEnd end : {test::GuardedEnd::front, test::GuardedEnd::back}) {
        for (const AVPixelFormat format : test::pictureFormats()) {
            const Picture source = test::randomPicture({64, 48}, format);
            test::GuardedPicture guarded(source, end);
            const FramePtr frame = withPadding(exported(*guarded), *guarded);
            EXPECT_EQ(test::visibleBytes(Picture(frame.get())), test::visibleBytes(source)) << source;
        }
    }
}

TEST(WithPaddingTest, LastPixelOfAnOddRowIsRepeatedAndTheRestOfThePaddingIsZero) {
    const Picture picture = test::randomPicture({33, 3}, AV_PIX_FMT_RGB24);
    const FramePtr frame = withPadding(exported(picture), picture);
    for (std::ptrdiff_t y = 0; y < 3; ++y) {
        const std::uint8_t* row = frame->data[0] + y * frame->linesize[0];
        EXPECT_EQ(std::memcmp(row + 33 * 3, row + 32 * 3, 3), 0) << y;
        EXPECT_EQ(std::count(row + 34 * 3, row + frame->linesize[0], 0), frame->linesize[0] - 34 * 3) << y;
    }
}

TEST(WithPaddingTest, WithoutPixelsTheFrameStaysAsItIs) {
    Picture withoutPlanes({33, 17}, AV_PIX_FMT_YUV420P);
    withoutPlanes.setData(std::make_shared<MemBuffer>());
    for (const Picture& picture : {Picture(), withoutPlanes}) {
        FramePtr frame = exported(picture);
        const AVFrame* const address = frame.get();
        EXPECT_EQ(withPadding(std::move(frame), picture).get(), address) << picture;
    }
}

TEST(WithPaddingTest, PicturesAreSavedWithoutALookAtWhatLiesAround) {
    const test::TemporaryFolder folder;
    for (const auto& [name, format] : {std::pair{"a.png", AV_PIX_FMT_RGB24},
                                       {"a.png", AV_PIX_FMT_GRAY8},
                                       {"a.jpg", AV_PIX_FMT_YUVJ420P},
                                       {"a.bmp", AV_PIX_FMT_BGR24},
                                       {"a.tiff", AV_PIX_FMT_RGB24},
                                       {"a.ppm", AV_PIX_FMT_RGB24}}) {
        for (const rect_size_t size : {rect_size_t{33, 17}, {64, 48}, {1, 1}}) {
            const Picture source = test::randomPicture(size, format, AVCOL_RANGE_JPEG);
            savePicture(source, folder.file(name));
            const auto plain = test::readFile(folder.file(name));
            for (const test::GuardedEnd end : {test::GuardedEnd::front, test::GuardedEnd::back}) {
                test::GuardedPicture guarded(source, end);
                savePicture(*guarded, folder.file(name));
                EXPECT_EQ(test::readFile(folder.file(name)), plain) << name << " " << source;
            }
        }
    }
}

}  // namespace
}  // namespace kvffmpeg
