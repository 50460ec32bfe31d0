#include "commonlibc/http/VXHttpHeaderMap.h"

#include <string>

#include "commonlibc/VXMetadataReplay.h"
#include "commonlibc/http/VXHttpNameList.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

class HeaderMap : public KnowledgeFixture {};

TEST_F(HeaderMap, NamesGetIdsInTheOrderOfFirstSightUpToTheCeiling) {
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("Host", app->http.headers), nullptr) << "no map yet";
    EXPECT_EQ(vxHttpHeaderId("Host"), kNoHttpHeader);
    VXMap* map = initHttpHashMapNode();
    EXPECT_EQ(initHttpHashMapNode(), map);
    VXProxy.ceilings.maxHeaderNames = 4;
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("Host", map)->id, 1);
    EXPECT_EQ(vxHttpValueRow("a", map)->id, 2);
    EXPECT_EQ(vxHttpValueRow("b", map), nullptr) << "half of the rows are left to names";
    EXPECT_EQ(vxHttpValueRow("a", map)->id, 2);
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("Accept", map)->id, 3);
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("Host", map)->id, 1);
    EXPECT_EQ(searchAndUpdatehttpHashMapNode(std::string(kHeaderNameMax + 1, 'n').c_str(), map), nullptr);
    EXPECT_EQ(searchAndUpdatehttpHashMapNode(std::string(kHeaderNameMax, 'n').c_str(), map)->id, 4);
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("Fifth", map), nullptr);
    EXPECT_EQ(searchAndUpdatehttpHashMapNode("", map), nullptr);
    EXPECT_EQ(vxHttpHeaderId("Accept"), 3);
    EXPECT_EQ(vxHttpHeaderId("Fifth"), kNoHttpHeader);
    EXPECT_EQ(app->http.headersTraced, 1);
}

TEST_F(HeaderMap, ANameIsToldOnceOnAConnectionAndAgainOnTheNext) {
    VXMap* map = initHttpHashMapNode();
    VXHttpHeader* host = searchAndUpdatehttpHashMapNode("Ho\nst", map);
    searchAndUpdatehttpHashMapNode("Unused", map);
    clearDumped(*app);
    announceHttpHeader(host);  // no data connection yet: the replay tells it
    EXPECT_EQ(dumpedText(*app), "");
    app->data.data_thread_running = 1;
    collectAndSendOnlyCached6Records(0, 1);
    announceHttpHeader(host);
    EXPECT_EQ(dumpedText(*app), "6,1,Ho st\n");
    clearHeaderMetaDataFlags();
    announceHttpHeader(host);
    announceHttpHeader(host);
    EXPECT_EQ(dumpedText(*app), "6,1,Ho st\n6,1,Ho st\n");

    closeDumping(*app);  // no room: the next use tells it
    openDumping(*app, 1, 4);
    clearHeaderMetaDataFlags();
    announceHttpHeader(host);
    EXPECT_EQ(host->told, kHeaderUntold);
}

}  // namespace
}  // namespace vx::test
