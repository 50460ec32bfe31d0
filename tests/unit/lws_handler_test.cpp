#include "commonlibc/lws_handler.h"

#include <memory>
#include <string>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/control_outbox.h"
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
        vx_word_set(app->VXSys.bciDataBufferMaxCount, 8);
        vx_word_set(app->VXSys.bciDataBufferMaxSize, 65536);
        writeSettings();
    }
    void TearDown() override {
        app->control.proxyStopRequested = 1;
        vxJoinControlThread(*app);
        LinkFixture::TearDown();
    }
    static std::string name() { return GetParam(); }
    std::string protocol() const { return name() + ":" + std::to_string(relay->port()); }
    void writeSettings(const std::string& more = "") {
        write("vxsettings.conf", "vxcHost=localhost\nCONNECTION_RETRY_TIME_INTERVAL=1\nvxcPort=" +
                                     std::to_string(relay->port()) + "\nVXC_COMM_PROTOCOL=" + protocol() +
                                     "\n" + more);
    }
    // Accepts the control connection and answers its connect line; the line.
    std::string acceptControl(FakePeer& control) {
        control = collector.accept();
        std::string line = control.readLine();
        EXPECT_TRUE(
            control.send("vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=1;retryPolicy=3%1%50%10;"
                         "ProtoVersion=1;supportedProtocols=" +
                         protocol() + "\n"));
        EXPECT_TRUE(toAgent().starts_with("vx_ctrl_msg_rep:result=Ok;"));
        return line;
    }

    std::unique_ptr<TestCertificate> certificate;
    std::unique_ptr<WsBridge> front;
    std::unique_ptr<TcpRelay> relay;  // in front of it
};

TEST_P(LwsLink, ACollectorThatDoesNotReadHoldsUpNeitherProducersNorTheNextConnection) {
    ASSERT_EQ(vxStartControlThread(app), 0);
    FakePeer control;
    acceptControl(control);
    control.send("vx_control_req:action=start_instrumentation;testIdx=4;\n");
    const FakePeer data = acceptStream("vx_data_msg_req:"),
                   autoSensor = acceptStream("auto_sensor_thread_hotspot_data_req:");
    ASSERT_TRUE(data && autoSensor && toAgent().starts_with("vx_control_req:"));
    front->holdReading(true);
    const std::string record = "4," + std::string(60000, 'x') + "\n";
    EXPECT_TRUE(eventually([&] {
        dumpData(record.data(), static_cast<std::int64_t>(record.size()));
        return app->VXSys.dataDropCount > 20;
    }));
    app->control.closeCtrlConFlag = 1;
    acceptControl(control);
    EXPECT_TRUE(eventually([&] { return !app->data.data_thread_running; }));
    EXPECT_GT(app->data.chain.recordsDropped, 20U);
}

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
        if (!control.readLine(1).starts_with("vx_ctrl_msg_req:")) continue;  // one of the broken
        control.send(
            "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=1;retryPolicy=3%1%50%10;"
            "supportedProtocols=" +
            protocol() + "\n");
        if (control.readLine(1).starts_with("vx_control_req:action=reconnect;heartBeat")) return;
    }
    FAIL() << "no connection stands";
}

INSTANTIATE_TEST_SUITE_P(Protocols, LwsLink, testing::Values("WS", "WSS"));

}  // namespace
}  // namespace vx::test
