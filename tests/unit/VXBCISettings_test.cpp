#include "commonlibc/VXBCISettings.h"

#include <gtest/gtest.h>

#include "tests/support/home_fixture.h"

namespace vx {
namespace {

class Identity : public test::HomeFixture {
protected:
    VXBCISetting_t& setting() { return app->VXBCISetting; }
};

TEST_F(Identity, ANameIsKeptPlainAndEncodedUpToThreeTimesItsLength) {
    struct {
        const char *name, *encoded;
    } rows[] = {{"plain", "plain"}, {"a_b", "a&#95;b"}, {"a__b", "a&#95;&#95;b"}, {"___", "&#95;"}, {"", ""}};
    for (const auto& row : rows) {
        setAppName(row.name);
        EXPECT_STREQ(getAppName(), row.name);
        EXPECT_STREQ(setting().encodedAppName.get(), row.encoded);
    }
    setAppName("I");
    const char* const held = getAppName();
    EXPECT_EQ(app->Server.sameAppName, 0);
    setAppName(nullptr);
    setAppName("I");
    EXPECT_EQ(app->Server.sameAppName, 1);
    EXPECT_EQ(getAppName(), held) << "readers keep their pointer";
}

TEST_F(Identity, OfAnInstanceThatIsSetUpStaysWhenItsLinkIsMadeAnew) {
    setStackSize(1024);
    setEndPointPrefix("prefix");
    setAutoScalingMode(1);
    app->identity.isProxyInstance = 1;
    VXBCISettingInit();
    EXPECT_EQ(setting().stackSize, 1024);
    EXPECT_STREQ(setting().endPointPrefix.get(), "prefix");
    EXPECT_EQ(setting().autoScalingMode, 1);
}

TEST_F(Identity, AHostOutsideItsBoundsIsNotStored) {
    EXPECT_EQ(setVXCHost("collector-1_a.example:x"), 0);
    for (const std::string& host : {std::string(), std::string(256, 'h'), std::string("a b"),
                                    std::string("a/b"), std::string("a;b"), std::string("h\xc3\xa4")})
        EXPECT_EQ(setVXCHost(host.c_str()), -1) << host;
    EXPECT_EQ(setVXCHost(nullptr), -1);
    EXPECT_STREQ(setting().vxcHost.get(), "collector-1_a.example:x");
    EXPECT_EQ(setVXCHost(std::string(255, 'h').c_str()), 0);
}

TEST_F(Identity, PortsAndStackSizesOutsideTheirBoundsKeepTheFormer) {
    for (const int port : {0, -1, 65536}) setVXCPort(port);
    EXPECT_EQ(setting().vxcPort, 443);
    setVXCPort(65535);
    EXPECT_EQ(setting().vxcPort, 65535);
    for (const int size : {1024, 0, 128, 300, 2048}) setStackSize(size);
    EXPECT_EQ(setting().stackSize, 1024);
    setSaasHostPort("saas.example:99999");
    EXPECT_EQ(setting().saasPort, 443);
    EXPECT_STREQ(setting().SaasHost.get(), "saas.example");
}

}  // namespace
}  // namespace vx
