#include "commonlibc/VXBCISettings.h"

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
    EXPECT_EQ(getAppName(), held);
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

}  // namespace
}  // namespace vx
