#include "commonlibc/VXSettingsFile.h"

#include <filesystem>
#include <utility>
#include <vector>

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXProtocol.h"
#include "tests/support/home_fixture.h"

namespace vx {
namespace {

class SettingsFile : public test::HomeFixture {
protected:
    // A settings pass with this file; the reader's answer.
    int pass(const std::string& file) {
        write("vxsettings.conf", file);
        return read_env_var() == 0 ? 0 : read_conf_file();
    }
    VXBCISetting_t& setting() { return app->VXBCISetting; }
    static std::string record(int index) {
        const VXCollectorRecord held = vxCollectorAt(index);
        return std::string(held.host) + ":" + std::to_string(held.port);
    }
};

TEST_F(SettingsFile, EveryKeyArrives) {
    EXPECT_EQ(pass("# settings\r\nendPointPrefix=prefix\r\ntier=T_1\r\nserver=S\r\ninstance=I\r\n"
                   "tags=a=b,c=d\r\nattributes={\"e\": \"f\"}\r\ninstrumentMoveNext=1\r\n"
                   "VX_LOG_RETENTION_DAYS=3\r\nCONNECTION_RETRY_TIME_INTERVAL=5\r\n"
                   "vxcHost=collector.example\r\nvxcPort=7892\r\nstackSize=1024\r\n"
                   "VXC_COMM_PROTOCOL=TCP:7893,WS:7894\r\nbackupVxcHostName=backup.example\r\n"
                   "backupVxcPort=7895\r\nautoScalingMode=1\r\nagentTraceLevel=3\r\n"
                   "agentPCTraceLevel=2\r\ninstrumentSleep=250\r\nproxyMode=1\r\nproxyConType=2\r\n"
                   "proxyIP=10.0.0.1\r\nproxyPort=3128\r\nvxAgentDebugLogging=4\r\nvxProjectKey=key\r\n"),
              0);
    const VXSys_t& sys = app->VXSys;
    for (const auto& [held, given] : {std::pair(setting().endPointPrefix.get(), "prefix"),
                                      {setting().encodedTierName.get(), "T&#95;1"},
                                      {getAppServerName(), "S"},
                                      {getAppName(), "I"},
                                      {setting().tags.get(), "{\"a\":\"b\",\"c\":\"d\"}"},
                                      {setting().attributes.get(), "{\"e\":\"f\"}"},
                                      {sys.proxyHost, "10.0.0.1"},
                                      {setting().projectKey.get(), "key"}})
        EXPECT_STREQ(held, given);
    EXPECT_EQ((std::vector<std::int32_t>{
                  setting().logRetentionDays, setting().stackSize, setting().wsPort,
                  setting().autoScalingMode, sys.AgentTraceLevel, sys.ControlThreadTraceLevel,
                  sys.enableFPTrace, sys.AgentPCTraceLevel, sys.instrumentMoveNext, sys.instrumentSleepMs,
                  sys.proxyMode, sys.proxyConType, sys.proxyPort, sys.agentDebugLogging}),
              (std::vector<std::int32_t>{3, 1024, 7894, 1, 3, 3, 3, 2, 1, 250, 1, 2, 3128, 4}));
    EXPECT_EQ(app->control.retryInterval, 5000000);
    EXPECT_EQ(app->control.ActiveAgentProtocolIndex, kProtocolTCP);
    EXPECT_EQ(record(0), "collector.example:7893") << "the protocol list's TCP port outweighs vxcPort";
    EXPECT_EQ(record(1), "backup.example:7895");
    EXPECT_EQ(app->collectors.dr_enabled, 1);
}

TEST_F(SettingsFile, TheEnvironmentDecidesFirst) {
    setenv("ZOR_APP_AGENT_TIER", "envTier", 1);
    setenv("ZOR_APP_AGENT_VXC_COMM_PROTOCOL", "WS:81", 1);
    setenv("ZOR_APP_AGENT_VXCPORT", "99999", 1);
    setenv("ZOR_APP_AGENT_INSTANCE", "", 1);
    EXPECT_EQ(read_env_var(), 1) << "without a host the file is needed";
    EXPECT_EQ(pass("tier=T\ninstance=I\nvxcHost=h\nvxcPort=82\nVXC_COMM_PROTOCOL=TCP:80\n"), 0);
    EXPECT_STREQ(getTierName(), "envTier");
    EXPECT_STREQ(getAppName(), "I") << "an empty variable is none";
    EXPECT_STREQ(app->VXSys.supportedProtocolsString, "WS:81");
    EXPECT_EQ(setting().vxcPort, 82) << "an invalid variable is none";
    EXPECT_EQ(record(0), "h:81");

    setenv("ZOR_APP_AGENT_VXCHOST", "env.example", 1);  // a host leaves the file unused
    write("vxsettings.conf", "instance=J\n");
    EXPECT_EQ(read_env_var(), 0);
    EXPECT_EQ(read_conf_file(), 0);
    EXPECT_EQ(record(0), "env.example:81");
    EXPECT_STREQ(getAppName(), "I");
    EXPECT_EQ(check_file_size_of_vxsetting_files(1), 0);
    unsetenv("ZOR_APP_AGENT_VXCHOST");
    EXPECT_EQ(pass("vxcHost=h\n"), 0);
    EXPECT_EQ(record(0), "h:81");
}

TEST_F(SettingsFile, AnInstanceThatIsSetUpTakesTheCollectorsSideOnly) {
    setTierName("registered");
    setAppName("registered");
    app->identity.isProxyInstance = 1;
    EXPECT_EQ(pass("tier=T\ninstance=I\nserver=S\nstackSize=1024\nproxyMode=1\n"
                   "vxcHost=h\nvxcPort=7000\nagentTraceLevel=1\n"),
              0);
    EXPECT_STREQ(getTierName(), "registered");
    EXPECT_STREQ(getAppName(), "registered");
    EXPECT_STREQ(getAppServerName(), "");
    EXPECT_EQ(setting().stackSize, 512);
    EXPECT_EQ(record(0), "h:7000");
    EXPECT_EQ(app->VXSys.ControlThreadTraceLevel, 1);
}

TEST_F(SettingsFile, ALaterPassReplacesWhatTheFileNoLongerNames) {
    pass(
        "vxcHost=h\nvxcPort=1\nVXC_COMM_PROTOCOL=TCP:2\nbackupVxcHostName=b\nbackupVxcPort=3\n"
        "vxSaasURL=saas.example:4\n");
    EXPECT_EQ(record(0), "saas.example:4");
    EXPECT_EQ(pass("vxcHost=h2\n"), 0);
    EXPECT_EQ(record(0), "h2:443");
    EXPECT_EQ(vxCollectorAt(0).isSaas, 0);
    EXPECT_EQ(record(1), ":0");
    EXPECT_STREQ(app->VXSys.supportedProtocolsString, "WSS");
    EXPECT_EQ(app->collectors.dr_enabled, 0);
}

TEST_F(SettingsFile, AChangedFileIsSeenOnceAndOneWithoutContentNever) {
    pass("vxcHost=h\n");
    EXPECT_EQ(check_file_size_of_vxsetting_files(1), 0);
    write("vxsettings.conf", "vxcHost=h2\n");
    EXPECT_EQ(check_file_size_of_vxsetting_files(1), 1);
    EXPECT_EQ(check_file_size_of_vxsetting_files(1), 1) << "until it is read";
    read_conf_file();
    EXPECT_EQ(check_file_size_of_vxsetting_files(1), 0);
    write("vxsettings.conf", "");
    EXPECT_EQ(check_file_size_of_vxsetting_files(1), 0);
    std::filesystem::remove(home() + "/config/vxsettings.conf");
    std::filesystem::create_directory(home() + "/config/vxsettings.conf");
    EXPECT_EQ(check_file_size_of_vxsetting_files(1), 0) << "what was read before stays";
}

}  // namespace
}  // namespace vx
