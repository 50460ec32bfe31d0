#include "commonlibc/flowpath/VXFlowpathGenerator.h"

#include "commonlibc/flowpath/VXManageTierCallOut.h"
#include "commonlibc/flowpath/VXMethodTrace.h"
#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

class Transactions : public FlowpathFixture {
protected:
    void SetUp() override {
        FlowpathFixture::SetUp();
        setRule("1|1|Default|Complete-URL|-|0|-|-|-");
        app->decoder.readTimeUs = atMs(kNowMs);
    }
    static VXStartArguments arguments(const char* number = "1234", const char* cookie = nullptr) {
        return {number, "/shop", nullptr, cookie, nullptr, nullptr, -1, atMs(5000), 9};
    }
    // A transaction whose slot's 7 record is out of the way.
    vxTD* start(const VXStartArguments& with = arguments()) {
        vxTD* slot = startFP(with);
        if (slot) clearDumped(*app);
        return slot;
    }
};

TEST_F(Transactions, LiveFromStartToEndInTwoRecords) {
    vxTD* slot = start();
    vxMethodEntry(slot, {"A.a", 3, nullptr, nullptr, 0, atMs(5010), nullptr, 0});
    vxMethodExit(slot, {"A.a", 3, 4, -1, nullptr, 7000, 0, 0, nullptr, atMs(5017), 0});
    EXPECT_TRUE(flowpathRecords().empty());
    endFP(slot, 201, atMs(5100), 50, 6);
    EXPECT_EQ(flowpathRecords(), (Records{"2,1234,5,9,9.1,2,/shop,,1234,0,0,,0,-1,,,,5000",
                                          "4,1234,201,10,50,100,2,0,,6,"
                                          "1:0_0_0__3:9_0_10__3:9_1_7_4___1:0_1_100_50___"}));
    EXPECT_EQ(app->method.methodHashMapNode.load()->flowpathCount, 0);
    EXPECT_EQ(vxAggSlot(app->bt.aggDataArr, 2)->counters.normal.count, 1);
}

TEST_F(Transactions, StartOnlyInARunThatIsNotStopping) {
    app->Server.stopping = 1;
    EXPECT_EQ(startFP(arguments()), nullptr);
    app->Server.stopping = 0;
    app->Server.testRunRunning = 0;
    EXPECT_EQ(startFP(arguments()), nullptr);
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 0);
}

TEST_F(Transactions, StartFillsWhatTheMessageLeavesOpen) {
    vxTD* slot = start({nullptr, "", nullptr, nullptr, "11-0-0-22", "corr", 17, 0, 0});
    EXPECT_EQ(slot->startTimeRel, kNowMs);
    EXPECT_EQ(slot->lastActivityTime, kNowMs);
    EXPECT_EQ(slot->threadId, vxlb_get_tid());
    EXPECT_EQ(slot->startArgument, 17);
    EXPECT_EQ(slot->kwSessionId, 11);
    EXPECT_STREQ(slot->correlationHeader, "corr");
    EXPECT_STREQ(slot->tlURl, "UnknownUrl");
    EXPECT_EQ(slot->flowpathInstanceStr, std::to_string(slot->flowpathInstance));
}

TEST_F(Transactions, TakeTheAgentsInstanceOrAGeneratedOne) {
    const struct {
        const char* text;
        std::int64_t instance;
        bool forced;
        std::int64_t previous;
    } rows[] = {
        {"1234", 1234, false, 0}, {"1234F", 1234, true, 0},        {"5", 4097, false, 0},
        {"", 4097, false, 0},     {"55_66_7_NA", 4097, false, 55}, {"55_66_7f_NA", 4097, true, 55},
    };
    app->Server.timeStampMask = 0;
    app->Server.flowPathInstanceInitialID = 4096;
    for (const auto& row : rows) {
        app->Server.flowpathCounter = 0;
        const vxTD* slot = start(arguments(row.text));
        EXPECT_EQ(slot->flowpathInstance, row.instance) << row.text;
        EXPECT_EQ(slot->tlForcedFP, row.forced) << row.text;
        EXPECT_EQ(slot->prevFlowpath, row.previous) << row.text;
    }
}

TEST_F(Transactions, AreCapturedByPercentForceAndKeyword) {
    const struct {
        std::int32_t percent;
        int all, forced;
        std::uint8_t byte;
        bool captured;
    } rows[] = {
        {100, 0, 0, 255, true}, {0, 0, 0, 0, false}, {30, 0, 0, 229, true}, {30, 0, 0, 230, false},
        {30, 0, 1, 230, true},  {0, 0, 1, 0, true},  {0, 1, 0, 0, true},    {-1, 1, 0, 0, false},
    };
    vxTD* slot = takeSlot();
    for (const auto& row : rows) {
        vx_word_set(app->VXSys.bciInstrSessionPct, row.percent);
        vx_word_set(app->VXSys.captureMethodForAllFP, row.all);
        clock.setRandomByte(row.byte);
        slot->tlForcedFP = static_cast<std::uint8_t>(row.forced);
        setFPCaptured(slot);
        EXPECT_EQ(slot->tlIsFPCaptured, row.captured) << row.percent << "%, byte " << int{row.byte};
    }
}

TEST_F(Transactions, InheritTheirSessionUntilItExpires) {
    const struct {
        const char* cookie;  // the flowpath 1234 starts at 2,000,000 ms
        bool captured;
        std::int64_t sessionFP, parentFP;
        std::int32_t count;
    } rows[] = {
        {"", false, 1234, 1234, 1},                    // the first of a session
        {"88-1-1999000-1-0-0-2", true, 88, 88, 3},     // live
        {"88-1-1999000-0-0-0-2", false, 88, 88, 3},    // live, not captured
        {"88-1-200001-1-0-0-2", true, 88, 88, 3},      // just not idle for 1,800 s
        {"88-1-200000-1-0-0-2", false, 1234, 88, 1},   // idle
        {"88-1-1999000-1-0-0-3", true, 88, 88, 4},     // count at its limit
        {"88-1-1999000-1-0-0-4", false, 1234, 88, 1},  // beyond it
        {"-", false, 1234, 1234, 1},                   // no cookie
    };
    vx_word_set(app->VXSys.bciInstrSessionPct, 0);  // a new draw captures nothing
    vx_word_set(app->VXSys.maxFPCountInSession, 4);
    for (const auto& row : rows) {
        VXStartArguments with = arguments("1234", row.cookie);
        with.startTime = atMs(2000000);
        const vxTD* slot = start(with);
        EXPECT_EQ(slot->tlIsFPCaptured, row.captured) << row.cookie;
        EXPECT_EQ(slot->sessionFP, row.sessionFP) << row.cookie;
        EXPECT_EQ(slot->parentFP, row.parentFP) << row.cookie;
        EXPECT_EQ(slot->totalFpcount, row.count) << row.cookie;
    }
    EXPECT_TRUE(start(arguments("1234F", "88-1-5000-0-0-0-2"))->tlIsFPCaptured);
}

TEST_F(Transactions, UrlsAreCutIntoPathAndQuery) {
    const auto many = [](char byte, std::size_t count) { return std::string(count, byte); };
    const struct {
        std::string text, url, query;
    } rows[] = {
        {"/shop?a=1?b|GET", "/shop", "a=1?b"},
        {"/shop|GET?x", "/shop", ""},
        {"", "UnknownUrl", ""},
        {many('u', 600) + "?" + many('q', 600) + "|" + many('m', 600), many('u', 511), many('q', 511)},
    };
    for (const auto& row : rows) {
        vxTD* slot = takeSlot();
        setBTObjInThreadLocal(slot, row.text.c_str(), nullptr);
        EXPECT_EQ(slot->tlURl, row.url);
        EXPECT_EQ(slot->uRLParameters, row.query);
    }
}

TEST_F(Transactions, AUrlIsReplacedOnceAndOnlyByARealOne) {
    vxTD* slot = takeSlot();
    for (const char* url : {"", "UnknownUrl", "/shop", "/other"}) setBTObjInThreadLocal(slot, url, nullptr);
    EXPECT_STREQ(slot->tlURl, "/shop");
    EXPECT_STREQ(slot->tlBTObj->btName, "/shop");
    vxTD* out = takeSlot();
    setURLInThreadLocal(out, nullptr);
    out->fpHeaderDumped = 1;
    setURLInThreadLocal(out, "/shop");
    EXPECT_STREQ(out->tlURl, "UnknownUrl");
}

TEST_F(Transactions, ThresholdsForAllReplaceTheBtsOwnWhileConnected) {
    BTObject* bt = start()->tlBTObj;
    app->bt.allSlowThreshold = 70;
    app->bt.allVerySlowThreshold = 80;
    start();
    EXPECT_EQ(bt->slowThreshold, 3000);
    app->Server.isTenRecordDump = 1;
    start();
    EXPECT_EQ(bt->slowThreshold, 70);
    EXPECT_EQ(bt->verySlowThreshold, 80);

    bt->ownThresholds = 1;
    app->bt.allSlowThreshold = 75;
    start();
    EXPECT_EQ(bt->slowThreshold, 70) << "it has thresholds of its own";
}

TEST_F(Transactions, WithoutBtTheyLeaveNothing) {
    rulesAre("7|excluded|0|1|*|1");
    vxTD* slot = start();
    EXPECT_TRUE(slot->tlIsFPExcluded);
    endFP(slot, 200, atMs(5100), 0, 0);
    EXPECT_TRUE(flowpathRecords().empty());
    EXPECT_EQ(slot->sequenceBlobLen, 0);
    reset(slot);
    EXPECT_EQ(app->method.methodHashMapNode.load()->flowpathCount, 0);
}

TEST_F(Transactions, CapturedForSlownessOnlyTheNormalOnesLeaveNothing) {
    vx_word_set(app->VXSys.bciInstrSessionPct, 0);
    vx_word_set(app->VXSys.captureMethodForAllFP, 1);
    endFP(start(), 200, atMs(5100), 0, 0);
    EXPECT_TRUE(flowpathRecords().empty());
    endFP(start(), 200, atMs(8000), 0, 0);
    EXPECT_EQ(flowpathRecords().size(), 2U);
}

TEST_F(Transactions, DurationAndCategoryFollowTheEnd) {
    const struct {
        std::int64_t startMs, endMs;  // end 0: the message gives none; the clock stands at 600,000 ms
        std::int32_t status;
        std::int64_t duration;
        std::int32_t category;
    } rows[] = {
        {5000, 7999, 200, 2999, 10}, {5000, 8000, 200, 3000, 11}, {5000, 10000, 200, 5000, 12},
        {5000, 5001, 500, 1, 13},    {599990, 0, 200, 10, 10},    {599990, 500000, 200, 10, 10},
    };
    app->VXBCISetting.btErrorArray[500] = 'F';
    for (const auto& row : rows) {
        VXStartArguments with = arguments();
        with.startTime = atMs(row.startMs);
        vxTD* slot = start(with);
        endFP(slot, row.status, row.endMs ? atMs(row.endMs) : 0, -5, 0);
        EXPECT_EQ(slot->fpDuration, row.duration) << row.endMs;
        EXPECT_EQ(slot->tlCategory, row.category) << row.endMs;
        EXPECT_EQ(slot->fpCPUTime, 0);
    }
}

TEST_F(Transactions, EndsAreIgnoredWithoutSlotOrRun) {
    endFP(nullptr, 200, 0, 0, 0);
    reset(nullptr);
    dumpIncompleteFPAtTestStop(nullptr);
    vxTD* slot = start();
    app->Server.testRunRunning = 0;
    endFP(slot, 404, 0, 0, 0);
    reset(slot);
    EXPECT_TRUE(slot->inUse && !slot->fpEnded && slot->statusCode == 200);
}

TEST_F(Transactions, TheEndOfATestWritesWhatIsThereAndDebugData) {
    vx_word_set(app->VXSys.vxEnableDebugMode, 1);
    dumpIncompleteFPAtTestStop(start());
    const Records records = flowpathRecords();
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0], "2,1234,5,9,9.1,2,/shop,,1234,0,0,,7,-1,,,,5000");
    EXPECT_EQ(records[1], "4,1234,200,12,0,595000,2,7,,0,1:0_0_0__");
    EXPECT_TRUE(records[2].starts_with("100,1234,1:0_0_0_0x")) << records[2];
}

}  // namespace
}  // namespace vx::test
