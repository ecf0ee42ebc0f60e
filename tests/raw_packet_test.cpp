#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "kvffmpeg/format_context.h"
#include "support/media.h"
#include "support/renamed_input.h"
#include "support/temporary_folder.h"

namespace kvffmpeg {
namespace {

class RawPacketTest : public testing::Test {
protected:
    RawPacketTest() {
        test::runFFmpeg("-f lavfi -i testsrc2=size=64x48:rate=25:duration=1 -c:v mpeg4 -g 10 " + path_);
    }

    static std::vector<bool> keyFrames(FormatContext& context) {
        std::vector<bool> result;
        while (const auto packet = context.readPacket()) result.push_back(packet->isKeyFrame());
        return result;
    }

    static std::vector<bool> everyTenth() {
        std::vector<bool> result;
        for (int i = 0; i < 25; ++i) result.push_back(i % 10 == 0);
        return result;
    }

    test::TemporaryFolder folder_;
    std::string path_ = folder_.file("a.mkv");
};

TEST_F(RawPacketTest, OtherInputsHaveTheirKeyFrameFlagsRewritten) {
    FormatContext context(path_);
    context.open();
    EXPECT_EQ(keyFrames(context), std::vector<bool>(25, true));
}

TEST_F(RawPacketTest, KeyFrameFlagsStayAsTheContainerHasThem) {
    const test::RenamedInputs renamed;
    FormatContext context(path_);
    context.open("", false);
    EXPECT_EQ(keyFrames(context), everyTenth());
}

TEST_F(RawPacketTest, TreatmentStaysForTheInputsThatAreOpenedLaterAndGoesAlongWithAMove) {
    FormatContext context(path_);
    {
        const test::RenamedInputs renamed;
        context.open("", false);
        context.close();
    }
    context.open();
    FormatContext moved(std::move(context));
    EXPECT_EQ(keyFrames(moved), everyTenth());
}

}  // namespace
}  // namespace kvffmpeg
