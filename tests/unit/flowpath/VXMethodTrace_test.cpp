#include "commonlibc/flowpath/VXMethodTrace.h"

#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

constexpr const char* kPhaseMethod = "System.Web.HttpRuntime.ProcessRequestNotificationPrivate";

// Methods get ids from 3 on; 1 and 2 are the instance's own.
class MethodTrace : public FlowpathFixture {
protected:
    void SetUp() override {
        FlowpathFixture::SetUp();
        slot = takeSlotWithBt();
        takeMethodTable(slot);
    }
    void enter(const std::string& name, const char* url = nullptr, const char* parameters = nullptr) {
        vxMethodEntry(slot, {name.c_str(), name.size(), url, parameters, 0, atMs(5015), nullptr, 0});
    }
    void leave(const std::string& name, std::int32_t status = -1, std::int64_t cpu = -1,
               const char* phase = "") {
        vxMethodExit(slot, {name.c_str(), name.size(), cpu, status, nullptr, 7999, 0, 0, phase, 0, 0});
    }
    std::string takeBlob() {
        const std::string items = blobOf(slot);
        slot->sequenceBlobLen = 0;
        return items;
    }
    // Makes a method known before it is reported.
    mPP* declare(const char* name, std::uint32_t flags, std::uint8_t type = 0, std::uint8_t subtype = 1) {
        const VXMethodLock lock;
        mPP* made = updateMethodHashMap(name, type, app->method.methodHashMapNode.load()->map, subtype);
        made->isEntryPointPtr = flags;
        return made;
    }

    vxTD* slot = nullptr;
};

TEST_F(MethodTrace, EntryAndExitBecomeItemsInOrder) {
    enter("A.a");
    enter("B.b");
    leave("B.b", 201, 20);
    leave("A.a");
    EXPECT_EQ(takeBlob(), "3:9_0_15__4:9_0_15__4:9_1_7_20___3:9_1_7____");
    EXPECT_EQ(slot->nonServiceMethodCount, 2);
    EXPECT_EQ(slot->seqNo, 2);
    EXPECT_EQ(slot->statusCode, 201);
    vxMethodEntry(slot, {"A.a", 3, nullptr, nullptr, 31, 0, nullptr, 0});           // now, on its own thread
    vxMethodEntry(slot, {"A.a", 3, nullptr, nullptr, 31, atMs(4000), nullptr, 0});  // before the start
    EXPECT_EQ(takeBlob(), "3:31_0_595000__3:31_0_0__");
}

TEST_F(MethodTrace, ExitWithoutEntryLeavesNothingButTheStatus) {
    enter("A.a");
    leave("A.a");
    takeBlob();
    leave("A.a", 503);
    leave("Never.met");
    EXPECT_EQ(takeBlob(), "");
    EXPECT_EQ(slot->seqNo, 1);
    EXPECT_EQ(slot->statusCode, 503);
    declare("Far.away", 0)->methodId = 8192;
    leave("Far.away");  // ids from 8192 on are not counted
    EXPECT_EQ(takeBlob(), "8192:9_1_7____");
}

TEST_F(MethodTrace, AMethodIsDescribedOnceWhileADataThreadRuns) {
    enter("Early.one");
    app->data.data_thread_running = 1;
    for (int i = 0; i < 2; ++i) {
        enter("A.a");
        leave("A.a");
    }
    EXPECT_EQ(dumpedRecords(*app), Records{"5,A.a,4"});
}

TEST_F(MethodTrace, MissingNamesSlotsAndRunsAreIgnored) {
    vxMethodEntry(slot, {nullptr, 0, nullptr, nullptr, 0, 0, nullptr, 0});
    vxMethodExit(slot, {nullptr, 0, -1, 404, nullptr, 0, 0, 0, nullptr, 0, 0});
    vxMethodEntry(nullptr, {"A.a", 3, nullptr, nullptr, 0, 0, nullptr, 0});
    vxMethodExit(nullptr, {"A.a", 3, -1, 404, nullptr, 0, 0, 0, nullptr, 0, 0});
    app->Server.testRunRunning = 0;
    enter("A.a");
    leave("A.a", 404);
    EXPECT_EQ(getMethodPropFromMethodName("A.a"), nullptr);
    EXPECT_EQ(slot->statusCode, 200);
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
    EXPECT_EQ(slot->entryPointCount, 1);
    EXPECT_EQ(slot->nonServiceMethodCount, 2);
    leave("B.b");
    leave("A.a");
    EXPECT_EQ(takeBlob(), "4:9_0_15__4:9_1_7____");
    EXPECT_EQ(slot->nonServiceMethodCount, 1);
    EXPECT_EQ(slot->seqNo, 1);
}

TEST_F(MethodTrace, AgentTypesAndKeywordsShapeTheItems) {
    declare("A.a", 0)->urlFlag = 1;
    enter("A.a", "/pay", "x=1");
    EXPECT_EQ(takeBlob(), "3:9:1:/pay_0_15__");
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
}

TEST_F(MethodTrace, CalloutsGetAKeyWhileTracesAreTied) {
    mPP* callout = declare("Http.call", kMethodBackend, kTypeHttp, 3);
    enter("Http.call");
    EXPECT_STREQ(slot->calloutKey, "");
    vx_word_set(app->VXSys.otelEnabled, 1);
    app->Server.timeStampMask = 0;
    app->Server.flowPathInstanceInitialID = 0xabc0;
    enter("Http.call");
    EXPECT_EQ(slot->httpCallOutDepth, 2);
    EXPECT_STREQ(slot->calloutKey, "abc1");
    EXPECT_STREQ(callout->calloutKey, "abc1");
}

}  // namespace
}  // namespace vx::test
