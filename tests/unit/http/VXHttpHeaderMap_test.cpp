#include "commonlibc/http/VXHttpHeaderMap.h"

#include "tests/support/app_fixture.h"

namespace vx::test {
namespace {

class HeaderMap : public AppFixture {
protected:
    void TearDown() override {
        VXProxy.ceilings = {};
        AppFixture::TearDown();
    }
};

TEST_F(HeaderMap, NamesGetIdsInTheOrderOfFirstSightUpToTheCeiling) {
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("Host", app->http.headers), nullptr) << "no map yet";
    EXPECT_EQ(vxHttpHeaderId("Host"), kNoHttpHeader);
    VXMap* map = initHttpHashMapNode();
    EXPECT_EQ(initHttpHashMapNode(), map);
    VXProxy.ceilings.maxHeaderNames = 2;
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("Host", map)->id, 1);
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("Accept", map)->id, 2);
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("Host", map)->id, 1);
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("Third", map), nullptr);
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("", map), nullptr);
    EXPECT_EQ(vxHttpHeaderId("Accept"), 2);
    EXPECT_EQ(vxHttpHeaderId("Third"), kNoHttpHeader);
    EXPECT_EQ(app->http.headersTraced, 1);
}

}  // namespace
}  // namespace vx::test
