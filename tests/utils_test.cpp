#include "kvffmpeg/utils.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "kvffmpeg/scaler.h"
#include "support/log_capture.h"
#include "support/media.h"
#include "support/temporary_folder.h"

namespace kvffmpeg {
namespace {

using testing::StrEq;
using testing::ThrowsMessage;

class PictureFileTest : public testing::Test {
protected:
    static Picture gradient(rect_size_t size, AVPixelFormat format,
                            AVColorRange range = AVCOL_RANGE_UNSPECIFIED) {
        Picture picture(size, format, range, 1);
        MemBuffer& buffer = *picture.buffer();
        for (std::size_t i = 0; i < buffer.size(); ++i) buffer.data()[i] = static_cast<unsigned char>(i * 3);
        return picture;
    }

    test::TemporaryFolder folder_;
};

TEST_F(PictureFileTest, PngKeepsRgbPixels) {
    const Picture picture = gradient({33, 17}, AV_PIX_FMT_RGB24);
    savePicture(picture, folder_.file("a.png"), AV_CODEC_ID_NONE);
    const Picture loaded = loadPicture(folder_.file("a.png"));
    EXPECT_EQ(loaded, picture) << loaded;
}

TEST_F(PictureFileTest, FileHoldsTheEncodersPacketAndNothingElse) {
    savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), folder_.file("a.png"), AV_CODEC_ID_NONE);
    const auto bytes = test::readFile(folder_.file("a.png"));
    ASSERT_GT(bytes.size(), 16u);
    EXPECT_THAT(std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + 8),
                testing::ElementsAre(0x89, 'P', 'N', 'G', 0x0d, 0x0a, 0x1a, 0x0a));
    EXPECT_EQ(std::string(bytes.end() - 8, bytes.end() - 4), "IEND");
}

TEST_F(PictureFileTest, EveryCommonFormatLoadsBackInTheSameSize) {
    for (const char* name : {"a.png", "a.jpg", "a.bmp", "a.tiff", "a.ppm", "a.tga"}) {
        savePicture(gradient({30, 22}, AV_PIX_FMT_YUV420P), folder_.file(name), AV_CODEC_ID_NONE);
        EXPECT_EQ(loadPicture(folder_.file(name)).size(), (rect_size_t{30, 22})) << name;
    }
}

TEST_F(PictureFileTest, CodecThatIsNamedWinsOverTheEnding) {
    savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), folder_.file("a.jpg"), AV_CODEC_ID_PNG);
    EXPECT_EQ(test::readFile(folder_.file("a.jpg")).at(1), 'P');
}

TEST_F(PictureFileTest, FormatThatTheEncoderDoesNotTakeIsConvertedToItsFirst) {
    savePicture(gradient({32, 16}, AV_PIX_FMT_YUVA420P), folder_.file("a.jpg"), AV_CODEC_ID_NONE);
    const Picture loaded = loadPicture(folder_.file("a.jpg"));
    EXPECT_EQ(loaded.pixelFormat(), AV_PIX_FMT_YUV420P);
    EXPECT_EQ(loaded.colorRange(), AVCOL_RANGE_JPEG);
    savePicture(gradient({32, 16}, AV_PIX_FMT_YUV420P), folder_.file("a.png"), AV_CODEC_ID_NONE);
    EXPECT_EQ(loadPicture(folder_.file("a.png")).pixelFormat(), AV_PIX_FMT_RGB24);
}

TEST_F(PictureFileTest, LimitedRangeBecomesFullRangeInAJpeg) {
    Picture picture({32, 32}, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG, 1);
    std::fill_n(picture.buffer()->data(), 32 * 32, static_cast<unsigned char>(235));  // white
    std::fill_n(picture.buffer()->data() + 32 * 32, 2 * 16 * 16, static_cast<unsigned char>(128));
    savePicture(picture, folder_.file("a.jpg"), AV_CODEC_ID_NONE);
    const Picture loaded = loadPicture(folder_.file("a.jpg"));
    EXPECT_GE(int{loaded.getPlanes()[0][0]}, 254);
}

TEST_F(PictureFileTest, PictureOfTheCallerStaysAsItIs) {
    const Picture picture = gradient({32, 16}, AV_PIX_FMT_YUVA420P);
    Picture before = picture;
    before.makeEditable();
    savePicture(picture, folder_.file("a.jpg"), AV_CODEC_ID_NONE);
    EXPECT_EQ(picture, before);
    EXPECT_TRUE(picture.editable());
}

TEST_F(PictureFileTest, CropsAreSavedAsTheyAreSeen) {
    const Picture picture = gradient({40, 40}, AV_PIX_FMT_RGB24);
    const Picture view = picture.crop({10, 8, 20, 12});
    savePicture(view, folder_.file("a.png"), AV_CODEC_ID_NONE);
    EXPECT_EQ(loadPicture(folder_.file("a.png")), view);
}

TEST_F(PictureFileTest, AlignedRowsAreSavedWithoutTheirPadding) {
    Picture picture = test::randomPicture({31, 9}, AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED, 64);
    savePicture(picture, folder_.file("a.png"), AV_CODEC_ID_NONE);
    EXPECT_EQ(loadPicture(folder_.file("a.png")), picture);
}

TEST_F(PictureFileTest, UnknownEndingThrowsAndMakesNoFile) {
    const std::string path = folder_.file("a.nosuchformat");
    EXPECT_THAT(
        [&] {
            savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), path, AV_CODEC_ID_NONE);
        },
        ThrowsMessage<std::runtime_error>(StrEq("Could not find format for " + path)));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(PictureFileTest, PathIsNoFormatOfTheMessage) {
    EXPECT_THAT(
        [&] {
            savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), "100%.xyz", AV_CODEC_ID_NONE);
        },
        ThrowsMessage<std::runtime_error>(StrEq("Could not find format for 100%.xyz")));
    EXPECT_THAT(
        [&] {
            savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), "/%d%s%1%/a.png", AV_CODEC_ID_NONE);
        },
        ThrowsMessage<std::runtime_error>(StrEq("Could not open output file /%d%s%1%/a.png")));
}

TEST_F(PictureFileTest, CodecWithoutAnEncoderThrows) {
    const std::string path = folder_.file("a.png");
    EXPECT_THAT(
        [&] {
            savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), path, AV_CODEC_ID_VP6);
        },
        ThrowsMessage<std::runtime_error>(StrEq("Could not find encoder for " + path)));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(PictureFileTest, FormatWithoutAPictureCodecHasNoEncoder) {
    const std::string path = folder_.file("a.wav");
    EXPECT_THAT(
        [&] {
            savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), path, AV_CODEC_ID_NONE);
        },
        ThrowsMessage<std::runtime_error>(StrEq("Could not find encoder for " + path)));
}

TEST_F(PictureFileTest, EncoderThatDoesNotOpenThrowsAndMakesNoFile) {
    const std::string path = folder_.file("a.png");
    EXPECT_THAT([&] { savePicture(Picture(), path, AV_CODEC_ID_NONE); },
                ThrowsMessage<std::runtime_error>(StrEq("Could not open png encoder")));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(PictureFileTest, EncodersThatTakeNoPicturesDoNotOpen) {
    const std::string path = folder_.file("a.out");
    EXPECT_THAT(
        [&] {
            savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), path, AV_CODEC_ID_PCM_S16LE);
        },
        ThrowsMessage<std::runtime_error>(StrEq("Could not open pcm_s16le encoder")));
    EXPECT_THAT(
        [&] {
            savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), path, AV_CODEC_ID_SUBRIP);
        },
        ThrowsMessage<std::runtime_error>(testing::HasSubstr("Could not open ")));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(PictureFileTest, FileThatCannotBeOpenedThrows) {
    const std::string path = folder_.file("no such folder/a.png");
    EXPECT_THAT(
        [&] {
            savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), path, AV_CODEC_ID_NONE);
        },
        ThrowsMessage<std::runtime_error>(StrEq("Could not open output file " + path)));
}

TEST_F(PictureFileTest, DiskThatIsFullThrows) {
    EXPECT_THAT(
        [&] {
            savePicture(gradient({64, 64}, AV_PIX_FMT_RGB24), "/dev/full", AV_CODEC_ID_PNG);
        },
        ThrowsMessage<std::runtime_error>(StrEq("Could not write output file /dev/full")));
}

TEST_F(PictureFileTest, PictureThatTheEncoderRefusesThrows) {
    // This encoder opens for any size and takes one.
    EXPECT_THAT(
        [&] {
            savePicture(gradient({16, 16}, AV_PIX_FMT_MONOWHITE), folder_.file("a.xface"), AV_CODEC_ID_XFACE);
        },
        ThrowsMessage<std::runtime_error>(StrEq("Encoding failed")));
}

TEST_F(PictureFileTest, EncoderThatHoldsThePictureBackMakesAnEmptyFile) {
    savePicture(gradient({16, 16}, AV_PIX_FMT_RGB24), folder_.file("a.apng"), AV_CODEC_ID_APNG);
    EXPECT_EQ(std::filesystem::file_size(folder_.file("a.apng")), 0u);
}

// --- loading

TEST_F(PictureFileTest, LoadingAMissingFileThrows) {
    EXPECT_THAT([&] { loadPicture(folder_.file("missing.png")); },
                ThrowsMessage<std::runtime_error>(StrEq("can't open input file")));
}

TEST_F(PictureFileTest, StillsHaveTheTimeZero) {
    savePicture(gradient({8, 8}, AV_PIX_FMT_RGB24), folder_.file("a.png"), AV_CODEC_ID_NONE);
    const Frame frame = loadPictureAsFrame(folder_.file("a.png"));
    EXPECT_FALSE(frame.picture().empty());
    EXPECT_FALSE(frame.PTS().is_nil());
    EXPECT_EQ(frame.PTS().value(), 0);
    EXPECT_TRUE(frame.picture().editable());
}

TEST_F(PictureFileTest, FileWithoutAPacketGivesAnEmptyFrame) {
    test::runFFmpeg("-f lavfi -i sine=duration=0.1 " + folder_.file("a.wav"));
    auto header = test::readFile(folder_.file("a.wav"));
    const std::string text(header.begin(), header.end());
    header.resize(text.find("data") + 8);
    test::writeFile(folder_.file("a.wav"), header);
    EXPECT_TRUE(loadPictureAsFrame(folder_.file("a.wav")).empty());
    EXPECT_TRUE(loadPicture(folder_.file("a.wav")).empty());
}

TEST_F(PictureFileTest, FirstPacketIsLoadedWhateverItsTrack) {
    test::runFFmpeg("-f lavfi -i sine=duration=0.1 " + folder_.file("a.wav"));
    const Frame frame = loadPictureAsFrame(folder_.file("a.wav"));
    EXPECT_FALSE(frame.audioBuffer().empty());
    EXPECT_TRUE(loadPicture(folder_.file("a.wav")).empty());
}

TEST_F(PictureFileTest, FileThatOpensAndDoesNotDecodeGivesAnEmptyPictureAndAWarning) {
    const std::string path = folder_.file("a.png");
    savePicture(gradient({64, 64}, AV_PIX_FMT_RGB24), path, AV_CODEC_ID_NONE);
    auto bytes = test::readFile(path);
    std::fill(bytes.begin() + 12, bytes.end(), std::uint8_t{0});
    test::writeFile(path, bytes);
    const test::LogCapture log;
    EXPECT_TRUE(loadPicture(path).empty());
    EXPECT_THAT(log.messages(2), testing::ElementsAre("Could not decode video from " + path + ":0"));
}

TEST_F(PictureFileTest, OnlyTheFirstPictureOfASeriesIsLoaded) {
    test::runFFmpeg("-f lavfi -i testsrc2=size=16x16:rate=5:duration=1 " + folder_.file("b%03d.png"));
    EXPECT_EQ(loadPicture(folder_.file("b%03d.png")), loadPicture(folder_.file("b001.png")));
}

}  // namespace
}  // namespace kvffmpeg
