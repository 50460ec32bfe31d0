#include "commonlibc/NIOThread.h"

#include <string>

#include "commonlibc/NIOConnection.h"
#include "commonlibc/NIODataDispatcher.h"
#include "tests/support/link_fixture.h"

namespace vx::test {
namespace {

const std::string kAutoSensorLine = "auto_sensor_thread_hotspot_data_req:";

class AutoSensorThread : public LinkFixture {
protected:
    // Starts the thread; its connection, announced, when there is somebody to take it.
    FakePeer start(bool reachable = true) {
        app->Server.asDataRunning = app->Server.testRunRunning = 1;
        setToStopThread(0);
        ASNioInit();
        EXPECT_EQ(create_autoSensor_thread(), 0);
        return reachable ? acceptStream(kAutoSensorLine) : FakePeer();
    }
    void stop() {
        setToStopThread(1);
        EXPECT_TRUE(ended());
    }
    bool ended() {
        return eventually([&] { return !app->autoSensor.autoSensor_thread_running; });
    }
    int dump(const std::string& text) {
        return dumpASData(text.data(), static_cast<std::int64_t>(text.size()));
    }
    VXBufferChain& chain() { return app->autoSensor.chain; }
};

TEST_F(AutoSensorThread, AnnouncesItselfSendsAndDrainsAtItsEnd) {
    vx_word_set(app->VXBCISetting.tierID, 7);
    vx_word_set(app->VXBCISetting.appID, 9);
    FakePeer remote = start();
    EXPECT_EQ(create_autoSensor_thread(), 1);  // one at a time
    EXPECT_TRUE(eventually([&] { return app->VXSys.autosensorConnState == 1; }));
    EXPECT_STREQ(app->autoSensor.hotspotPrefixID, "7|9|");
    EXPECT_EQ(dump("74,first\n"), 0);
    EXPECT_EQ(remote.readLine(), "74,first");
    dump("74,last\n");
    stop();
    EXPECT_EQ(remote.readToEnd(), "74,last\n");
    EXPECT_EQ(chain().recordsDropped, 0u);
}

TEST_F(AutoSensorThread, ComesBackAfterALossAndAnOrderWithWhatWaited) {
    FakePeer first = start();
    first.reset();
    dump("74,while away\n");
    FakePeer second = acceptStream(kAutoSensorLine);
    EXPECT_EQ(second.readLine(), "74,while away");
    ASSERT_TRUE(eventually([&] { return app->VXSys.autosensorConnState == 1; }));
    app->VXSys.autosensorConnState = 0;
    EXPECT_TRUE(second.ended());
    dump("74,later\n");
    EXPECT_EQ(acceptStream(kAutoSensorLine).readLine(), "74,later");
    EXPECT_EQ(chain().recordsDropped, 0u);
}

TEST_F(AutoSensorThread, EachStopWordEndsItWhereverItStands) {
    for (const bool reachable : {true, false}) {
        for (int word = 0; word < 6; ++word) {
            const FakePeer remote = start(reachable);
            if (word == 0) app->Server.testRunRunning = 0;
            if (word == 1) app->Server.asDataRunning = 0;
            if (word == 2) app->control.closeCtrlConFlag = 1;
            if (word == 3) app->control.controlConnClosed = 1;
            if (word == 4) app->control.proxyStopRequested = 1;
            if (word == 5) proxyStopFlag = 1;
            EXPECT_TRUE(ended()) << word;
            app->control.closeCtrlConFlag = app->control.controlConnClosed = 0;
            app->control.proxyStopRequested = proxyStopFlag = 0;
        }
        collector.stopListening();
    }
}

TEST_F(AutoSensorThread, AFullChainIsSentAtOnceForAMonitor) {
    vx_word_set(app->VXSys.ASDataBufferSize, 8);
    vx_word_set(app->VXSys.ASDataBufferMaxCount, 4);
    app->Server.asDataRunning = app->Server.testRunRunning = 1;
    ASNioInit();
    ASSERT_TRUE(startASVXCollectorCommunication());
    FakePeer remote = acceptStream(kAutoSensorLine);
    EXPECT_TRUE(dumpAndSendDataToVXC("74,abc\n74,def\n74,ghi\n", 21)) << "more than two nodes hold";
    for (int i = 0; i < 20; ++i) dumpAndSendDataToVXC("74,abc\n", 7);
    closeAutoSensorConnection();
    const auto received = static_cast<std::uint64_t>(std::ranges::count(remote.readToEnd(), '\n'));
    EXPECT_GE(received, 3u);
    vxDiscardChain(chain());
    EXPECT_EQ(received + chain().recordsDropped, 23u);
    EXPECT_FALSE(dumpAndSendDataToVXC("74,longer than two nodes\n", 25));
}

}  // namespace
}  // namespace vx::test
