#include "commonlibc/VXSys.h"

#include <gtest/gtest.h>

#include "tests/support/home_fixture.h"

namespace vx {
namespace {

class General : public test::HomeFixture {};

TEST_F(General, ASecondCallLeavesWhatRunningThreadsDrive) {
    app->VXSys.bciDataBufferMaxCount = 7;
    app->VXSys.dataDropCount = 12;
    app->Server.flowpathCounter = 99;
    apr_thread_mutex_t* const dumpMutex = app->data.chain.dumpMutex;
    VXSysInit("proxy");
    EXPECT_TRUE(vxMakeContextMutexes(*app));
    EXPECT_EQ(app->VXSys.bciDataBufferMaxCount, 1000) << "a setting";
    EXPECT_EQ(app->VXSys.dataDropCount, 12U);
    EXPECT_EQ(app->Server.flowpathCounter, 99U);
    EXPECT_EQ(app->data.chain.dumpMutex, dumpMutex);
}

TEST_F(General, AKeywordTextIsCutAtMemberAndDestination) {
    const char member[4] = {'a', 'b', 'c', 'd'};  // full to the last byte, as a foreign value may leave it
    char out[8];
    vxCopyKeywordText(out, sizeof(out), member, sizeof(member));
    EXPECT_STREQ(out, "abcd");
    vxCopyKeywordText(out, 3, member, sizeof(member));
    EXPECT_STREQ(out, "ab");
}

}  // namespace
}  // namespace vx
