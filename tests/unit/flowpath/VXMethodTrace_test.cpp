#include "commonlibc/flowpath/VXMethodTrace.h"

#include "commonlibc/flowpath/VXFlowpathRecords.h"
#include "commonlibc/http/VXHttpHeaderMap.h"
#include "tests/support/method_fixture.h"

namespace vx::test {
namespace {

constexpr const char* kPhaseMethod = "System.Web.HttpRuntime.ProcessRequestNotificationPrivate";

class MethodTrace : public MethodFixture {};

TEST_F(MethodTrace, EntryAndExitBecomeItemsInOrder) {
    enter("A.a");
    enter("B.b");
    leave("B.b", 201, 20);
    leave("A.a");
    EXPECT_EQ(takeBlob(), "3:9_0_15__4:9_0_15__4:9_1_7_20___3:9_1_7____");
    EXPECT_TRUE(slot->nonServiceMethodCount == 2 && slot->seqNo == 2 && slot->statusCode == 201);
    vxMethodEntry(slot, {"A.a", 3, nullptr, nullptr, 31, 0, nullptr, 0});           // now, on its own thread
    vxMethodEntry(slot, {"A.a", 3, nullptr, nullptr, 31, atMs(4000), nullptr, 0});  // before the start
    EXPECT_EQ(takeBlob(), "3:31_0_595000__3:31_0_0__");
    app->data.data_thread_running = 1;
    clearDumped(*app);
    for (int i = 0; i < 2; ++i) enter("C.c");
    EXPECT_EQ(dumpedRecords(*app), Records{"5,C.c,5"}) << "described once";
}

TEST_F(MethodTrace, ExitWithoutEntryLeavesNothingButTheStatusAndWithoutARunNothing) {
    enter("A.a");
    leave("A.a");
    takeBlob();
    leave("A.a", 503);
    EXPECT_TRUE(takeBlob().empty() && slot->seqNo == 1 && slot->statusCode == 503);
    declare("Far.away", 0)->methodId = 8192;
    leave("Far.away");  // ids from 8192 on are not counted
    EXPECT_EQ(takeBlob(), "8192:9_1_7____");
    app->Server.testRunRunning = 0;
    enter("B.b");
    leave("B.b", 404);
    EXPECT_TRUE(!getMethodPropFromMethodName("B.b") && slot->statusCode == 503);
}

TEST_F(MethodTrace, ItemsAreWrittenByCaptureAndSubtype) {
    const struct {
        bool captured, excluded;
        std::uint8_t subtype;
        const char* items;
    } rows[] = {
        {1, 0, 1, "3:9_0_15__3:9_1_7____"}, {0, 0, 1, ""},   {0, 0, '#', "3:9_0_15__"},
        {0, 0, 4, "3:9_1_7____"},           {1, 1, '#', ""},
    };
    mPP* method = declare("A.a", 0);
    for (const auto& row : rows) {
        method->subtype = row.subtype;
        slot->tlIsFPCaptured = row.captured;
        slot->tlIsFPExcluded = row.excluded;
        enter("A.a");
        leave("A.a");
        EXPECT_EQ(takeBlob(), row.items) << "subtype " << int{row.subtype};
    }
}

TEST_F(MethodTrace, MethodsBeyondTheDepthLimitLeaveNoItem) {
    vx_word_set(app->VXSys.bciMaxNonServiceMethodsPerFP, 1);
    declare("Entry.point", kMethodEntryPoint);
    enter("A.a");
    enter("B.b");
    enter("Entry.point");
    leave("B.b");
    leave("A.a");
    EXPECT_EQ(takeBlob(), "4:9_0_15__4:9_1_7____");
    EXPECT_TRUE(slot->nonServiceMethodCount == 1 && slot->entryPointCount == 1 && slot->seqNo == 1);
}

TEST_F(MethodTrace, AgentTypesAndKeywordsShapeTheItems) {
    declare("A.a", 0)->urlFlag = 1;
    enter("A.a", "/pay\n1", "x=1");
    EXPECT_EQ(takeBlob(), "3:9:1:/pay 1_0_15__");
    EXPECT_STREQ(slot->uRLParameters, "x=1");

    declare("Skipped.one", 0)->skipFlag2 = 1;
    app->VXBCISetting.agentTypeCode = kAgentPhp;
    enter("Skipped.one");
    EXPECT_EQ(takeBlob(), "");

    app->VXBCISetting.agentTypeCode = kAgentGo;
    leave("A.a", -1, 20);
    EXPECT_EQ(takeBlob(), "3:9_1_7_0___");

    vx_word_set(app->VXSys.enableProcessNotificationPhase, 1);
    enter(kPhaseMethod);
    leave(kPhaseMethod, -1, -1, "Begin");
    EXPECT_EQ(takeBlob(), "5:9_0_15__5:9_1:2_7_0___");
    EXPECT_TRUE(flowpathRecords().empty());

    searchAndUpdatehttpHashMapNode("Host", initHttpHashMapNode());
    searchAndUpdatehttpHashMapNode("Custom_Header", app->http.headers);
    enter(kPhaseMethod);
    leave(kPhaseMethod, -1, -1, "Begin\n");
    EXPECT_EQ(takeBlob(), "5:9_0_15__5:9_1:4_7_0___");
    leave(kPhaseMethod, -1, -1, "without an entry");
    EXPECT_EQ(flowpathRecords(), Records{"19,77,2:5:4:2:1:<Begin >|"});
    clearDumped(*app);
    dump19RecordForSpecificMethodArg(slot, 5, std::string(2000, 'p').c_str());
    EXPECT_EQ(dumpedText(*app).size(), 1023U);
}

}  // namespace
}  // namespace vx::test
