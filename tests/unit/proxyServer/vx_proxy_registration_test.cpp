#include "commonlibc/proxyServer/vx_proxy_registration.h"

#include <cstring>
#include <string>

#include "commonlibc/vxlb_utiles.h"
#include "tests/support/proxy_fixture.h"

namespace vx::test {
namespace {

kwLocalStruct parsed(std::string text) {
    kwLocalStruct line;
    std::memset(&line, 'x', sizeof(line));  // what an earlier line left
    vxParseRegistrationLine(text.data(), line);
    return line;
}

TEST(RegistrationLine, IsTakenApartIntoBoundedMembersOfItsOwn) {
    kwLocalStruct l = parsed("pid=4711;colour=red;tierName=Web;tags=a;tags={\"a=b\"};tags=;attributes=c=d; ");
    EXPECT_TRUE(l.pid == 4711 && l.isAgentLess == 0 && !*l.appName) << "nothing of an earlier line";
    EXPECT_EQ(std::string(l.tierName) + l.tags + l.attributes, "Web{\"a=b\"}c=d");
    l = parsed("appName=" + std::string(5000, 'a') + ";serverIp=" + std::string(99, '1'));
    EXPECT_TRUE(std::strlen(l.appName) == 1023 && std::strlen(l.serverIp) == 31);
    EXPECT_TRUE(!*l.vxAppServerHost && !*l.jvmType) << "neighbours";
    l = parsed("pid=99999999999999999999;tierID=-99999999999;appID=12x;testIdx=x");
    EXPECT_TRUE(l.pid == INT64_MAX && l.tierID == INT32_MIN && l.appID == 12 && l.testIdx == 0);
    std::string many;
    for (int i = 0; i < 128; ++i) many += "k" + std::to_string(i) + "=v;";
    EXPECT_EQ(parsed(many + "pid=5").pid, 0);
}

class RegistrationTest : public ProxyFixture {
protected:
    // The collector has answered the first instance, whose start line is there.
    static void collectorAnswered() {
        instance().Server.replyReceived = 1;
        instance().identity.startInstrumentation =
            vxlb_strdup("vx_control_req:action=start_instrumentation;a=1;");
    }
};

TEST_F(RegistrationTest, ANewIdentityMakesAnInstanceThatIsAnsweredLater) {
    Agent agent = process(100);
    ASSERT_NE(agent.address, nullptr);
    EXPECT_TRUE(agent.address->appIndex == 1 && agent.address->procIndex == 0);
    EXPECT_TRUE(VXProxy.numInstance == 2 && VXProxy.polledSockets == 1 && controlThreads == 1);
    EXPECT_EQ(instance().identity.activeProcesses, 1);
    EXPECT_EQ(agent.peer.readLine(0), kNoLine);
    EXPECT_STREQ(instance().VXBCISetting.encodedTierName.get(), "Web&#95;1");
    EXPECT_EQ(vxCurrent(), &instance());
    const VXMap* map = instance().flowpath.fpi_tls_map;
    const apr_thread_mutex_t* mutex = instance().data.chain.dumpMutex;
    instance().control.controlThreadId = 0;
    instance().VXSys.bciDataBufferMaxCount = 7;
    instance().VXSys.dataDropCount = 7;
    process(101);
    EXPECT_EQ(controlThreads, 2) << "one that ended is started again";
    EXPECT_TRUE(instance().flowpath.fpi_tls_map == map && instance().data.chain.dumpMutex == mutex);
    EXPECT_EQ(instance().VXSys.dataDropCount, 7U) << "what exists is kept";
    EXPECT_EQ(instance().VXSys.bciDataBufferMaxCount, 1000) << "a setting";
}

TEST_F(RegistrationTest, ALaterProcessGetsWhatItHasMissed) {
    process(100);
    collectorAnswered();
    instance().Server.instrumentationStarted = 1;
    Agent late = process(101);
    EXPECT_EQ(late.peer.readLine(), "vx_ctrl_msg_rep:result=Ok;procIndex=1");
    EXPECT_EQ(late.peer.readLine(), "vx_control_req:action=start_instrumentation;a=1;");
    instance().Server.instrumentationStarted = 0;
    late = process(102);
    EXPECT_EQ(late.peer.readLine(), "vx_ctrl_msg_rep:result=Ok;procIndex=2");
    EXPECT_EQ(late.peer.readLine(0), kNoLine) << "a start that is not over reaches it by the relay";
}

TEST_F(RegistrationTest, AProcessThatComesAgainKeepsItsPlaceAndLosesItsOldConnection) {
    Agent former = process(100);
    collectorAnswered();
    Agent data = connect();
    registerAgent(data, kConTypeData, dataFields(100));
    Agent again = process(100);
    EXPECT_TRUE(former.peer.ended());
    EXPECT_EQ(again.peer.readLine(), "vx_ctrl_msg_rep:result=Ok;procIndex=0");
    EXPECT_TRUE(instance().identity.numProcess == 1 && instance().identity.activeProcesses == 1);
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

TEST_F(RegistrationTest, The33rdInstanceFindsRoomAndLeavesTheOthersInPlace) {
    const auto nameOf = [](int index) { return "agent" + std::to_string(index); };
    process(100, nameOf(1));
    const vxApplication* const first = &instance();
    for (int index = 2; index <= 34; ++index) {
        const Agent agent = process(100, nameOf(index));
        ASSERT_TRUE(agent.address && agent.address->appIndex == index) << index;
    }
    EXPECT_TRUE(&instance() == first && process(100, nameOf(1)).address->appIndex == 1);
    instance(34).Server.replyReceived = 1;
    EXPECT_EQ(process(101, nameOf(34)).peer.readLine(), "vx_ctrl_msg_rep:result=Ok;procIndex=1");
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

TEST_F(RegistrationTest, APidThatMarksFreePlacesAndAFullPollsetAreRefused) {
    EXPECT_TRUE(process(-1).refused());
    EXPECT_EQ(VXProxy.numInstance, 1);
    VXProxy.polledSockets = kPollsetSize;
    EXPECT_TRUE(process(100).refused());
    EXPECT_EQ(pidOf(0), kFreePid);
    VXProxy.polledSockets = 0;
    EXPECT_EQ(process(100).address->procIndex, 0);
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

TEST_F(RegistrationTest, FurtherConnectionsJoinTheProcessThatTheIdsName) {
    const Agent control = process(100);
    instance().VXBCISetting.tierID = 5;
    const struct {
        int type;
        VXConnection kind;
    } rows[] = {{kConTypeData, VXConnection::kData},
                {kConTypeAS, VXConnection::kAutoSensor},
                {kConTypeDiscovery, VXConnection::kDiscovery}};
    for (const auto& row : rows) {
        const std::int32_t polled = VXProxy.polledSockets;
        Agent early = connect(), first = connect(), second = connect(), stranger = connect();
        registerAgent(early, row.type, dataFields(100));
        EXPECT_TRUE(!early.address && !early.refused()) << "the agent does not know the ids yet";
        registerAgent(first, row.type, dataFields(100, ";tierID=5"));
        EXPECT_EQ(first.address, control.address);
        EXPECT_EQ(vxConnectionOf(*processAt(instance(), 0), first.socket), row.kind);
        registerAgent(second, row.type, dataFields(100, ";tierID=5"));
        EXPECT_TRUE(first.peer.ended()) << "one connection of a kind";
        EXPECT_EQ(VXProxy.polledSockets, polled + 1);
        registerAgent(stranger, row.type, dataFields(101, ";tierID=5"));
        EXPECT_TRUE(stranger.refused()) << "the control connection comes first";
    }
}

}  // namespace
}  // namespace vx::test
