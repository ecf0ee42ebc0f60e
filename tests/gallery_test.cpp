// The pictures that docs/gallery.md shows, beside those that its commands have just made.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "ffmpeg_compat.h"
#include "kvffmpeg/draw_utils.h"
#include "kvffmpeg/freetype_rendering.h"
#include "kvffmpeg/scaler.h"
#include "kvffmpeg/utils.h"
#include "support/fonts.h"

namespace kvffmpeg {
namespace {

namespace fs = std::filesystem;

/// Scaling and FreeType differ in the last bits between releases and CPUs. A wrong letter gives less than
/// this in the block that it is in.
constexpr double alike = 32;
constexpr int blockSize = 32;

/// The mean square difference of a block of two RGBA pictures, over all four components.
double meanSquareDifference(const Picture& a, const Picture& b, rect_t block) {
    double sum = 0;
    for (int y = block.y; y < block.y + block.h; ++y) {
        const std::uint8_t* row = a.getPlanes()[0] + std::ptrdiff_t{y} * a.getLinesize()[0];
        const std::uint8_t* other = b.getPlanes()[0] + std::ptrdiff_t{y} * b.getLinesize()[0];
        for (int x = 4 * block.x; x < 4 * (block.x + block.w); ++x) sum += std::pow(row[x] - other[x], 2);
    }
    return sum / (4.0 * block.w * block.h);
}

/// The peak signal-to-noise ratio in decibels of the block that differs most: infinite for equal pictures, 0
/// for different sizes.
double peakSignalToNoise(const Picture& first, const Picture& second) {
    if (first.size() != second.size() || first.empty() || second.empty()) return 0;
    const Picture a = Scaler().convertToColorspace(first, AV_PIX_FMT_RGBA, AVCOL_RANGE_JPEG);
    const Picture b = Scaler().convertToColorspace(second, AV_PIX_FMT_RGBA, AVCOL_RANGE_JPEG);
    double most = 0;
    for (int y = 0; y < a.height(); y += blockSize / 2) {
        for (int x = 0; x < a.width(); x += blockSize / 2) {
            const rect_t block = crop_rect({x, y, blockSize, blockSize}, a.size());
            most = std::max(most, meanSquareDifference(a, b, block));
        }
    }
    return most == 0 ? std::numeric_limits<double>::infinity() : 10 * std::log10(255 * 255 / most);
}

std::set<std::string> namesIn(const fs::path& folder) {
    std::set<std::string> names;
    if (!fs::exists(folder)) return names;
    for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename().string());
    return names;
}

std::set<std::string> keptNames() {
    return namesIn(KVFFMPEG_KEPT_GALLERY);
}

std::set<std::string> madeNames() {
    return namesIn(KVFFMPEG_MADE_GALLERY);
}

/// Skips the test where neither tool nor fonts are there to make pictures with.
#define KVFFMPEG_REQUIRE_MADE_GALLERY() \
    if (madeNames().empty())            \
    GTEST_SKIP() << "no pictures were made: that takes the tool, the examples and DejaVu"

TEST(GalleryTest, PicturesOfThePageAreMadeAlike) {
    KVFFMPEG_REQUIRE_MADE_GALLERY();
    for (const std::string& name : keptNames()) {
        const fs::path made = fs::path(KVFFMPEG_MADE_GALLERY) / name;
        if (name == "cjk.png" && !fs::exists(made)) continue;  // there is no font for it
        // FFmpeg 9 cuts off what the encoder of the clip's sound filled up at its end, so that all moves a
        // little.
        if (name == "waveform.png" && compat::ffmpegRelease >= 9) continue;
        SCOPED_TRACE(name);
        ASSERT_TRUE(fs::exists(made));
        const Picture now = loadPicture(made.string());
        const Picture kept = loadPicture((fs::path(KVFFMPEG_KEPT_GALLERY) / name).string());
        ASSERT_FALSE(kept.empty());
        EXPECT_EQ(now.size(), kept.size());
        EXPECT_GE(peakSignalToNoise(now, kept), alike)
            << "If that is meant, build the target kvffmpeg_gallery, and look at what it made";
    }
}

TEST(GalleryTest, PicturesThatAreMadeAreKept) {
    KVFFMPEG_REQUIRE_MADE_GALLERY();
    EXPECT_GE(madeNames().size(), 20U);
    for (const std::string& name : madeNames()) EXPECT_THAT(keptNames(), testing::Contains(name));
}

TEST(GalleryTest, KeptPicturesAreSmallPngFiles) {
    std::uintmax_t total = 0;
    for (const std::string& name : keptNames()) {
        SCOPED_TRACE(name);
        const fs::path path = fs::path(KVFFMPEG_KEPT_GALLERY) / name;
        total += fs::file_size(path);
        char signature[8] = {};
        std::ifstream(path, std::ios::binary).read(signature, sizeof signature);
        EXPECT_EQ(std::string(signature, sizeof signature), "\x89PNG\r\n\x1a\n");
    }
    EXPECT_GT(total, 0U);
    EXPECT_LT(total, 1500000U);
}

class GalleryComparisonTest : public testing::Test {
protected:
    static Picture written(const std::string& text) {
        Picture picture({640, 480}, AV_PIX_FMT_YUV420P);
        DrawUtils::fillRectangle(picture, Color("gray"));
        FreeTypeTextRenderer renderer(test::sansFont(), 12);
        renderer.drawTo(picture, text, {12, 348});
        return picture;
    }
};

TEST_F(GalleryComparisonTest, FindsEqualPicturesAlike) {
    KVFFMPEG_REQUIRE_FONTS();
    EXPECT_GE(peakSignalToNoise(written("Take 3"), written("Take 3")), alike);
}

TEST_F(GalleryComparisonTest, OverlooksTheLastBit) {
    Picture first({320, 180}, AV_PIX_FMT_RGBA);
    Picture second({320, 180}, AV_PIX_FMT_RGBA);
    first.fillWithRGB(100, 100, 100);
    second.fillWithRGB(101, 99, 101);
    EXPECT_GE(peakSignalToNoise(first, second), alike);
    EXPECT_LT(peakSignalToNoise(first, second), 60);
}

TEST_F(GalleryComparisonTest, FindsAWrongLetter) {
    KVFFMPEG_REQUIRE_FONTS();
    EXPECT_LT(peakSignalToNoise(written("Take 3"), written("Take 4")), alike);
    EXPECT_LT(peakSignalToNoise(written("00:00:01.875"), written("00:00:01.876")), alike);
    EXPECT_LT(peakSignalToNoise(written("programme"), written("progromme")), alike);
}

TEST_F(GalleryComparisonTest, FindsAMissingPicture) {
    EXPECT_EQ(peakSignalToNoise(Picture(), Picture()), 0);
}

TEST_F(GalleryComparisonTest, FindsAnotherSize) {
    Picture first({320, 180}, AV_PIX_FMT_RGBA);
    Picture second({320, 178}, AV_PIX_FMT_RGBA);
    first.fillWithRGB(1, 2, 3);
    second.fillWithRGB(1, 2, 3);
    EXPECT_EQ(peakSignalToNoise(first, second), 0);
}

}  // namespace
}  // namespace kvffmpeg
