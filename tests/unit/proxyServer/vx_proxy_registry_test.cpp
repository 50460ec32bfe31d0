#include "commonlibc/proxyServer/vx_proxy_registry.h"

#include <atomic>
#include <thread>

#include "commonlibc/VXAgentLine.h"
#include "tests/support/proxy_fixture.h"

namespace vx::test {
namespace {

class Registry : public ProxyFixture {
protected:
    static vxApplication* makeInstance(std::int32_t index) {
        vxApplication* made = vxNewApplication();
        setVXProxyInstance(*made);
        populateVXProxyInstance(*made, kwLocalStruct{}, index, 0);
        VXProxyInstance.load()[index] = made;
        return made;
    }
};

TEST_F(Registry, ClosesThreeConnectionsOfAProcessAndLeavesDiscovery) {
    vxApplication& made = *makeInstance(1);
    made.identity.numProcess = 1;
    processInfo_t& record = *vxProcessRecord(made, 0);
    record.pid = 77;
    Agent agents[4];
    for (int kind = 0; kind < 4; ++kind) {
        agents[kind] = connect();
        vxAttachSocket(record, static_cast<VXConnection>(kind), agents[kind].socket);
        ASSERT_TRUE(addSocketInEpoll(agents[kind].socket, record.epollPtr));
    }
    closeAllConnectionsOfProcess(1, 0);
    for (int kind = 0; kind < 3; ++kind) EXPECT_TRUE(agents[kind].peer.ended()) << kind;
    EXPECT_FALSE(agents[3].peer.ended(0));
    EXPECT_EQ(record.pid, kFreePid);
    EXPECT_EQ(VXProxy.polledSockets, 1);

    vxApplication& running = *makeInstance(2);  // the end of the process passes over those whose threads run
    VXProxy.numInstance = 3;
    running.control.controlThreadId = 1;
    proxyMemClean();
    EXPECT_TRUE(!made.identity.tierName && running.identity.tierName);
}

// A heartbeat that failed used to end the connection of the process that had the record by then.
TEST_F(Registry, ASendThatFailedEndsNoConnectionThatCameSince) {
    vxApplication& made = *makeInstance(1);
    made.identity.numProcess = 1;
    processInfo_t& record = *vxProcessRecord(made, 0);
    std::atomic<bool> stop{false};
    std::thread sender([&] {
        while (!stop) vxSendToAgent(record, "x", 1);
    });
    for (int i = 0; i < 2000; ++i) {
        Agent agent = connect();
        vxAttachSocket(record, VXConnection::kControl, agent.socket);
        EXPECT_EQ(agent.peer.readBytes(1), "x") << i;
    }
    stop = true;
    sender.join();
}

}  // namespace
}  // namespace vx::test
