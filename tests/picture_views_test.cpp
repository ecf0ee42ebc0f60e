#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "kvffmpeg/picture.h"
#include "support/media.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

// crop, bitblt, makeEditable and == byte by byte against models that are written from the layout of each
// format.

namespace kvffmpeg {
namespace {

/// One component: first byte of a sample within its plane.
struct Component {
    int plane, step, offset;
};

/// What the tests know of a format, independently of libavutil's descriptors.
struct Format {
    AVPixelFormat format;
    const char* name;
    int log2Width, log2Height;  ///< Chroma subsampling.
    std::vector<int> steps;     ///< Of each plane, as the position formulas use them.
    std::vector<Component> components;
    int group = 1;      ///< Pixels per step of a row.
    bool bits = false;  ///< The step counts bits.

    bool isChroma(int plane) const { return plane == 1 || plane == 2; }
    int rowBytes(int plane, int width) const {
        const int step = steps[static_cast<std::size_t>(plane)];
        if (bits) return (width * step + 7) / 8;
        const int shift = isChroma(plane) ? 1 << log2Width : group;
        return (width + shift - 1) / shift * step;
    }
    int rows(int plane, int height) const {
        const int shift = isChroma(plane) ? 1 << log2Height : 1;
        return (height + shift - 1) / shift;
    }
    int planes() const { return static_cast<int>(steps.size()); }
    /// Some versions of FFmpeg give gray formats a palette plane that no component uses; pal8 has one always.
    bool hasPalette(const Picture& picture) const {
        return planes() == 1 && picture.getPlanes()[1] != nullptr;
    }
    /// Where (x, y) lies in a plane, in bytes; plane 3 is never moved.
    std::ptrdiff_t rowOffset(int plane, int y) const {
        return plane == 3 ? 0 : isChroma(plane) ? y >> log2Height : y;
    }
    std::ptrdiff_t byteOffset(int plane, int x) const {
        if (plane == 3) return 0;
        const std::ptrdiff_t bytes = std::ptrdiff_t{x} * steps[static_cast<std::size_t>(plane)];
        return isChroma(plane) ? bytes >> log2Width : bytes;
    }
};

const std::vector<Format>& planarAndPackedFormats() {
    static const std::vector<Format> formats{
        {AV_PIX_FMT_YUV420P, "yuv420p", 1, 1, {1, 1, 1}, {{0, 1, 0}, {1, 1, 0}, {2, 1, 0}}},
        {AV_PIX_FMT_YUV422P, "yuv422p", 1, 0, {1, 1, 1}, {{0, 1, 0}, {1, 1, 0}, {2, 1, 0}}},
        {AV_PIX_FMT_YUV444P, "yuv444p", 0, 0, {1, 1, 1}, {{0, 1, 0}, {1, 1, 0}, {2, 1, 0}}},
        {AV_PIX_FMT_YUV411P, "yuv411p", 2, 0, {1, 1, 1}, {{0, 1, 0}, {1, 1, 0}, {2, 1, 0}}},
        {AV_PIX_FMT_YUV440P, "yuv440p", 0, 1, {1, 1, 1}, {{0, 1, 0}, {1, 1, 0}, {2, 1, 0}}},
        {AV_PIX_FMT_YUV410P, "yuv410p", 2, 2, {1, 1, 1}, {{0, 1, 0}, {1, 1, 0}, {2, 1, 0}}},
        {AV_PIX_FMT_NV12, "nv12", 1, 1, {1, 2}, {{0, 1, 0}, {1, 2, 0}, {1, 2, 1}}},
        {AV_PIX_FMT_YUVA420P, "yuva420p", 1, 1, {1, 1, 1, 1}, {{0, 1, 0}, {1, 1, 0}, {2, 1, 0}, {3, 1, 0}}},
        {AV_PIX_FMT_RGB24, "rgb24", 0, 0, {3}, {{0, 3, 0}, {0, 3, 1}, {0, 3, 2}}},
        {AV_PIX_FMT_RGBA, "rgba", 0, 0, {4}, {{0, 4, 0}, {0, 4, 1}, {0, 4, 2}, {0, 4, 3}}},
        {AV_PIX_FMT_RGB0, "rgb0", 0, 0, {4}, {{0, 4, 0}, {0, 4, 1}, {0, 4, 2}}},
        {AV_PIX_FMT_GBRP, "gbrp", 0, 0, {1, 1, 1}, {{0, 1, 0}, {1, 1, 0}, {2, 1, 0}}},
        {AV_PIX_FMT_GRAY8, "gray", 0, 0, {1}, {{0, 1, 0}}},
        {AV_PIX_FMT_PAL8, "pal8", 0, 0, {1}, {{0, 1, 0}}},
        {AV_PIX_FMT_YUV420P10LE, "yuv420p10le", 1, 1, {2, 2, 2}, {{0, 2, 0}, {1, 2, 0}, {2, 2, 0}}},
    };
    return formats;
}

/// Formats with several pixels to a step: the position formulas leave the row.
const std::vector<Format>& denseFormats() {
    static const std::vector<Format> formats{
        {AV_PIX_FMT_YUYV422, "yuyv422", 1, 0, {4}, {}, 2},
        {AV_PIX_FMT_UYVY422, "uyvy422", 1, 0, {4}, {}, 2},
        {AV_PIX_FMT_UYYVYY411, "uyyvyy411", 2, 0, {6}, {}, 4},
        {AV_PIX_FMT_MONOWHITE, "monow", 0, 0, {1}, {}, 1, true},
        {AV_PIX_FMT_MONOBLACK, "monob", 0, 0, {1}, {}, 1, true},
        {AV_PIX_FMT_RGB4, "rgb4", 0, 0, {4}, {}, 1, true},
        {AV_PIX_FMT_BGR4, "bgr4", 0, 0, {4}, {}, 1, true},
    };
    return formats;
}

std::vector<Format> allFormats() {
    std::vector<Format> formats = planarAndPackedFormats();
    formats.insert(formats.end(), denseFormats().begin(), denseFormats().end());
    return formats;
}

/// While it lives, the 32 bytes behind a picture's buffer must not be written; under the address sanitizer
/// not even be read.
class TailGuard {
public:
    explicit TailGuard(const Picture& picture) : buffer_(picture.buffer()) {
        std::memset(tail(), 0xA5, 32);
#if defined(__SANITIZE_ADDRESS__)
        __asan_poison_memory_region(tail(), 32);
#endif
    }
    ~TailGuard() {
#if defined(__SANITIZE_ADDRESS__)
        __asan_unpoison_memory_region(tail(), 32);
#endif
        EXPECT_EQ(std::count(tail(), tail() + 32, 0xA5), 32) << "bytes behind the buffer were written";
    }
    TailGuard(const TailGuard&) = delete;
    TailGuard& operator=(const TailGuard&) = delete;

private:
    unsigned char* tail() {
        return buffer_->data() + buffer_->size();
    }
    std::shared_ptr<MemBuffer> buffer_;
};

std::vector<unsigned char> bufferBytes(const Picture& picture) {
    return {picture.buffer()->data(), picture.buffer()->data() + picture.buffer()->size()};
}

// ---- crop

/// The rectangle that crop shows: clipped, and rounded down crosswise.
rect_t maskedRect(const Format& f, rect_t rect, rect_size_t size) {
    const rect_t c = crop_rect(rect, size);
    const int mh = -(1 << f.log2Height), mw = -(1 << f.log2Width);
    return {c.x & mh, c.y & mw, c.w & mh, c.h & mw};
}

/// Whether a view's visible bytes all lie within the buffer.
bool liesInBuffer(const Format& f, const Picture& picture, rect_t r) {
    const unsigned char* const end = picture.buffer()->data() + picture.buffer()->size();
    for (int p = 0; p < f.planes(); ++p) {
        const std::ptrdiff_t first = f.rowOffset(p, r.y) * picture.getLinesize()[p] + f.byteOffset(p, r.x);
        const std::ptrdiff_t last =
            first + std::ptrdiff_t{f.rows(p, r.h) - 1} * picture.getLinesize()[p] + f.rowBytes(p, r.w);
        if (last > end - picture.getPlanes()[p]) return false;
    }
    return true;
}

void expectCropAsSpecified(const Format& f, const Picture& picture, rect_t rect) {
    SCOPED_TRACE(testing::Message() << f.name << " " << picture.size() << " cropped by " << rect);
    const Picture view = picture.crop(rect);
    const rect_t r = maskedRect(f, rect, picture.size());
    ASSERT_EQ(view.pixelFormat(), picture.pixelFormat());
    ASSERT_EQ(view.colorRange(), picture.colorRange());
    if (r.w <= 0 || r.h <= 0) {
        ASSERT_EQ(view.size(), (rect_size_t{r.w, r.h}));
        Picture own = view;
        ASSERT_THROW(own.makeEditable(), std::bad_alloc);
        return;
    }
    if (!liesInBuffer(f, picture, r)) {
        ASSERT_TRUE(view.empty());
        ASSERT_EQ(view.size(), (rect_size_t{0, 0}));
        return;
    }
    ASSERT_EQ(view.size(), (rect_size_t{r.w, r.h}));
    ASSERT_EQ(view.buffer(), picture.buffer());
    ASSERT_EQ(view.alignment(), picture.alignment());
    for (int p = 0; p < 4; ++p) {
        ASSERT_EQ(view.getLinesize()[p], picture.getLinesize()[p]);
        std::ptrdiff_t moved = 0;
        if (p < f.planes()) moved = f.rowOffset(p, r.y) * picture.getLinesize()[p] + f.byteOffset(p, r.x);
        ASSERT_EQ(view.getPlanes()[p], picture.getPlanes()[p] ? picture.getPlanes()[p] + moved : nullptr)
            << p;
    }

    Picture own = view;
    own.makeEditable();
    ASSERT_TRUE(own.editable());
    ASSERT_EQ(own.buffer()->size(), own.getVideoBufferSize());
    ASSERT_TRUE(own == view);
    for (int p = 0; p < f.planes(); ++p) {
        for (int row = 0; row < f.rows(p, r.h); ++row) {
            const unsigned char* const want = picture.getPlanes()[p] + f.byteOffset(p, r.x) +
                                              (f.rowOffset(p, r.y) + row) * picture.getLinesize()[p];
            ASSERT_EQ(std::memcmp(own.getPlanes()[p] + row * own.getLinesize()[p], want,
                                  static_cast<std::size_t>(f.rowBytes(p, r.w))),
                      0)
                << "plane " << p << " row " << row;
        }
    }
    if (f.hasPalette(picture)) {
        ASSERT_EQ(std::memcmp(own.getPlanes()[1], picture.getPlanes()[1], 1024), 0);
    }
}

TEST(PictureCropTest, EveryRectangleOfASmallPictureShowsWhatTheFormulasSay) {
    for (const Format& f : allFormats()) {
        for (int align : {1, 16}) {
            const rect_size_t size = align == 1 ? rect_size_t{9, 4} : rect_size_t{6, 4};
            const Picture picture = test::randomPicture(size, f.format, AVCOL_RANGE_JPEG, align, 3);
            const TailGuard guard(picture);
            for (int x = -2; x <= size.w + 1; ++x) {
                for (int y = -2; y <= size.h + 1; ++y) {
                    for (int w = 0; w <= size.w + 2; ++w) {
                        for (int h = 0; h <= size.h + 2; h += align == 1 ? 1 : 2) {
                            expectCropAsSpecified(f, picture, {x, y, w, h});
                            if (HasFatalFailure()) return;
                        }
                    }
                }
            }
        }
    }
}

TEST(PictureCropTest, CropOfACropShowsWhatTheFormulasSay) {
    for (const Format& f : planarAndPackedFormats()) {
        const Picture picture = test::randomPicture({20, 16}, f.format);
        const Picture view = picture.crop({4, 4, 12, 8});
        const TailGuard guard(picture);
        for (rect_t rect :
             {rect_t{0, 0, 12, 8}, rect_t{4, 4, 4, 4}, rect_t{3, 1, 5, 3}, rect_t{8, 4, 100, 100}}) {
            expectCropAsSpecified(f, view, rect);
        }
    }
}

TEST(PictureCropTest, Of420RoundsPositionAndSizeDownToEven) {
    const Picture picture({640, 480}, AV_PIX_FMT_YUV420P);
    const Picture view = picture.crop({11, 21, 101, 51});
    EXPECT_EQ(view.size(), (rect_size_t{100, 50}));
    EXPECT_EQ(view.getPlanes()[0] - picture.getPlanes()[0], 20 * 640 + 10);
    EXPECT_EQ(view.getPlanes()[1] - picture.getPlanes()[1], 10 * 320 + 5);
    EXPECT_EQ(view.getPlanes()[2] - picture.getPlanes()[2], 10 * 320 + 5);
    const Picture corner = picture.crop({-10, -10, 20, 20});
    EXPECT_EQ(corner.size(), (rect_size_t{10, 10}));
    EXPECT_EQ(corner.getPlanes()[0], picture.getPlanes()[0]);
}

TEST(PictureCropTest, MasksAreAppliedCrosswise) {
    const Picture wide = test::randomPicture({16, 16}, AV_PIX_FMT_YUV422P);
    EXPECT_EQ(wide.crop({3, 3, 7, 7}).size(), (rect_size_t{7, 6}));  // y and h are made even, x and w are not
    EXPECT_EQ(wide.crop({3, 3, 7, 7}).getPlanes()[0] - wide.getPlanes()[0], 2 * 16 + 3);
    const Picture tall = test::randomPicture({16, 16}, AV_PIX_FMT_YUV440P);
    EXPECT_EQ(tall.crop({3, 3, 7, 7}).size(), (rect_size_t{6, 7}));
    EXPECT_EQ(tall.crop({3, 3, 7, 7}).getPlanes()[0] - tall.getPlanes()[0], 3 * 16 + 2);
    const Picture quarter = test::randomPicture({16, 16}, AV_PIX_FMT_YUV411P);
    EXPECT_EQ(quarter.crop({3, 7, 7, 7}).size(), (rect_size_t{7, 4}));
    EXPECT_EQ(quarter.crop({3, 7, 7, 7}).getPlanes()[0] - quarter.getPlanes()[0], 4 * 16 + 3);
}

TEST(PictureCropTest, AlphaPlaneIsNotMoved) {
    const Picture picture = test::randomPicture({8, 8}, AV_PIX_FMT_YUVA420P);
    const Picture view = picture.crop({4, 4, 4, 4});
    EXPECT_EQ(view.getPlanes()[3], picture.getPlanes()[3]);
    EXPECT_EQ(view.getPlanes()[1], picture.getPlanes()[1] + 2 * 4 + 2);
}

TEST(PictureCropTest, RectangleWhollyOutsideGivesNoArea) {
    const Picture picture({8, 8}, AV_PIX_FMT_YUV420P);
    for (rect_t rect :
         {rect_t{8, 0, 4, 4}, rect_t{0, 8, 4, 4}, rect_t{100, 100, 4, 4}, rect_t{-4, 0, 4, 4},
          rect_t{0, -9, 4, 4}, rect_t{INT_MAX, INT_MAX, 1, 1}, rect_t{INT_MIN, INT_MIN, 1, 1}}) {
        const Picture view = picture.crop(rect);
        EXPECT_TRUE(view.width() == 0 || view.height() == 0) << rect << ": " << view.size();
    }
}

TEST(PictureCropTest, NegativeSizesAreNoArea) {
    const Picture picture = test::randomPicture({8, 8}, AV_PIX_FMT_YUV420P);
    const Picture view = picture.crop({4, 4, -2, -2});
    Picture own = view;
    EXPECT_THROW(own.makeEditable(), std::bad_alloc);
    Picture target = test::randomPicture({8, 8}, AV_PIX_FMT_YUV420P);
    const auto before = bufferBytes(target);
    target.bitblt(view, {0, 0});
    EXPECT_EQ(bufferBytes(target), before);
    EXPECT_TRUE(view == picture.crop({4, 4, -2, -2}));
}

TEST(PictureCropTest, ViewIsNotEditableWhileThePictureLives) {
    auto picture = std::make_unique<Picture>(rect_size_t{8, 8}, AV_PIX_FMT_YUV420P);
    Picture view = picture->crop({0, 0, 4, 4});
    EXPECT_FALSE(view.editable());
    EXPECT_FALSE(picture->editable());
    picture.reset();
    EXPECT_TRUE(view.editable());
}

TEST(PictureCropTest, MakeEditableCopiesJustTheCroppedArea) {
    const Picture picture = test::randomPicture({64, 64}, AV_PIX_FMT_YUV420P);
    Picture view = picture.crop({10, 10, 4, 4});
    view.makeEditable();
    EXPECT_EQ(view.buffer()->size(), 24u);
    EXPECT_EQ(view.getLinesize()[0], 4);
    EXPECT_TRUE(picture.editable());
}

TEST(PictureCropTest, PictureWithoutFormatIsReturnedAsItIs) {
    EXPECT_TRUE(Picture().crop({0, 0, 4, 4}).empty());
    Picture unknown;
    unknown.setData(std::make_shared<MemBuffer>(10, nullptr));
    const Picture view = unknown.crop({1, 1, 1, 1});
    EXPECT_EQ(view.buffer(), unknown.buffer());
    EXPECT_EQ(view.size(), unknown.size());
}

TEST(PictureCropTest, CropOfAnEmptyPictureWithAFormatIsEmpty) {
    Picture picture({8, 8}, AV_PIX_FMT_YUV420P);
    picture.setData(nullptr);
    EXPECT_TRUE(picture.crop({2, 2, 4, 4}).empty());
}

// ---- bitblt

/// The destination's buffer after a bitblt, sample row by sample row; what does not fit is left out.
std::vector<unsigned char> expectedBitblt(const Format& f, const Picture& target, const Picture& source,
                                          point_t at) {
    std::vector<unsigned char> bytes = bufferBytes(target);
    const int x = at.x & ~(1 << f.log2Width), y = at.y & ~(1 << f.log2Height);
    for (int p = 0; p < f.planes(); ++p) {
        const std::ptrdiff_t plane = target.getPlanes()[p] - target.buffer()->data();
        for (int row = 0; row < f.rows(p, source.height()); ++row) {
            const std::ptrdiff_t targetRow = f.rowOffset(p, y) + row;
            if (targetRow < 0 || targetRow >= f.rows(p, target.height())) continue;
            for (int i = 0; i < f.rowBytes(p, source.width()); ++i) {
                const std::ptrdiff_t targetByte = f.byteOffset(p, x) + i;
                if (targetByte < 0 || targetByte >= f.rowBytes(p, target.width())) continue;
                bytes[static_cast<std::size_t>(plane + targetRow * target.getLinesize()[p] + targetByte)] =
                    source.getPlanes()[p][row * source.getLinesize()[p] + i];
            }
        }
    }
    if (f.hasPalette(target)) {
        std::copy_n(source.getPlanes()[1], 1024,
                    bytes.begin() + (target.getPlanes()[1] - target.buffer()->data()));
    }
    return bytes;
}

void expectBitbltAsSpecified(const Format& f, Picture& target, const Picture& source, point_t at) {
    SCOPED_TRACE(testing::Message() << f.name << " " << source.size() << " at " << at << " of "
                                    << target.size());
    const std::vector<unsigned char> want = expectedBitblt(f, target, source, at);
    target.bitblt(source, at);
    ASSERT_EQ(bufferBytes(target), want);
}

TEST(PictureBitbltTest, WritesWhatTheFormulasSayAndNothingOutsideAtEveryPosition) {
    for (const Format& f : allFormats()) {
        for (rect_size_t sourceSize : {rect_size_t{5, 3}, rect_size_t{13, 11}}) {
            Picture target = test::randomPicture({9, 7}, f.format, AVCOL_RANGE_UNSPECIFIED, 8, 1);
            const TailGuard guard(target);
            unsigned seed = 2;
            for (int x = -16; x <= 12; ++x) {
                for (int y = -14; y <= 10; ++y) {
                    const Picture source =
                        test::randomPicture(sourceSize, f.format, AVCOL_RANGE_UNSPECIFIED, 1, seed++);
                    const TailGuard sourceGuard(source);
                    expectBitbltAsSpecified(f, target, source, {x, y});
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
}

TEST(PictureBitbltTest, FarPositionsWriteNothing) {
    for (const Format& f : allFormats()) {
        Picture target = test::randomPicture({9, 7}, f.format);
        const Picture source = f.hasPalette(target) ? target : test::randomPicture({5, 3}, f.format);
        const TailGuard guard(target);
        for (int x : {INT_MIN, INT_MIN + 1, -1000000, 1000000, INT_MAX - 1, INT_MAX}) {
            for (int y : {INT_MIN, -1000000, 0, 1000000, INT_MAX}) {
                for (point_t at : {point_t{x, y}, point_t{y, x}})
                    expectBitbltAsSpecified(f, target, source, at);
                if (HasFatalFailure()) return;
            }
        }
    }
}

TEST(PictureBitbltTest, ClearsOneBitOfThePosition) {
    const auto firstWritten = [](AVPixelFormat format, point_t at) {
        Picture target({24, 24}, format);
        std::memset(target.buffer()->data(), 0, target.buffer()->size());
        Picture source({1, 1}, format);
        std::memset(source.buffer()->data(), 1, source.buffer()->size());
        target.bitblt(source, at);
        const unsigned char* const plane = target.getPlanes()[0];
        const auto index =
            static_cast<int>(std::find(plane, plane + 24 * target.getLinesize()[0], 1) - plane);
        const int step = target.getLinesize()[0] / 24;
        return point_t{index % target.getLinesize()[0] / step, index / target.getLinesize()[0]};
    };
    EXPECT_EQ(firstWritten(AV_PIX_FMT_RGB24, {3, 3}), (point_t{2, 2}));
    EXPECT_EQ(firstWritten(AV_PIX_FMT_RGB24, {6, 6}), (point_t{6, 6}));
    EXPECT_EQ(firstWritten(AV_PIX_FMT_YUV420P, {3, 3}), (point_t{1, 1}));
    EXPECT_EQ(firstWritten(AV_PIX_FMT_YUV420P, {7, 6}), (point_t{5, 4}));
    EXPECT_EQ(firstWritten(AV_PIX_FMT_YUV422P, {3, 3}), (point_t{1, 2}));
    EXPECT_EQ(firstWritten(AV_PIX_FMT_YUV440P, {3, 3}), (point_t{2, 1}));
    EXPECT_EQ(firstWritten(AV_PIX_FMT_YUV411P, {7, 7}), (point_t{3, 6}));
    EXPECT_EQ(firstWritten(AV_PIX_FMT_YUV411P, {15, 1}), (point_t{11, 0}));
}

TEST(PictureBitbltTest, AlphaPlaneIsWrittenAtTheTopLeft) {
    Picture target({8, 8}, AV_PIX_FMT_YUVA420P);
    std::memset(target.buffer()->data(), 0, target.buffer()->size());
    Picture source({2, 2}, AV_PIX_FMT_YUVA420P);
    std::memset(source.buffer()->data(), 1, source.buffer()->size());
    target.bitblt(source, {4, 4});
    EXPECT_EQ(target.getPlanes()[0][4 * 8 + 4], 1);
    EXPECT_EQ(target.getPlanes()[0][0], 0);
    EXPECT_EQ(target.getPlanes()[3][0], 1);
    EXPECT_EQ(target.getPlanes()[3][9], 1);
    EXPECT_EQ(target.getPlanes()[3][4 * 8 + 4], 0);
}

TEST(PictureBitbltTest, IntoAViewStaysInsideTheView) {
    for (const Format& f : planarAndPackedFormats()) {
        const Picture picture = test::randomPicture({20, 16}, f.format);
        Picture view = picture.crop({4, 4, 8, 8});
        const TailGuard guard(picture);
        unsigned seed = 5;
        for (int x = -9; x <= 9; x += 3) {
            for (int y = -9; y <= 9; y += 3) {
                const Picture source =
                    test::randomPicture({7, 9}, f.format, AVCOL_RANGE_UNSPECIFIED, 1, seed++);
                expectBitbltAsSpecified(f, view, source, {x, y});
                if (HasFatalFailure()) return;
            }
        }
    }
}

TEST(PictureBitbltTest, FromAViewCopiesTheVisiblePart) {
    for (const Format& f : planarAndPackedFormats()) {
        const Picture source = test::randomPicture({20, 16}, f.format).crop({4, 4, 8, 8});
        Picture target = test::randomPicture({12, 12}, f.format, AVCOL_RANGE_UNSPECIFIED, 1, 2);
        expectBitbltAsSpecified(f, target, source, {4, 4});
    }
}

TEST(PictureBitbltTest, WithAnotherFormatStaysInsideBothPictures) {
    const std::vector<Format> formats = allFormats();
    for (const Format& f : formats) {
        for (const Format& other : formats) {
            Picture target = test::randomPicture({9, 7}, f.format);
            const Picture source = test::randomPicture({9, 7}, other.format);
            const TailGuard guard(target), sourceGuard(source);
            for (int x : {-4, 0, 4}) target.bitblt(source, {x, 0});
        }
    }
}

TEST(PictureBitbltTest, EmptyAndUnknownPicturesAreLeftAlone) {
    Picture target = test::randomPicture({4, 4}, AV_PIX_FMT_RGB24);
    const auto before = bufferBytes(target);
    target.bitblt(Picture(), {0, 0});
    Picture unknown;
    unknown.setData(std::make_shared<MemBuffer>(10, nullptr));
    target.bitblt(unknown, {0, 0});
    EXPECT_EQ(bufferBytes(target), before);
    unknown.bitblt(target, {0, 0});
    Picture empty;
    empty.bitblt(target, {0, 0});
    EXPECT_TRUE(empty.empty());
}

// ---- ==

TEST(PictureEqualityTest, EmptyPicturesAreEqualToNone) {
    const Picture empty, other, picture({4, 4}, AV_PIX_FMT_RGB24);
    EXPECT_FALSE(empty == other);
    EXPECT_TRUE(empty != other);
    EXPECT_FALSE(empty == empty);  // NOLINT
    EXPECT_FALSE(empty == picture);
    EXPECT_FALSE(picture == empty);
}

TEST(PictureEqualityTest, CopyIsEqual) {
    for (const Format& f : allFormats()) {
        const Picture picture = test::randomPicture({9, 5}, f.format);
        const TailGuard guard(picture);
        Picture copy = picture;
        EXPECT_TRUE(picture == copy) << f.name;
        EXPECT_FALSE(picture != copy) << f.name;
        copy.makeEditable();
        EXPECT_TRUE(picture == copy) << f.name;
    }
}

TEST(PictureEqualityTest, SizeAndFormatCount) {
    const std::vector<unsigned char> zeros(1000);
    const auto make = [&](rect_size_t size, AVPixelFormat format) {
        Picture picture(size, format);
        picture.fill(zeros.data(), zeros.size());
        return picture;
    };
    const Picture picture = make({4, 4}, AV_PIX_FMT_YUV420P);
    EXPECT_TRUE(picture == make({4, 4}, AV_PIX_FMT_YUV420P));
    EXPECT_FALSE(picture == make({4, 2}, AV_PIX_FMT_YUV420P));
    EXPECT_FALSE(picture == make({2, 4}, AV_PIX_FMT_YUV420P));
    EXPECT_FALSE(picture == make({4, 4}, AV_PIX_FMT_YUVJ420P));
}

TEST(PictureEqualityTest, ColourRangeAlignmentAndRowPaddingDoNotCount) {
    const Picture picture = test::randomPicture({5, 3}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG);
    Picture other = test::randomPicture({5, 3}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG, 32, 99);
    EXPECT_FALSE(picture == other);
    other.bitblt(picture, {0, 0});
    EXPECT_TRUE(picture == other);
    EXPECT_TRUE(other == picture);
}

TEST(PictureEqualityTest, ExactlyTheFirstByteOfEverySampleCounts) {
    // Chroma sizes are rounded down, plane 3's is not; the second byte of 10 bits, the fourth of rgb0 and
    // palettes do not count.
    for (const Format& f : planarAndPackedFormats()) {
        const rect_size_t size{9, 5};
        const Picture picture = test::randomPicture(size, f.format, AVCOL_RANGE_UNSPECIFIED, 16);
        const TailGuard guard(picture);
        std::vector<bool> counts(picture.buffer()->size());
        for (const Component& c : f.components) {
            const bool chroma = f.isChroma(c.plane);
            for (int y = 0; y < size.h >> (chroma ? f.log2Height : 0); ++y) {
                for (int x = 0; x < size.w >> (chroma ? f.log2Width : 0); ++x) {
                    const std::ptrdiff_t plane = picture.getPlanes()[c.plane] - picture.buffer()->data();
                    counts[static_cast<std::size_t>(plane + y * picture.getLinesize()[c.plane] + c.offset +
                                                    x * c.step)] = true;
                }
            }
        }
        Picture other = test::randomPicture(size, f.format, AVCOL_RANGE_UNSPECIFIED, 16);
        ASSERT_TRUE(picture == other);
        for (std::size_t i = 0; i < counts.size(); ++i) {
            other.buffer()->data()[i] ^= 0x80;
            ASSERT_EQ(picture == other, !counts[i]) << f.name << " byte " << i;
            ASSERT_EQ(other != picture, counts[i]) << f.name << " byte " << i;
            other.buffer()->data()[i] ^= 0x80;
        }
    }
}

TEST(PictureEqualityTest, DenseFormatsStopAtTheLinesize) {
    // Steps of whole pixels leave the row, whose bytes count all the same.
    for (const Format& f : denseFormats()) {
        const Picture picture = test::randomPicture({8, 3}, f.format, AVCOL_RANGE_UNSPECIFIED, 1);
        const TailGuard guard(picture);
        Picture other = test::randomPicture({8, 3}, f.format, AVCOL_RANGE_UNSPECIFIED, 1);
        ASSERT_TRUE(picture == other) << f.name;
        int counted = 0;
        for (std::size_t i = 0; i < picture.buffer()->size(); ++i) {
            other.buffer()->data()[i] ^= 0x80;
            counted += picture != other ? 1 : 0;
            other.buffer()->data()[i] ^= 0x80;
        }
        EXPECT_GE(counted, 3) << f.name;
        const bool mono = f.format == AV_PIX_FMT_MONOWHITE || f.format == AV_PIX_FMT_MONOBLACK;
        if (mono || f.format == AV_PIX_FMT_YUYV422) {
            EXPECT_EQ(counted, 3 * picture.getLinesize()[0]) << f.name;
        }
    }
}

TEST(PictureEqualityTest, RowPaddingDoesNotCountInDenseFormats) {
    for (const Format& f : denseFormats()) {
        const Picture picture = test::randomPicture({6, 3}, f.format);
        Picture other = test::randomPicture({6, 3}, f.format, AVCOL_RANGE_UNSPECIFIED, 32, 99);
        other.bitblt(picture, {0, 0});
        EXPECT_TRUE(picture == other) << f.name;
        Picture third = test::randomPicture({6, 3}, f.format, AVCOL_RANGE_UNSPECIFIED, 32, 98);
        third.bitblt(picture, {0, 0});
        EXPECT_TRUE(third == other) << f.name;
    }
}

TEST(PictureEqualityTest, ViewsCompareWhatTheyShow) {
    const Picture picture = test::randomPicture({16, 16}, AV_PIX_FMT_YUV420P);
    Picture own = picture.crop({4, 6, 8, 4});
    own.makeEditable();
    EXPECT_TRUE(own == picture.crop({4, 6, 8, 4}));
    EXPECT_FALSE(own == picture.crop({6, 6, 8, 4}));
}

TEST(PictureEqualityTest, PicturesWithoutFormatAreComparedWithoutADescriptor) {
    Picture a, b;
    a.setData(std::make_shared<MemBuffer>(10, nullptr));
    b.setData(std::make_shared<MemBuffer>(10, nullptr));
    EXPECT_EQ(a == b, !(a != b));
}

/// Formats in which a component's first byte lies before the row: what is compared is in the row all the
/// same.
constexpr AVPixelFormat bytesBeforeTheRow[] = {AV_PIX_FMT_RGB565BE, AV_PIX_FMT_RGB555BE, AV_PIX_FMT_RGB444BE,
                                               AV_PIX_FMT_BGR565BE, AV_PIX_FMT_BGR555BE, AV_PIX_FMT_BGR444BE};

TEST(PictureEqualityTest, NothingBeforeTheBufferIsRead) {
    for (const AVPixelFormat format : bytesBeforeTheRow) {
        // Under the address sanitizer a byte before the block is an error.
        const Picture a = test::randomPicture({5, 3}, format);
        Picture b = a;
        b.makeEditable();
        EXPECT_EQ(a, b);
        b.getPlanes()[0][1] ^= 0xff;
        EXPECT_NE(a, b);
    }
}

TEST(PictureEqualityTest, BytesThatACropHidesDoNotCountInBigEndianFormats) {
    for (const AVPixelFormat format : bytesBeforeTheRow) {
        const Picture whole = test::randomPicture({8, 3}, format);
        Picture other = whole;
        other.makeEditable();
        for (int y = 0; y < 3; ++y)
            other.getPlanes()[0][y * other.getLinesize()[0] + 3] ^= 0xff;  // of column 1
        EXPECT_EQ(whole.crop({2, 0, 4, 3}), other.crop({2, 0, 4, 3})) << format;
    }
}

}  // namespace
}  // namespace kvffmpeg
