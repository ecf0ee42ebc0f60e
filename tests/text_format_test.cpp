#include "text_format.h"

#include <gmock/gmock.h>

#include <new>
#include <string>

#include "support/test_heap.h"

namespace kvffmpeg {
namespace {

TEST(FormatTextTest, WithoutMemoryThrowsAndCutsNothingOff) {
    if (!test::heapIsOurs()) GTEST_SKIP() << "the sanitizer's own operators are in force";
    // Longer than what strings hold without memory of their own.
    const std::string value(200, 'v');
    const std::string whole = "first " + value + ", number 1234567, last " + value;
    int failures = 0;
    for (int point = 0; point < 1000; ++point) {
        test::heap().failAfter = point;
        try {
            const std::string text = formatText("first %s, number %d, last %s", value, 1234567, value);
            const bool allWorked = test::heap().failAfter >= 0;
            test::heap().failAfter = -1;
            ASSERT_EQ(text, whole) << "allocation " << point;
            if (allWorked) break;
        } catch (const std::bad_alloc&) {
            test::heap().failAfter = -1;
            ++failures;
        }
    }
    EXPECT_GT(failures, 5);
}

TEST(FormatTextTest, ValuesKeepTheFormOfTheirPlace) {
    EXPECT_EQ(formatText("%5d|%-5d|%05d|%x|%X|%.2f|%8s|%c|%%", 42, 42, 42, 255, 255, 1.005, "text", 'c'),
              "   42|42   |00042|ff|FF|1.00|    text|c|%");
}

}  // namespace
}  // namespace kvffmpeg
