#include "commonlibc/proxyServer/vx_proxy_discovery.h"

#include <chrono>
#include <string>

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/control_outbox.h"
#include "commonlibc/lws_handler.h"
#include "commonlibc/proxyServer/vx_proxy_events.h"
#include "commonlibc/proxyServer/vx_proxy_read.h"
#include "commonlibc/vxlb_sock.h"
#include "tests/support/fake_clock.h"
#include "tests/support/proxy_fixture.h"

namespace vx::test {
namespace {

const std::string kOpening =
    "agent_post_data_req:action=discover_loaded_classes;Id=4;Tier=Web_1;Server=host7;Instance=shop;";

// An instance with one process, whose control connection to the collector stands.
class Discovery : public ProxyFixture {
protected:
    void SetUp() override {
        ProxyFixture::SetUp();
        agent = process(100);
        vxApplication& made = instance();
        setPrimaryVXC("127.0.0.1", collector.port());
        made.collectors.activeVXC = 0;
        made.VXBCISetting.testRunIndex = 4;
        made.control.lws_active = 0;
        made.control.ActiveAgentProtocolIndex = kProtocolTCP;
        vxlb_shared_put(made.control.controlSocket,
                        vxlb_create_client_con("127.0.0.1", collector.port(), made.pool, 1000000, nullptr));
        control = collector.accept();
        ASSERT_TRUE(control);
    }
    void TearDown() override {
        vxlb_shared_close(instance().control.controlSocket);
        vxlb_shared_close(instance().discovery.socket);
        ProxyFixture::TearDown();
    }
    // A discovery connection of the process, registered by its line.
    Agent discovery() {
        Agent more = connect();
        say(more, "agent_post_data_req:" + dataFields(100));
        EXPECT_NE(more.address, nullptr);
        return more;
    }
    static void say(Agent& from, const std::string& line) {
        from.peer.send(line + "\n");
        readMessageFromSocket(from.socket, VXProxy.discoveryBuf, &from.address);
    }
    // A list of 18 MB to a collector that does not read.
    void giveUpAList() {
        Agent list = discovery();
        const FakePeer unread = collector.accept();
        const std::string piece(60000, 'c');
        for (int i = 0; i < 300 && !list.refused(); ++i) say(list, piece);
        EXPECT_TRUE(list.refused()) << "the agent learns it";
        EXPECT_FALSE(isOpen());
    }
    bool isOpen() const { return instance().discovery.socket.get() != nullptr; }

    FakeCollector collector{4096};
    FakePeer control;
    Agent agent;
};

TEST_F(Discovery, TheListGoesOnToTheCollectorUpToItsLastPiece) {
    for (int round = 0; round < 2; ++round) {
        vxSetCurrent(app);  // whoever was served before
        Agent list = discovery();
        FakePeer peer = collector.accept();
        EXPECT_EQ(peer.readLine(), kOpening);
        say(list, "class one\nclass two");
        EXPECT_EQ(peer.readLine(), "class one");
        EXPECT_EQ(peer.readLine(), "class two");
        say(list, "classes=2;totalTimeTaken=5;");
        EXPECT_EQ(peer.readLine(), "classes=2;totalTimeTaken=5;");
        EXPECT_TRUE(peer.ended());
        EXPECT_FALSE(isOpen());
        EXPECT_FALSE(list.refused());
    }
}

TEST_F(Discovery, IsReplacedWhenTheCollectorClosedItAndEndsWithTheAgentsLastConnection) {
    Agent first = discovery();
    collector.accept().close();
    Agent list = discovery();
    FakePeer peer = collector.accept();
    list.peer.close();
    apr_pollfd_t event{};
    event.desc.s = list.socket;
    event.client_data = list.address;
    event.rtnevents = APR_POLLIN;
    vxServeConnection(event, 0, 1);
    EXPECT_TRUE(list.refused());
    EXPECT_FALSE(isOpen());
    EXPECT_EQ(peer.readLine(), kOpening);
    EXPECT_TRUE(peer.ended());
}

TEST_F(Discovery, AfterAFailureNobodyTriesForHalfAMinuteNorWithoutAControlConnection) {
    FakeClock clock;
    setPrimaryVXC("127.0.0.1", 1);  // nobody listens there
    discovery();
    setPrimaryVXC("127.0.0.1", collector.port());
    clock.setWall(3600000);
    discovery();
    EXPECT_FALSE(isOpen());
    clock.advanceMs(30000);
    const Agent last = discovery();
    EXPECT_TRUE(isOpen());
    vxlb_shared_close(instance().discovery.socket);
    vxlb_shared_close(instance().control.controlSocket);
    EXPECT_FALSE(discovery().refused());
    EXPECT_FALSE(isOpen());
}

TEST_F(Discovery, ACollectorThatNeverReadsCostsTwoSecondsInAllOverLibwebsocketsToo) {
    const auto before = std::chrono::steady_clock::now();
    giveUpAList();
    vxApplication& made = instance();
    vxSetCurrent(&made);
    made.control.lws_active = 1;
    ASSERT_TRUE(create_lws_control_connection("127.0.0.1", collector.port()));
    control = collector.accept();
    vxOutboxOpenLws(made, *made.control.controlWsi);
    for (int lists = 0; lists < 35; ++lists) giveUpAList();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(60));
    vxOutboxClose(made);
    vxLwsEndHandle(made.control.controlWsi);
}

}  // namespace
}  // namespace vx::test
