#include "commonlibc/VXSys.h"

#include <gtest/gtest.h>

#include "tests/support/home_fixture.h"

namespace vx {
namespace {

class General : public test::HomeFixture {};

TEST_F(General, TheHomeIsFoundByTheFirstVariableThatHoldsOne) {
    const char* former = getenv("HOME");
    const std::string kept = former ? former : "";
    const struct {
        const char *vxhome, *userprofile, *home, *path;
    } rows[] = {{"/a", "/b", "/c", "/a/proxy"},
                {nullptr, "/b", "/c", "/b/proxy"},
                {"", nullptr, "/c", "/c/proxy"},
                {nullptr, nullptr, nullptr, "/proxy"}};
    for (const auto& row : rows) {
        row.vxhome ? setenv("VXHOME", row.vxhome, 1) : unsetenv("VXHOME");
        row.userprofile ? setenv("USERPROFILE", row.userprofile, 1) : unsetenv("USERPROFILE");
        row.home ? setenv("HOME", row.home, 1) : unsetenv("HOME");
        setVXHome();
        setProxyVXHome();
        EXPECT_STREQ(getVXHome(), row.path);
        EXPECT_STREQ(VXProxy.vxHomePath, row.path);
    }
    unsetenv("USERPROFILE");
    setenv("HOME", kept.c_str(), 1);
}

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
