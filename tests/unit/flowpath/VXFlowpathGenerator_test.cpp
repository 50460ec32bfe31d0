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

TEST_F(Transactions, UrlsAreCutIntoPathAndQueryAndReplacedOnceByARealOne) {
    const std::string wide(600, 'w');
    vxTD* slot = takeSlot();
    for (const std::string& url : {std::string(), std::string("UnknownUrl"),
                                   "/" + wide + "?" + wide + "?b|" + wide, std::string("/other")})
        setBTObjInThreadLocal(slot, url.c_str(), nullptr);
    EXPECT_EQ(slot->tlURl, "/" + wide.substr(0, 510));
    EXPECT_EQ(slot->uRLParameters, wide.substr(0, 511));
    slot = takeSlot();
    setBTObjInThreadLocal(slot, "/shop|GET?x", nullptr);
    EXPECT_EQ(std::string(slot->tlURl) + slot->uRLParameters, "/shop");
}

TEST_F(Transactions, StartAndEndOnlyInARunThatIsNotStopping) {
    vxTD* slot = start({nullptr, "", nullptr, nullptr, "11-0-0-22", "corr", 17, 0, 0});
    EXPECT_TRUE(slot->startTimeRel == kNowMs && slot->threadId == vxlb_get_tid())
        << "the message leaves both open";
    EXPECT_TRUE(slot->lastActivityTime == clock.steadyMs() && slot->kwSessionId == 11);
    app->Server.stopping = 1;
    EXPECT_EQ(startFP(arguments()), nullptr);
    app->Server.stopping = app->Server.testRunRunning = 0;
    EXPECT_EQ(startFP(arguments()), nullptr);
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 1);
    endFP(slot, 404, 0, 0, 0);
    reset(slot);
    EXPECT_TRUE(slot->inUse && !slot->fpEnded && slot->statusCode == 200);
}

TEST_F(Transactions, TakeTheAgentsInstanceOrAGeneratedOne) {
    const struct {
        const char* text;
        std::int64_t instance;
        bool forced;
        std::int64_t previous;
    } rows[] = {
        {"1234F", 1234, true, 0},
        {"5", 4097, false, 0},
        {"55_66_7_NA", 4097, false, 55},
        {"55_66_7f_NA", 4097, true, 55},
    };
    app->Server.timeStampMask = 0;
    app->Server.flowPathInstanceInitialID = 4096;
    for (const auto& row : rows) {
        app->Server.flowpathCounter = 0;
        const vxTD* slot = start(arguments(row.text));
        EXPECT_TRUE(slot->flowpathInstance == row.instance && slot->tlForcedFP == row.forced) << row.text;
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
        {100, 0, 0, 255, true}, {30, 0, 0, 229, true}, {30, 0, 0, 230, false},
        {0, 0, 1, 0, true},     {0, 1, 0, 0, true},    {-1, 1, 0, 0, false},
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
        std::vector<std::int64_t> session;  // its flowpath, the parent's, the count
    } rows[] = {
        {"88-1-1999000-0-0-0-2", false, {88, 88, 3}},    // live, not captured
        {"88-1-200001-1-0-0-2", true, {88, 88, 3}},      // just not idle for 1,800 s
        {"88-1-200000-1-0-0-2", false, {1234, 88, 1}},   // idle
        {"88-1-1999000-1-0-0-3", true, {88, 88, 4}},     // count at its limit
        {"88-1-1999000-1-0-0-4", false, {1234, 88, 1}},  // beyond it
        {"-", false, {1234, 1234, 1}},                   // no cookie
    };
    vx_word_set(app->VXSys.bciInstrSessionPct, 0);  // a new draw captures nothing
    vx_word_set(app->VXSys.maxFPCountInSession, 4);
    for (const auto& row : rows) {
        VXStartArguments with = arguments("1234", row.cookie);
        with.startTime = atMs(2000000);
        const vxTD* slot = start(with);
        EXPECT_EQ(std::vector<std::int64_t>({slot->sessionFP, slot->parentFP, slot->totalFpcount}),
                  row.session)
            << row.cookie;
        EXPECT_EQ(slot->tlIsFPCaptured, row.captured) << row.cookie;
    }
    EXPECT_TRUE(start(arguments("1234F", "88-1-5000-0-0-0-2"))->tlIsFPCaptured);
}

TEST_F(Transactions, TakeTheThresholdsForAllWhileConnectedUnlessTheirBtHasItsOwn) {
    BTObject* bt = start()->tlBTObj;
    app->bt.allSlowThreshold = 70;
    app->bt.allVerySlowThreshold = 80;
    start();
    EXPECT_EQ(bt->slowThreshold, 3000);
    app->Server.isTenRecordDump = 1;
    start();
    EXPECT_TRUE(bt->slowThreshold == 70 && bt->verySlowThreshold == 80);
    bt->ownThresholds = 1;
    app->bt.allSlowThreshold = 75;
    start();
    EXPECT_EQ(bt->slowThreshold, 70);
}

TEST_F(Transactions, LastUntilTheEndThatIsGivenOrNow) {
    // The last ones: of an agent whose clock is ahead. Such a one took time away from the sums of its BT.
    const std::int64_t rows[][3] = {
        {5000, 8000, 3000}, {599990, 0, 10}, {599990, 500000, 10}, {602000, 602000, 0}, {602000, 0, 0}};
    for (const auto& [startMs, endMs, duration] : rows) {  // end 0: none is given; it is 600,000 now
        VXStartArguments with = arguments();
        with.startTime = atMs(startMs);
        vxTD* slot = start(with);
        app->Server.zorEpochDiff = kBaseMs + 3'600'000;  // a keyword has moved the base meanwhile,
        clock.setWall(endMs ? -3'600'000 : 3'600'000);   // and somebody has set the clock
        endFP(slot, 200, endMs ? atMs(endMs) : 0, -5, 0);
        app->Server.zorEpochDiff = kBaseMs;
        clock.setWall(endMs ? 3'600'000 : -3'600'000);
        EXPECT_TRUE(slot->fpDuration == duration && slot->fpCPUTime == 0) << endMs;
        EXPECT_EQ(slot->tlCategory, duration == 3000 ? 11 : 10);
        reset(slot);
        if (duration) continue;
        dumpIncompleteFPAtTestStop(slot = start(with));
        EXPECT_EQ(slot->fpDuration, 0);
    }
    EXPECT_EQ(vxAggSlot(app->bt.aggDataArr, 2)->counters.duration.total, 3020);
}

}  // namespace
}  // namespace vx::test
