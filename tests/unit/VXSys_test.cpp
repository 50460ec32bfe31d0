#include "commonlibc/VXSys.h"

#include <gtest/gtest.h>

namespace vx {
namespace {

TEST(KeywordText, IsCutAtMemberAndDestination) {
    const char member[4] = {'a', 'b', 'c', 'd'};  // full to the last byte, as a foreign value may leave it
    char out[8];
    vxCopyKeywordText(out, sizeof(out), member, sizeof(member));
    EXPECT_STREQ(out, "abcd");
    vxCopyKeywordText(out, 3, member, sizeof(member));
    EXPECT_STREQ(out, "ab");
}

}  // namespace
}  // namespace vx
