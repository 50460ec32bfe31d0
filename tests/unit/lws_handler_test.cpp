#include "commonlibc/lws_handler.h"

#include <memory>
#include <string>

#include "commonlibc/control_thread.h"
#include "tests/support/link_fixture.h"
#include "tests/support/tcp_relay.h"
#include "tests/support/ws_bridge.h"

namespace vx::test {
namespace {

// An instance whose control thread reaches the collector over WS or WSS.
class LwsLink : public LinkFixture, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        if (name() == "WSS") certificate = std::make_unique<TestCertificate>();
        front = std::make_unique<WsBridge>(collector.port(), certificate.get());
        relay = std::make_unique<TcpRelay>(front->port());
        app->control.pollTimeUs = 20000;
        app->VXSys.dataConnState = 1;
        setProxyVXHome();
        write("vxsettings.conf", "vxcHost=localhost\nCONNECTION_RETRY_TIME_INTERVAL=1\nvxcPort=" +
                                     std::to_string(relay->port()) + "\nVXC_COMM_PROTOCOL=" + protocol() +
                                     "\n");
    }
    void TearDown() override {
        app->control.proxyStopRequested = 1;
        vxJoinControlThread(*app);
        LinkFixture::TearDown();
    }
    static std::string name() { return GetParam(); }
    std::string protocol() const { return name() + ":" + std::to_string(relay->port()); }

    std::unique_ptr<TestCertificate> certificate;
    std::unique_ptr<WsBridge> front;
    std::unique_ptr<TcpRelay> relay;  // in front of it
};

TEST_P(LwsLink, IsBackAfterAConnectionThatBrokeAtAnyByteOfItsBeginning) {
    int struck = 0;
    for (const Way way : {Way::kUp, Way::kDown}) {
        for (const std::int64_t bytes : {0, 1, 100, 250, 700}) {
            const auto kind = bytes % 4 ? Fault::Kind::kCut : Fault::Kind::kReset;
            relay->add({.kind = kind, .way = way, .bytes = bytes});
            if (struck == 0) vxStartControlThread(app);
            const auto deadline = deadlineIn(kPeerSeconds);
            while (relay->struck() == struck && std::chrono::steady_clock::now() < deadline) {
                FakePeer broken = collector.accept(0.05);  // it may come so far
                if (broken)
                    broken.send("vx_ctrl_msg_rep:result=Ok;state=1;supportedProtocols=" + protocol() + ";" +
                                std::string(2000, 'x') + "\n");
                ::usleep(1000);
            }
            ASSERT_EQ(relay->struck(), ++struck) << bytes;
        }
    }
    for (int i = 0; i < 20; ++i) {
        FakePeer control = collector.accept();
        if (!control.readLine().starts_with("vx_ctrl_msg_req:")) continue;  // one of the broken
        control.send(
            "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=1;retryPolicy=3%1%50%10;"
            "supportedProtocols=" +
            protocol() + "\n");
        if (control.readLine().starts_with("vx_control_req:action=reconnect;heartBeat")) return;
    }
    FAIL() << "no connection stands";
}

INSTANTIATE_TEST_SUITE_P(Protocols, LwsLink, testing::Values("WS", "WSS"));

}  // namespace
}  // namespace vx::test
