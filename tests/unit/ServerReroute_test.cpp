#include "commonlibc/ServerReroute.h"

#include <string>

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/VXSettingsFile.h"
#include "commonlibc/VXSettingsRewrite.h"
#include "tests/support/link_fixture.h"

namespace vx::test {
namespace {

const std::string kLong(900, 'x');

TEST_F(HomeFixture, ARewriteOfTheSettingsReplacesWhatChanges) {
    constexpr VXSettingsChange kAll = {"Web", "h9", "new.example", 4433};
    const struct {
        std::string former, later;
        VXSettingsChange change;
    } rows[] = {
        {"tier=a\nserver = b\nVXCHOST=c\nvxcPort=1\n",
         "tier=Web\nserver=h9\nvxcHost=new.example\nvxcPort=4433\n", kAll},
        {"tier=a\nvxcHost=c\nvxcPort=1\n", "tier=a\nvxcHost=d\nvxcPort=1\n",
         VXSettingsChange{nullptr, nullptr, "d", 0}},
        {"# tier=a\ntierX=a\nvxcHostName=b\n\n stackSize=512\r\nlast",
         "# tier=a\ntierX=a\nvxcHostName=b\n\n stackSize=512\r\nlast", kAll},
        {"vxc_comm_protocol = WS:1, TCP:2 ,WSS:3\nVXC_COMM_PROTOCOLX=TCP:2\n",
         "vxc_comm_protocol = WS:1, TCP:4433 ,WSS:3\nVXC_COMM_PROTOCOLX=TCP:2\n", kAll},
        {"\xEF\xBB\xBFvxcHost=c\n", "\xEF\xBB\xBFvxcHost=new.example\n", kAll},
        // what lies behind 1024 bytes stays whole
        {"tags=" + kLong + "\nvxcHost=c\n#" + kLong + "\nvxcPort=1\n",
         "tags=" + kLong + "\nvxcHost=new.example\n#" + kLong + "\nvxcPort=1\n", kAll},
    };
    for (const auto& row : rows) {
        write("vxsettings.conf", row.former);
        EXPECT_EQ(updateVXSettingFile(row.change), 0);
        EXPECT_EQ(read("vxsettings.conf"), row.later);
        EXPECT_EQ(check_file_size_of_vxsetting_files(1), 0) << "the context has the values";
    }
}

class Reroute : public LinkFixture {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        write("vxsettings.conf", "vxcHost=old\nvxcPort=7892\ntags=a\n");
        upDateAgentSupportedProtocolData("WS:80,TCP:7892");
        setVXCHost("old");
        setVXCPort(7892);
    }
    // A collector record as "host:port".
    static std::string record(int index) {
        const VXCollectorRecord held = vxCollectorAt(index);
        return held.host + (":" + std::to_string(held.port));
    }
    static constexpr const char* kOrder = "vx_control_req:action=reroute_ctrl_con;";
};

TEST_F(Reroute, MakesTheTargetTheMasterAndEndsTheRun) {
    app->Server.instrumentationStarted = app->Server.testRunRunning = 1;
    app->Server.numRunning = 1;
    handle(std::string(kOrder) +
           "vxcHost=new.example;vxcPort=4433;tier=Web;server=h9;instance=i2;clusterMode=0");
    EXPECT_EQ(record(0), "new.example:4433");
    EXPECT_EQ(read("vxsettings.conf"), "vxcHost=new.example\nvxcPort=4433\ntags=a\n");
    EXPECT_EQ(std::string(getTierName()) + '/' + getAppServerName() + '/' + getAppName(), "Web/h9/i2");
    EXPECT_TRUE(app->control.requestType == 2 && app->control.closeCtrlConFlag == 1);
    EXPECT_STREQ(app->control.connDestination, "old:7892");
    EXPECT_EQ(app->Server.tenRecordWritten, 1);
    EXPECT_EQ(app->Server.testRunRunning + app->Server.instrumentationStarted + app->Server.numRunning, 0);
}

TEST_F(Reroute, LeavesWhatTheLineDoesNotChange) {
    const std::string before = record(0);
    for (const char* fields : {"vxcHost=ALL;vxcPort=all;tier=ALL;clusterMode=0", "vxcHost=bad host;vxcPort=0",
                               "clusterMode=1;vxcHost=node7;vxcPort=81"}) {
        handle(std::string(kOrder) + fields);
        EXPECT_EQ(record(0), before);
        EXPECT_EQ(read("vxsettings.conf"), "vxcHost=old\nvxcPort=7892\ntags=a\n");
        EXPECT_EQ(app->control.closeCtrlConFlag, 1);
    }
    EXPECT_EQ(record(1), "node7:81") << "a node of the cluster goes to the second record";
    handle(std::string(kOrder) + "clusterMode=0;vxcHost=new.example");
    EXPECT_EQ(record(0), "new.example:443") << "a host without its port";
    app->control.ActiveAgentProtocolIndex = kProtocolWS;
    handle(std::string(kOrder) + "vxcPort=81");
    EXPECT_STREQ(app->VXSys.supportedProtocolsString, "WS:81,TCP:443") << "the port of the protocol in use";

    app->control.closeCtrlConFlag = 0;
    handle("vx_control_req:action=reroute_ctrl_con");
    EXPECT_EQ(app->control.closeCtrlConFlag, 0) << "an order without fields is none";
}

}  // namespace
}  // namespace vx::test
