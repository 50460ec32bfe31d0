#include "commonlibc/VXKeywords.h"

#include <cstring>
#include <string>

#include "commonlibc/VXKeywordPass.h"
#include "commonlibc/vxlb_word.h"
#include "tests/support/app_fixture.h"

namespace vx::test {
namespace {

class Keywords : public AppFixture {
protected:
    void apply(const std::string& keyword, std::string value) {
        const int index = NameToIndex(keyword.c_str());
        ASSERT_GE(index, 0) << keyword;
        vxApplyKeyword(index, value.data(), keyword.c_str());
    }
    static void start(const std::string& fields) {
        findStatusFromClientMsg(("vx_control_req:action=start_instrumentation;" + fields).c_str());
    }
};

// What stands beside a member of one or two bytes, or of a short text, stays as it is.
TEST_F(Keywords, AValueKeepsToTheWidthOfItsMember) {
    VXSys_t& sys = app->VXSys;
    std::memset(&sys.captureMethodForAllFP, 0x55, 2);
    sys.maxHttpBodySize = 0x55555555;
    apply("vxEnableDebugMode", "-1");
    EXPECT_EQ(sys.vxEnableDebugMode, 0xFF);
    EXPECT_EQ(sys.captureMethodForAllFP, 0x5555);
    EXPECT_EQ(sys.maxHttpBodySize, 0x55555555);
    apply("captureMethodForAllFP", "-1");
    EXPECT_EQ(sys.captureMethodForAllFP, -1);
    EXPECT_EQ(sys.vxEnableDebugMode, 0xFF);
    for (const auto& [text, tier] :
         {std::pair("99999999999999999999", 2147483647), {"-3000000000", -2147483647 - 1}, {"word", 0}}) {
        apply("tierID", text);
        EXPECT_EQ(app->VXBCISetting.tierID, tier);
    }
    app->Server.numInstrProfile = 88;
    apply("fpVersionID", "12345678901234567890");
    EXPECT_STREQ(app->Server.fpVersionID, "123456789");
    EXPECT_EQ(app->Server.numInstrProfile, 88);
    apply("fpVersionID", "2");
    EXPECT_EQ(std::string(app->Server.fpVersionID, 10), std::string("2\0\0\0\0\0\0\0\0\0", 10));
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
        {"maxExceptionMessageLength", "0", &VXSys_t::maxExceptionMessageLength, 1000},
        {"vxVectorSeparator", "", &VXSys_t::vxVectorSeparator, '_'},
        {"vxMonitorInterval", "0", &VXSys_t::vxMonitorIntervalInSec, 10},
        {"vxMonitorInterval", "30500", &VXSys_t::vxMonitorIntervalInSec, 30},
    };
    for (const Row& row : rows) {
        apply(row.keyword, row.value);
        EXPECT_EQ(vx_word_get(app->VXSys.*row.member), row.expected) << row.keyword << '=' << row.value;
    }
}

TEST_F(Keywords, ADefaultGoesBackByTheSameWayAndLeavesWhatIsNotOfOneRun) {
    const std::int32_t size = app->VXSys.bciDataBufferMaxSize, depth = app->VXSys.vxHelperDepth;
    start("bciDataBufferMaxSize=1;fpVersionID=9;vxHelperDepth=9;AgentTraceLevel=2;tierID=4;");
    EXPECT_EQ(app->VXSys.vxHelperDepth, 9);
    setdefaultValues();
    EXPECT_EQ(app->VXSys.bciDataBufferMaxSize, size);
    EXPECT_EQ(app->VXSys.vxHelperDepth, depth);
    EXPECT_STREQ(app->Server.fpVersionID, "1.0");
    EXPECT_EQ(app->VXSys.AgentTraceLevel, 2);
    EXPECT_EQ(app->VXBCISetting.tierID, 4);
}

TEST_F(Keywords, APassAppliesFieldsUpToTheOneThatEndsIt) {
    const struct {
        const char* line;
        std::int32_t tier, application;
        const char* status;
    } rows[] = {
        {"start_instrumentation;tierID=1;appID=3;status=running;", 1, 3, "running"},
        {"modify;tierid=9;tierID=1;x=;appID=3", 1, 3, ""},
        {"modify;tierID=1;word;appID=3", 1, 0, ""},
        {"modify;tierID=1;=5;appID=3", 1, 0, ""},
        {"stop_instrumentation;status;status=running", 0, 0, ""},
        {"stop_instrumentation;tierID=1;status=Stopping", 0, 0, "Stopping"},
    };
    VXBCISetting_t& setting = app->VXBCISetting;
    for (const auto& row : rows) {
        setting.tierID = setting.appID = 0;
        app->Server.status[0] = '\0';
        findStatusFromClientMsg((std::string("vx_control_req:action=") + row.line).c_str());
        EXPECT_EQ(setting.tierID, row.tier) << row.line;
        EXPECT_EQ(setting.appID, row.application) << row.line;
        EXPECT_STREQ(app->Server.status, row.status) << row.line;
    }
}

TEST_F(Keywords, AStartLineChangesNothingWhileADataConnectionStands) {
    app->data.controlCommunicationBusyFlag = 1;
    start("tierID=5;status=running;");
    EXPECT_EQ(app->VXBCISetting.tierID, 0);
    EXPECT_STREQ(app->Server.status, "running");
    findStatusFromClientMsg("vx_control_req:action=modify;tierID=6;");
    EXPECT_EQ(app->VXBCISetting.tierID, 6);
}

}  // namespace
}  // namespace vx::test
