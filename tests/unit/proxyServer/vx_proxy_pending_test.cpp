#include "commonlibc/proxyServer/vx_proxy_pending.h"

#include "tests/support/fake_clock.h"
#include "tests/support/proxy_fixture.h"

namespace vx::test {
namespace {

class PendingTest : public ProxyFixture {
protected:
    static Agent accepted() {
        Agent agent = connect();
        vxPendingAccepted(agent.socket);
        return agent;
    }

    FakeClock clock;
};

TEST_F(PendingTest, AnUnknownConnectionLeavesThePollsetAndGoesWithItsPeer) {
    Agent agent = accepted();
    vxPendingReadable(agent.socket);
    EXPECT_EQ(VXProxy.polledSockets, 1) << "readiness may be false";
    agent.peer.send("hello\nmore");
    vxPendingReadable(agent.socket);
    EXPECT_EQ(VXProxy.polledSockets, 0);
    agent.peer.send("and more");
    vxPendingLook();
    EXPECT_FALSE(agent.refused());
    agent.peer.close();
    clock.advanceMs(30000);  // what it sent hides its end, time does not
    vxPendingLook();
    EXPECT_TRUE(agent.refused());

    Agent quiet = accepted();
    quiet.peer.send("hello\n");
    vxPendingReadable(quiet.socket);
    quiet.peer.close();
    vxPendingLook();
    EXPECT_TRUE(quiet.refused());
    EXPECT_EQ(vxPendingCount(), 0u);
}

TEST_F(PendingTest, InAFullPollsetAnOldSilentConnectionGivesWay) {
    Agent old = accepted();
    VXProxy.polledSockets += kPollsetSize - 1;
    clock.advanceMs(29999);
    clock.setWall(3600000);
    EXPECT_TRUE(accepted().refused()) << "nobody is old enough";
    clock.advanceMs(1);
    clock.setWall(-7200000);
    Agent later = accepted();
    EXPECT_FALSE(later.refused());
    EXPECT_TRUE(old.refused());
    EXPECT_EQ(VXProxy.socketsRefused, 2u);
    VXProxy.polledSockets = 1;
    vxPendingGone(later.socket);
    EXPECT_EQ(vxPendingCount(), 0u);
}

}  // namespace
}  // namespace vx::test
