#include "kvffmpeg/frame.h"

#include <gmock/gmock.h>

#include "support/media.h"

namespace kvffmpeg {
namespace {

TEST(FrameTest, DefaultFrameIsEmpty) {
    EXPECT_TRUE(Frame().empty());
    EXPECT_EQ(test::randomPicture({4, 4}, AV_PIX_FMT_YUV420P).getVideoBufferSize(), 24u);
}

}  // namespace
}  // namespace kvffmpeg
