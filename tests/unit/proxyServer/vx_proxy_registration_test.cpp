#include "commonlibc/proxyServer/vx_proxy_registration.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "commonlibc/vxlb_utiles.h"
#include "tests/support/by_name.h"
#include "tests/support/proxy_fixture.h"

namespace vx::test {
namespace {

kwLocalStruct parsed(std::string text) {
    kwLocalStruct line;
    std::memset(&line, 'x', sizeof(line));  // what an earlier line left
    vxParseRegistrationLine(text.data(), line);
    return line;
}

struct LineCase {
    const char* name;
    std::string text;
    bool (*holds)(const kwLocalStruct& line);
};
class RegistrationLine : public testing::TestWithParam<LineCase> {};

TEST_P(RegistrationLine, Fills) {
    EXPECT_TRUE(GetParam().holds(parsed(GetParam().text)));
}
INSTANTIATE_TEST_SUITE_P(
    Fields, RegistrationLine,
    testing::ValuesIn<LineCase>({
        {"nothing_from_nothing", "",
         [](const kwLocalStruct& l) { return !*l.appName && l.pid == 0 && l.isAgentLess == 0; }},
        {"any_order_and_unknown_keys", "pid=4711;colour=red;tierName=Web;isAgentLess=No; ",
         [](const kwLocalStruct& l) {
             return l.pid == 4711 && std::string(l.tierName) == "Web" && l.isAgentLess == 'N';
         }},
        {"values_with_equals_signs", "tags={\"a=b\"};attributes=c=d",
         [](const kwLocalStruct& l) {
             return std::string(l.tags) == "{\"a=b\"}" && std::string(l.attributes) == "c=d";
         }},
        {"keys_with_their_case", "PID=1;Appname=x",
         [](const kwLocalStruct& l) { return l.pid == 0 && !*l.appName; }},
        {"texts_up_to_their_width", "appName=" + std::string(5000, 'a') + ";serverIp=" + std::string(99, '1'),
         [](const kwLocalStruct& l) {
             return std::strlen(l.appName) == 1023 && std::strlen(l.serverIp) == 31 && !*l.vxAppServerHost &&
                    !*l.jvmType;
         }},
        {"numbers_up_to_their_bounds", "pid=99999999999999999999;tierID=-99999999999;appID=12x;testIdx=x",
         [](const kwLocalStruct& l) {
             return l.pid == INT64_MAX && l.tierID == INT32_MIN && l.appID == 12 && l.testIdx == 0;
         }},
        {"texts_that_are_given_only",
         "tags=;tags=a;tags=", [](const kwLocalStruct& l) { return std::string(l.tags) == "a"; }},
        {"a_hundred_and_twenty_eight_fields",
         [] {
             std::string text;
             for (int i = 0; i < 128; ++i) text += "k" + std::to_string(i) + "=v;";
             return text + "pid=5";
         }(),
         [](const kwLocalStruct& l) { return l.pid == 0; }},
    }),
    byName);

class RegistrationTest : public ProxyFixture {
protected:
    // The collector has answered the first instance; `started` also its start line was relayed.
    static void collectorAnswered(bool started = false) {
        instance().Server.replyReceived = 1;
        instance().Server.instrumentationStarted = started ? 1 : 0;
        instance().identity.startInstrumentation =
            vxlb_strdup("vx_control_req:action=start_instrumentation;a=1;");
    }
};

TEST_F(RegistrationTest, ANewIdentityMakesAnInstanceThatIsAnsweredLater) {
    Agent agent = process(100);
    ASSERT_NE(agent.address, nullptr);
    EXPECT_EQ(agent.address->appIndex, 1);
    EXPECT_EQ(agent.address->procIndex, 0);
    EXPECT_EQ(VXProxy.numInstance, 2);
    EXPECT_EQ(controlThreads, 1);
    EXPECT_EQ(instance().identity.activeProcesses, 1);
    EXPECT_EQ(VXProxy.polledSockets, 1);
    EXPECT_EQ(agent.peer.readLine(0), kNoLine);
    EXPECT_STREQ(instance().VXBCISetting.tierName.get(), "Web_1");
    EXPECT_STREQ(instance().VXBCISetting.encodedTierName.get(), "Web&#95;1");
    EXPECT_EQ(instance().VXBCISetting.agentTypeCode, kAgentDotnet);
    EXPECT_EQ(vxCurrent(), &instance());
}

TEST_F(RegistrationTest, ALaterProcessGetsWhatItHasMissed) {
    process(100);
    collectorAnswered(true);
    Agent late = process(101);
    EXPECT_EQ(late.peer.readLine(1), "vx_ctrl_msg_rep:result=Ok;procIndex=1");
    EXPECT_EQ(late.peer.readLine(1), "vx_control_req:action=start_instrumentation;a=1;");
    instance().Server.instrumentationStarted = 0;
    Agent later = process(102);
    EXPECT_EQ(later.peer.readLine(1), "vx_ctrl_msg_rep:result=Ok;procIndex=2");
    EXPECT_EQ(later.peer.readLine(0), kNoLine) << "a start that is not over reaches it by the relay";
    EXPECT_EQ(controlThreads, 1) << "the instance has one already";
}

TEST_F(RegistrationTest, AProcessThatComesAgainKeepsItsPlaceAndLosesItsOldConnection) {
    Agent former = process(100);
    collectorAnswered();
    Agent data = connect();
    registerAgent(data, kConTypeData, dataFields(100));
    Agent again = process(100);
    EXPECT_TRUE(former.peer.ended(1));
    EXPECT_EQ(again.peer.readLine(1), "vx_ctrl_msg_rep:result=Ok;procIndex=0");
    EXPECT_EQ(instance().identity.numProcess, 1);
    EXPECT_EQ(instance().identity.activeProcesses, 1);
    EXPECT_FALSE(data.refused()) << "the other connections of the process stay";
}

TEST_F(RegistrationTest, The491stProcessFindsRoomForAThousand) {
    process(100);
    vxApplication& made = instance();
    for (int i = 1; i < 490; ++i) vxProcessRecord(made, i)->pid = 1000 + i;
    made.identity.numProcess = 490;
    made.identity.processInfo.load()[7]->pid = kFreePid;
    EXPECT_EQ(process(5000).address->procIndex, 7);
    EXPECT_EQ(made.identity.processCapacity, 500) << "a free place is taken before the table grows";
    EXPECT_EQ(process(5001).address->procIndex, 490);
    EXPECT_EQ(made.identity.processCapacity, 1000);
    EXPECT_EQ(pidOf(489), 1489);
}

TEST_F(RegistrationTest, CeilingsRefuseWhatIsNewAndNobodyElse) {
    VXProxy.ceilings = {.maxProcesses = 2, .maxInstances = 2};
    const Agent first = process(100), second = process(101), other = process(100, "other");
    EXPECT_TRUE(process(102).refused());
    EXPECT_TRUE(process(100, "third").refused());
    EXPECT_EQ(process(101).address->procIndex, 1) << "who is known comes again";
    for (int pid = 1000; pid < 3000; ++pid) {
        closeAllConnectionsOfProcess(1, 1);
        vxEndPollRound();
        ASSERT_EQ(process(pid).address->procIndex, 1) << "one after the other";
    }
    EXPECT_EQ(instance().identity.numProcess, 2);
    EXPECT_EQ(VXProxy.numInstance, 3);
    VXProxy.ceilings = {};
}

TEST_F(RegistrationTest, NamesAreComparedExactly) {
    process(100, "nginx");
    EXPECT_EQ(process(100, "Nginx").address->appIndex, 2);
    EXPECT_EQ(process(100, "").address->appIndex, 3);
    EXPECT_EQ(process(100, "nginx").address->appIndex, 1);
    setSharedText(instance().retired, instance().VXBCISetting.appName, "renamed");
    Agent renamed = connect();
    std::string fields = controlFields(7);
    registerAgent(renamed, kConTypeControl, fields.replace(fields.find("shop"), 4, "renamed"));
    EXPECT_EQ(renamed.address->appIndex, 1) << "the name that the collector knows serves too";
}

TEST_F(RegistrationTest, APidThatMarksFreePlacesIsRefused) {
    EXPECT_TRUE(process(-1).refused());
    EXPECT_EQ(VXProxy.numInstance, 1);
    process(100);
    closeAllConnectionsOfProcess(1, 0);
    Agent data = connect();
    registerAgent(data, kConTypeData, dataFields(-1));
    EXPECT_TRUE(data.refused());
}

TEST_F(RegistrationTest, AnAgentThatIsGoneWhenItIsAnsweredLeavesAFreePlace) {
    process(100);
    collectorAnswered();
    Agent gone = connect();
    gone.peer.close();
    registerAgent(gone, kConTypeControl, controlFields(101));
    EXPECT_TRUE(gone.refused());
    EXPECT_EQ(gone.address, nullptr);
    EXPECT_EQ(pidOf(1), kFreePid);
    EXPECT_EQ(instance().identity.activeProcesses, 1);
    EXPECT_EQ(process(102).address->procIndex, 1);
}

TEST_F(RegistrationTest, AControlThreadThatEndedIsStartedAgain) {
    process(100);
    const VXMap* map = instance().flowpath.fpi_tls_map;
    instance().control.controlThreadId = 0;
    process(101);
    EXPECT_EQ(controlThreads, 2);
    EXPECT_EQ(instance().flowpath.fpi_tls_map, map) << "what exists is kept";
}

TEST_F(RegistrationTest, AFullPollsetClosesTheConnectionAndKeepsTheInstance) {
    VXProxy.polledSockets = kPollsetSize;
    EXPECT_TRUE(process(100).refused());
    EXPECT_EQ(pidOf(0), kFreePid);
    VXProxy.polledSockets = 0;
    EXPECT_EQ(process(100).address->procIndex, 0);
}

struct FurtherCase {
    const char* name;
    int type;
    VXConnection kind;
};
class FurtherConnection : public RegistrationTest, public testing::WithParamInterface<FurtherCase> {};

TEST_P(FurtherConnection, JoinsTheProcessThatTheIdsName) {
    const Agent control = process(100);
    instance().VXBCISetting.tierID = 5;
    Agent early = connect();
    registerAgent(early, GetParam().type, dataFields(100));
    EXPECT_EQ(early.address, nullptr) << "the agent does not know the ids yet";
    EXPECT_FALSE(early.refused());

    Agent first = connect(), second = connect();
    registerAgent(first, GetParam().type, dataFields(100, ";tierID=5"));
    EXPECT_EQ(first.address, control.address);
    EXPECT_EQ(vxConnectionOf(*processAt(instance(), 0), first.socket), GetParam().kind);
    registerAgent(second, GetParam().type, dataFields(100, ";tierID=5"));
    EXPECT_TRUE(first.peer.ended(1)) << "one connection of a kind";
    EXPECT_EQ(VXProxy.polledSockets, 2);

    Agent stranger = connect();
    registerAgent(stranger, GetParam().type, dataFields(101, ";tierID=5"));
    EXPECT_TRUE(stranger.refused()) << "the control connection comes first";
}
INSTANTIATE_TEST_SUITE_P(Kinds, FurtherConnection,
                         testing::ValuesIn<FurtherCase>({
                             {"data", kConTypeData, VXConnection::kData},
                             {"auto_sensor", kConTypeAS, VXConnection::kAutoSensor},
                             {"discovery", kConTypeDiscovery, VXConnection::kDiscovery},
                         }),
                         byName);

}  // namespace
}  // namespace vx::test
