#include "kvffmpeg/geometry.h"

#include <gmock/gmock.h>

#include <climits>
#include <sstream>

namespace kvffmpeg {
namespace {

TEST(RectTest, IntersectionOfTouchingRectanglesHasNoWidthAndKeepsItsHeight) {
    EXPECT_EQ((rect_t{0, 0, 10, 10}).intersected({10, 0, 5, 5}), (rect_t{10, 0, 0, 5}));
}

}  // namespace
}  // namespace kvffmpeg
