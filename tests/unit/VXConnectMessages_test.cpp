#include "commonlibc/VXConnectMessages.h"

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/vxlb_utiles.h"
#include "tests/support/fake_clock.h"
#include "tests/support/home_fixture.h"

namespace vx {
namespace {

// An instance with a value of its own in each field that a line carries.
class ConnectMessages : public test::HomeFixture {
protected:
    void SetUp() override {
        HomeFixture::SetUp();
        setAppName("in_1");
        setAppServerName("srv_2");
        setTierName("tier_3");
        setAgentType("Dotnet");
        setVXCHost("collector.example");
        app->identity.processInfo = processes_;
        app->identity.numProcess = 1;
        process_.pid = 4711;
        app->VXBCISetting.appID = 7;
        app->VXBCISetting.vxAppServerID = 8;
        app->VXBCISetting.tierID = 9;
        app->VXBCISetting.testRunIndex = 10;
        app->control.requestType = 2;
        app->control.lastConnectionTimeStamp = 1699999999000;
        app->control.connDuration = 5;
        vxlb_copy_text(app->control.connDestination, sizeof(app->control.connDestination), "old:1");
        upDateAgentSupportedProtocolData("TCP:7000,WSS:443");
        setActiveProtocolIndex(kProtocolTCP);
        getServerIP(serverIp_, sizeof(serverIp_));
    }

    static std::string ownPid() { return std::to_string(vxlb_get_pid()); }
    VXBCISetting_t& setting() { return app->VXBCISetting; }
    std::string control() {
        setControlConnectionReqMessage();
        EXPECT_EQ(setting().controlMessageLen, static_cast<int>(strlen(setting().controlMessage)));
        return setting().controlMessage;
    }

    test::FakeClock clock_{1700000000123};
    char serverIp_[256];
    processInfo_t process_{};
    processInfo_t* processes_[1] = {&process_};
};

TEST_F(ConnectMessages, ControlLine) {
    EXPECT_EQ(
        control(),
        "vx_ctrl_msg_req:appName=in_1;vxAppServerHost=srv_2;tierName=tier_3;bciVersion=VXProxy " VX_VERSION
        ";"
        "bciStartTime=1700000000123;vxHome=" +
            home() + ";pid=4711;proxyPid=" + ownPid() +
            ";BCITimeStamp=1700000000123;agentType=Dotnet;serverIp=" + serverIp_ +
            ";hostName=srv_2;isAgentLess=N;jvmType=Dotnet;javaVersion=1.0;javaHome=/apps/java;"
            "machineType=Windows;requestType=2;lastConnectionTimeStamp=1699999999000;connDuration=5;"
            "connDestination=old:1;agentName=agent;supportedProtocols=TCP:7000,WSS:443;authtoken=NA;"
            "tags={};attributes={};protoVer=0; \n");
}

TEST_F(ConnectMessages, SaasLineWhileTheFirstRecordIsTheSaasEndpoint) {
    setSaasHostPort("saas.example:8443");
    setProjKey("key");
    setting().saasMode = 1;
    vxSetCollectorSaas(0, 1, "saas.example");
    EXPECT_EQ(
        control(),
        "zor_saas_auth_agent_msg_req:appName=in_1;agentVersion=4.3.0;agentStartTime=1700000000123;vxHome=" +
            home() + ";pid=4711;proxyPid=" + ownPid() +
            ";isAgentLess=N;jvmType=Dotnet;javaVersion=1.0;javaHome=/apps/java;machineType=Windows;"
            "requestType=2;lastConnectionTimeStamp=1699999999000;connDuration=5;connDestination=old:1;"
            "projectKey=key;protoVer=1;agentType=Dotnet;supportedProtocols=TCP:7000,WSS:443;"
            "agentIp=saas.example;tags={};attributes={};agentHostName=agent; \n");
    vxSetCollectorSaas(0, 0, "collector.example");
    EXPECT_TRUE(control().starts_with("vx_ctrl_msg_req:")) << "a named collector gets the control line";
}

TEST_F(ConnectMessages, DataAndAutoSensorLines) {
    setControlDataReqMessage();
    EXPECT_EQ(setting().dataMessage,
              "vx_data_msg_req:appName=in_1;appID=7;vxAppServerID=8;vxAppServerHost=srv_2;tierName=tier_3;"
              "tierID=9;VXCollectorIP=collector.example;VXCollectorPort=7000;testIdx=10;pid=" +
                  ownPid() + ";agentName=agent\n");
    setActiveProtocolIndex(kProtocolWSS);
    setControlAutoSensorReqMessage();
    EXPECT_EQ(
        setting().autoSensorMessage,
        "auto_sensor_thread_hotspot_data_req:appName=in_1;appID=7;vxAppServerID=8;vxAppServerHost=srv_2;"
        "tierName=tier_3;tierID=9;VXCollectorIP=collector.example;VXCollectorPort=443,testIdx=10;pid=" +
            ownPid() + ";agentName=agent\n");
}

TEST_F(ConnectMessages, ALineKeepsItsOneNewlineWhateverANameHolds) {
    setTierName(std::string(3000, 't').c_str());
    std::string line = control();
    EXPECT_EQ(line.size(), 2047U);
    EXPECT_EQ(line.substr(2045), "t\n");
    setAppName("a\r\nvx_ctrl_msg_req:b");
    line = control();
    EXPECT_TRUE(line.starts_with("vx_ctrl_msg_req:appName=a  vx_ctrl_msg_req:b;")) << line;
    EXPECT_EQ(line.find('\n'), line.size() - 1);
}

TEST_F(ConnectMessages, ASaasReplyHandsOverToTheCollectorThatItNamesByAUsableHost) {
    vxSetCollectorSaas(0, 1, "saas.example");
    vxSetCollectorPort(0, 8443);
    for (const auto& [fields, outcome] : {std::pair("host=;port=99999", "saas.example:8443 saas 1"),
                                          {"host=a b", "saas.example:8443 saas 1"},
                                          {"HOST=named;port=7892;x=1\n", "named:7892 saas 0"}}) {
        std::string reply = std::string("zor_saas_auth_agent_msg_rep:status=OK;") + fields;
        EXPECT_EQ(parseSAASClientMsg(reply.data()), 0);
        const VXCollectorRecord first = vxCollectorAt(0);
        EXPECT_EQ(std::string(first.host) + ":" + std::to_string(first.port) + " saas " +
                      std::to_string(first.isSaas),
                  outcome);
    }
    char separators[] = ";;";
    EXPECT_EQ(parseSAASClientMsg(separators), 1);
}

}  // namespace
}  // namespace vx
