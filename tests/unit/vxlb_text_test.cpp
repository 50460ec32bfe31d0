#include "commonlibc/vxlb_text.h"

#include <gtest/gtest.h>

namespace vx {
namespace {

// A default and a run's value take turns for months: two copies in all, and both stay readable.
TEST(SharedTexts, AValueThatComesBackIsTheCopyOfBefore) {
    VXRetiredTexts retired{};
    VXSharedText text{}, other{};
    ASSERT_TRUE(setSharedText(retired, text, "ZorKW"));
    const char* first = text.get();
    ASSERT_TRUE(setSharedText(retired, text, "Mine"));
    const char* second = text.get();
    EXPECT_FALSE(setSharedText(retired, text, "Mine"));
    for (int i = 0; i < 1000; ++i) {
        setSharedText(retired, text, i % 2 ? "Mine" : "ZorKW");
        ASSERT_EQ(text.get(), i % 2 ? second : first);
    }
    setSharedText(retired, other, "ZorKW");
    EXPECT_EQ(other.get(), first);
    EXPECT_TRUE(setSharedText(retired, text, nullptr));
    EXPECT_STREQ(second, "Mine");
    setSharedText(retired, other, nullptr);
    freeRetiredTexts(retired);
}

}  // namespace
}  // namespace vx
