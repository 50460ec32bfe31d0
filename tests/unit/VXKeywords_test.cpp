#include "commonlibc/VXKeywords.h"

#include <cstring>
#include <string>
#include <vector>

#include "commonlibc/VXKeywordPass.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_word.h"
#include "tests/support/app_fixture.h"
#include "tests/support/by_name.h"
#include "tests/support/shared_texts.h"

namespace vx::test {
namespace {

class Keywords : public AppFixture {
protected:
    void TearDown() override {
        for (char*& text : app->keywords.text) VXLB_FREE(std::exchange(text, nullptr), "keyword text", -1);
        vxUpcalls = VXUpcalls{};
        AppFixture::TearDown();
    }
    void apply(const std::string& keyword, std::string value) {
        const int index = NameToIndex(keyword.c_str());
        ASSERT_GE(index, 0) << keyword;
        vxApplyKeyword(index, value.data(), keyword.c_str());
    }
    static std::string kept(const char* keyword) {
        char text[8192];
        vxKeywordText(NameToIndex(keyword), text, sizeof(text));
        return text;
    }
    static void start(const std::string& fields) {
        findStatusFromClientMsg(("vx_control_req:action=start_instrumentation;" + fields).c_str());
    }
};

TEST_F(Keywords, StandInTheOrderThatTheirIndicesPromise) {
    const std::vector<std::pair<int, const char*>> rows = {
        {0, "BTRuleConfig"},           {3, "status"},
        {4, "TimeStampDiff"},          {5, "fpVersionID"},
        {8, "numInstrProfile"},        {12, "enableForcedFPChain"},
        {54, "maxCharInSeqBlob"},      {55, "instrProfile"},
        {66, "VXJTFlushInterval"},     {67, "HTTPStatsCondCfg"},
        {80, "vxFlowpathMasks"},       {112, "vxDynamicDiagnosticsConfFile"},
        {113, "captureHTTPReqFullFp"}, {139, "enableDCHeartBeat"}};
    for (const auto& [index, name] : rows) EXPECT_EQ(NameToIndex(name), index) << name;
    EXPECT_EQ(NameToIndex("Status"), -1);
    EXPECT_EQ(NameToIndex(""), -1);
    EXPECT_EQ(NameToIndex("statu"), -1);
}

TEST_F(Keywords, NumbersKeepToTheWidthOfTheirMember) {
    VXSys_t& sys = app->VXSys;
    std::memset(&sys.captureMethodForAllFP, 0x55, 2);
    sys.maxHttpBodySize = 0x55555555;
    sys.vxAgentDebugSession = 0x55;
    apply("vxEnableDebugMode", "-1");
    EXPECT_EQ(sys.vxEnableDebugMode, 0xFF);
    EXPECT_EQ(sys.captureMethodForAllFP, 0x5555);
    EXPECT_EQ(sys.maxHttpBodySize, 0x55555555);
    apply("captureMethodForAllFP", "-1");
    EXPECT_EQ(sys.captureMethodForAllFP, -1);
    EXPECT_EQ(sys.vxEnableDebugMode, 0xFF);

    apply("bciDataBufferMaxSize", "-1");
    EXPECT_EQ(sys.bciDataBufferMaxSize, -1);
    EXPECT_EQ(sys.bciDataBufferMaxCount, 1000);
    apply("vxcHeartBeatThreshold", "-1");
    EXPECT_EQ(sys.vxcHeartBeatThreshold, -1);
    EXPECT_EQ(sys.vxAgentDebugSession, 0x55);
    apply("autoInstrPct", "12.5");
    EXPECT_EQ(app->VXAutoInstrumentation.autoInstrPct, 12.5);
    EXPECT_EQ(app->VXAutoInstrumentation.autoInstrSampleThreshold, 0);
}

TEST_F(Keywords, NumbersThatDoNotFitStopAtTheLimit) {
    apply("tierID", "99999999999999999999");
    EXPECT_EQ(app->VXBCISetting.tierID, 2147483647);
    apply("tierID", "-3000000000");
    EXPECT_EQ(app->VXBCISetting.tierID, -2147483647 - 1);
    apply("tierID", "word");
    EXPECT_EQ(app->VXBCISetting.tierID, 0);
}

TEST_F(Keywords, TextsEndInsideTheirMember) {
    app->Server.TimeStampDiff = 77;
    app->Server.numInstrProfile = 88;
    apply("fpVersionID", "12345678901234567890");
    EXPECT_STREQ(app->Server.fpVersionID, "123456789");
    EXPECT_EQ(app->Server.numInstrProfile, 88);
    apply("fpVersionID", "2");
    EXPECT_EQ(std::string(app->Server.fpVersionID, 10), std::string("2\0\0\0\0\0\0\0\0\0", 10));
    apply("status", std::string(100, 's'));
    EXPECT_EQ(std::string(app->Server.status), std::string(63, 's'));
    EXPECT_EQ(app->Server.TimeStampDiff, 77);
    apply("fileBasedKeywordMode", "1x");
    EXPECT_EQ(app->VXBCISetting.fileBasedKeywordMode, '1');
}

TEST_F(Keywords, AValueOutsideItsRangeLeavesTheEarlierOne) {
    struct Row {
        const char *keyword, *value;
        std::int32_t VXSys_t::*member;
        std::int32_t expected;
    };
    const Row rows[] = {
        {"enableDCHeartBeat", "0", &VXSys_t::dataHeartbeatInterval, 300},
        {"enableDCHeartBeat", "3601", &VXSys_t::dataHeartbeatInterval, 300},
        {"enableDCHeartBeat", "3600", &VXSys_t::dataHeartbeatInterval, 3600},
        {"enableDCHeartBeat", "1", &VXSys_t::dataHeartbeatInterval, 1},
        {"maxExceptionMessageLength", "0", &VXSys_t::maxExceptionMessageLength, 1000},
        {"maxExceptionMessageLength", "12", &VXSys_t::maxExceptionMessageLength, 12},
        {"vxVectorSeparator", "", &VXSys_t::vxVectorSeparator, '_'},
        {"vxVectorSeparator", "|", &VXSys_t::vxVectorSeparator, '|'},
        {"enableGCMonitor", "2", &VXSys_t::enableGCMonitor, 0},
        {"enableGCMonitor", "1", &VXSys_t::enableGCMonitor, 1},
        {"vxMonitorInterval", "-5", &VXSys_t::vxMonitorIntervalInSec, 10},
        {"vxMonitorInterval", "0", &VXSys_t::vxMonitorIntervalInSec, 10},
        {"vxMonitorInterval", "20", &VXSys_t::vxMonitorIntervalInSec, 20},
        {"vxMonitorInterval", "30500", &VXSys_t::vxMonitorIntervalInSec, 30},
    };
    for (const Row& row : rows) {
        apply(row.keyword, row.value);
        EXPECT_EQ(vx_word_get(app->VXSys.*row.member), row.expected) << row.keyword << '=' << row.value;
    }
    apply("ASReportInterval", "-1");
    EXPECT_EQ(app->VXSys.ASReportInterval, 10000);
    apply("ASReportInterval", "400");  // below the sample interval, taken all the same
    EXPECT_EQ(app->VXSys.ASReportInterval, 400);
}

TEST_F(Keywords, ATestRunThatChangesAsksForTheMetadata) {
    apply("testIdx", "7");
    EXPECT_EQ(app->VXBCISetting.testRunIndex, 7);
    EXPECT_EQ(app->Server.doNotDumpMetaData, 1);
    EXPECT_EQ(app->Server.sameTestRun, 0);
    apply("testIdx", "7");
    EXPECT_EQ(app->Server.doNotDumpMetaData, 0);
    EXPECT_EQ(app->Server.sameTestRun, 1);
}

TEST_F(Keywords, AValueForALaterUnitIsKeptAsText) {
    EXPECT_EQ(kept("instrExceptions"), "");
    apply("instrExceptions", "1%201");
    EXPECT_EQ(kept("instrExceptions"), "1%201");
    apply("instrExceptions", std::string(10000, 'e'));
    EXPECT_EQ(kept("instrExceptions"), std::string(4095, 'e'));
    char small[4];
    EXPECT_EQ(vxKeywordText(NameToIndex("instrExceptions"), small, sizeof(small)), 3);
    EXPECT_STREQ(small, "eee");
    apply("enableOTELStandard", "1%202%203");  // 9 fields are due
    EXPECT_EQ(kept("enableOTELStandard"), "");
}

TEST_F(Keywords, DefaultsAreThoseOfAFreshContext) {
    VXSys_t& sys = app->VXSys;
    app->Server.numInstrProfile = 3;
    start(
        "bciDataBufferMaxSize=1;bciInstrSessionPct=50;vxcHeartBeatThreshold=5;enableDCHeartBeat=9;"
        "fpVersionID=9;maxExceptionMessageLength=4;vxHelperDepth=9;ASDataBufferMinCount=9;AgentTraceLevel=2;"
        "tierID=4;");
    EXPECT_EQ(sys.vxHelperDepth, 9);
    setdefaultValues();

    auto* const changed = app;
    app = vxNewApplication();
    app->pool = changed->pool;
    vxSetCurrent(app);
    VXSysInit("proxy");
    const VXSys_t& fresh = app->VXSys;
    EXPECT_EQ(sys.bciDataBufferMaxSize, fresh.bciDataBufferMaxSize);
    EXPECT_EQ(sys.bciInstrSessionPct, fresh.bciInstrSessionPct);
    EXPECT_EQ(sys.vxcHeartBeatThreshold, fresh.vxcHeartBeatThreshold);
    EXPECT_EQ(sys.dataHeartbeatInterval, fresh.dataHeartbeatInterval);
    EXPECT_EQ(sys.maxExceptionMessageLength, fresh.maxExceptionMessageLength);
    EXPECT_EQ(sys.vxHelperDepth, fresh.vxHelperDepth);
    EXPECT_EQ(sys.hashMapClearTime, fresh.hashMapClearTime);
    EXPECT_EQ(sys.vxHotspotThreadLimit, fresh.vxHotspotThreadLimit);
    EXPECT_EQ(sys.maxHttpBodySize, fresh.maxHttpBodySize);
    EXPECT_EQ(sys.bciMaxNonServiceMethodsPerFP, fresh.bciMaxNonServiceMethodsPerFP);
    EXPECT_EQ(sys.ASDataBufferMinCount, fresh.ASDataBufferMinCount);
    EXPECT_STREQ(changed->Server.fpVersionID, app->Server.fpVersionID);
    freeSharedTexts(*app);
    vxFreeApplication(app);
    app = changed;
    vxSetCurrent(app);

    EXPECT_EQ(sys.AgentTraceLevel, 2);  // not of one run
    EXPECT_EQ(app->VXBCISetting.tierID, 4);
}

struct PassRow {
    const char* name;
    const char* line;
    std::int32_t tier, server, application;
    const char* status;
};
class KeywordPass : public Keywords, public testing::WithParamInterface<PassRow> {};

TEST_P(KeywordPass, AppliesFieldsUpToTheOneThatEndsIt) {
    findStatusFromClientMsg(GetParam().line);
    EXPECT_EQ(app->VXBCISetting.tierID, GetParam().tier);
    EXPECT_EQ(app->VXBCISetting.vxAppServerID, GetParam().server);
    EXPECT_EQ(app->VXBCISetting.appID, GetParam().application);
    EXPECT_STREQ(app->Server.status, GetParam().status);
}
INSTANTIATE_TEST_SUITE_P(
    Lines, KeywordPass,
    testing::ValuesIn<PassRow>({
        {"start",
         "vx_control_req:action=start_instrumentation;tierID=1;vxAppServerID=2;appID=3;status=running;", 1, 2,
         3, "running"},
        {"modify", "vx_control_req:action=modify;tierID=1;vxAppServerID=2;appID=3", 1, 2, 3, ""},
        {"unknown_names_are_skipped", "vx_control_req:action=modify;tierid=9;tierID=1;x=;appID=3", 1, 0, 3,
         ""},
        {"a_field_without_equals_ends_it", "vx_control_req:action=modify;tierID=1;word;appID=3", 1, 0, 0, ""},
        {"a_field_without_key_ends_it", "vx_control_req:action=modify;tierID=1;=5;appID=3", 1, 0, 0, ""},
        {"a_status_without_equals_ends_it",
         "vx_control_req:action=stop_instrumentation;status;status=running", 0, 0, 0, ""},
        {"other_lines_set_the_status_only",
         "vx_control_req:action=stop_instrumentation;tierID=1;status=Stopping", 0, 0, 0, "Stopping"},
        {"empty", "", 0, 0, 0, ""},
    }),
    byName);

TEST_F(Keywords, AStartLineChangesNothingWhileADataConnectionStands) {
    app->data.controlCommunicationBusyFlag = 1;
    start("tierID=5;status=running;");
    EXPECT_EQ(app->VXBCISetting.tierID, 0);
    EXPECT_STREQ(app->Server.status, "running");
    findStatusFromClientMsg("vx_control_req:action=modify;tierID=6;");
    EXPECT_EQ(app->VXBCISetting.tierID, 6);
}

TEST_F(Keywords, AnEpochBaseArrivesInSecondsAndIsHeldInMilliseconds) {
    start("zorEpochDiff=1600000000;");
    EXPECT_EQ(app->Server.zorEpochDiff, 1600000000000);
    EXPECT_EQ(app->Server.originalZorEpochDiff, 1600000000000);
    EXPECT_EQ(app->Server.epochDiffGiven, 1);
    start("zorEpochDiff=0;");
    EXPECT_EQ(app->Server.epochDiffGiven, 0);
    start("zorEpochDiff=9223372036854775807;");
    EXPECT_GT(app->Server.zorEpochDiff, 0);
}

}  // namespace
}  // namespace vx::test
