#include "commonlibc/VXDataThread.h"

#include <functional>
#include <string>
#include <utility>

#include "tests/support/link_fixture.h"

namespace vx::test {
namespace {

void dump(const std::string& text) {
    dumpData(text.data(), static_cast<std::int64_t>(text.size()));
}

// An instance whose active collector is a socket of the test; upper floors answer with records of their own.
class DataThread : public LinkFixture {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        vxUpcalls.dumpFpFromBusyList = [] {
            dump("3,incomplete\n");
            flushCommonData();
        };
        vxUpcalls.dumpNdDataOverRecord = [] {
            vxCurrent()->Server.isTenRecordDump = 1;
            vxCurrent()->Server.tenRecordWritten = 1;
            dump("10,\n");
        };
        vxUpcalls.replayMetaData = [] { dump("7,replayed\n"); };
        vx_word_set(app->VXSys.bciDataBufferMaxCount, 4);
        vx_word_set(app->VXSys.bciDataBufferMaxSize, 65536);
        vx_word_set(app->VXSys.sendTagRecords, 0);
    }
    void TearDown() override {
        LinkFixture::TearDown();
        proxyStopFlag = 0;
    }

    void startRun() {
        Server_t& server = app->Server;
        server.tenRecordWritten = server.isTenRecordDump = 0;
        app->data.lastDataHeartbeatTime = 0;
        server.bciDataRunning = server.testRunRunning = 1;
        ASSERT_EQ(check_data_thread(), 0);
    }
    // As the dispatcher does it: the 10 record first, then the run flags.
    void stopRun() {
        vxUpcalls.dumpNdDataOverRecord();
        app->Server.testRunRunning = app->Server.bciDataRunning = 0;
    }
    // Accepts a connection and takes its connect line and the empty line behind it.
    FakePeer acceptAnnounced() {
        FakePeer announced = acceptStream("vx_data_msg_req:");
        EXPECT_EQ(announced.readLine(), "");
        return announced;
    }
    bool ended() {
        return eventually([&] { return !app->data.data_thread_running; });
    }
};

const std::string kNewConnection = "99,NewConnection,FPGVersion:1.0";

TEST_F(DataThread, AnnouncesItselfSendsAndEndsWithOneTenRecord) {
    vx_word_set(app->VXSys.sendTagRecords, 1);
    setSharedText(app->retired, app->VXBCISetting.tags, "{\"a\":1}");
    setSharedText(app->retired, app->VXBCISetting.attributes, "{\"b\":2}");
    startRun();
    peer = acceptAnnounced();
    EXPECT_EQ(peer.readLine(), kNewConnection);
    EXPECT_EQ(peer.readLine(), "7,replayed");
    EXPECT_EQ(peer.readLine(), "110,{\"a\":1}");
    EXPECT_EQ(peer.readLine(), "111,{\"b\":2}");
    EXPECT_EQ(check_data_thread(), 1);  // one at a time
    dump("2,first\n");
    EXPECT_EQ(peer.readLine(), "2,first");
    ASSERT_TRUE(eventually([&] { return app->data.lastDataHeartbeatTime != 0; }));
    clockAheadUs = 300000000;
    EXPECT_EQ(peer.readLine(), "") << "a heartbeat";
    dump("2,last\n");
    stopRun();
    EXPECT_EQ(peer.readToEnd(), "2,last\n10,\n");
    EXPECT_TRUE(ended());
    EXPECT_EQ(app->data.controlCommunicationBusyFlag, 0);
}

TEST_F(DataThread, ALostControlLinkStillGetsTheEndOfTheRunAndOneThatIsGivenUpNothing) {
    const std::pair<std::function<void()>, const char*> rows[] = {
        {[&] { app->Server.testRunRunning = 0; }, "3,incomplete\n10,\n"},  // nobody has written a 10 record
        {[&] { app->control.controlConnClosed = 1; }, ""},
        {[&] { app->control.proxyStopRequested = 1; }, ""},
    };
    for (const auto& [order, rest] : rows) {
        app->control.controlConnClosed = 0;
        startRun();
        peer = acceptAnnounced();
        EXPECT_EQ(peer.readLinesUpTo("7,").back(), "7,replayed");
        order();
        EXPECT_EQ(peer.readToEnd(), rest);
        EXPECT_TRUE(ended());
        EXPECT_EQ(app->Server.draining, 0);
    }
}

TEST_F(DataThread, WhatWasWrittenIsReceivedOrCountedThroughResetOutageStallAndStop) {
    std::uint64_t written = 0;
    const auto writeOne = [&] { dump("2," + std::to_string(written++) + std::string(5000, 'x') + "\n"); };
    const auto countIn = [](const std::string& text) {
        std::uint64_t count = 0;
        for (const char* end : {"x\n", "10,\n"})
            for (std::size_t at = text.find(end); at != std::string::npos; at = text.find(end, at + 1))
                ++count;
        return count;
    };
    startRun();
    FakePeer first = acceptAnnounced();
    for (int i = 0; i < 100; ++i) writeOne();
    std::string firstText, secondText;
    ASSERT_TRUE(eventually([&] {  // what a reset found unread would be lost
        firstText += first.readToEnd(0.01);
        return countIn(firstText) + app->data.chain.recordsDropped == written;
    }));
    EXPECT_GT(countIn(firstText), 30u);
    ASSERT_TRUE(eventually([&] { return !app->data.chain.VXCollectorBB.load(); }));  // all acknowledged
    first.reset();
    // The next connection is made, and nobody reads it.
    ASSERT_TRUE(eventually([&] {
        writeOne();
        return app->data.chain.recordsDropped > 50;
    }));
    FakePeer second = acceptAnnounced();
    EXPECT_EQ(second.readLine(), kNewConnection) << "in front of what waited";
    secondText = second.readToEnd(0.3);
    for (int i = 0; i < 2000; ++i) writeOne();
    stopRun();
    ++written;  // the 10 record
    secondText += second.readToEnd();
    EXPECT_TRUE(secondText.starts_with("2,")) << secondText.substr(0, 60);
    EXPECT_TRUE(ended());
    EXPECT_EQ(countIn(firstText + secondText) + app->data.chain.recordsDropped, written);
}

TEST_F(DataThread, AnOrderToCloseEndsTheConnectionAndAReplayIsMadeWhenAsked) {
    startRun();
    FakePeer first = acceptAnnounced();
    EXPECT_EQ(first.readLine(), kNewConnection);
    app->Server.doNotDumpMetaData = 1;
    app->VXSys.dataConnState = 0;
    EXPECT_TRUE(first.ended());
    FakePeer second = acceptAnnounced();
    EXPECT_EQ(second.readLine(), kNewConnection);
    EXPECT_EQ(second.readLine(), "7,replayed");
    EXPECT_TRUE(eventually([&] { return !app->Server.doNotDumpMetaData; }));
}

TEST_F(DataThread, AStalledCollectorHoldsUpNeitherProducersNorAStop) {
    startRun();
    peer = acceptAnnounced();
    ASSERT_TRUE(eventually([&] {
        dump(std::string(60000, 'x') + "\n");
        return app->VXSys.dataDropCount > 20;
    }));
    app->control.closeCtrlConFlag = 1;
    EXPECT_TRUE(eventually([&] {  // it gives what is on its way five seconds
        clockAheadUs += 10000;
        wallAheadUs -= 30000;  // whatever the clock is set to
        return !app->data.data_thread_running;
    }));
    EXPECT_TRUE(peer.ended());
    EXPECT_FALSE(peer.readToEnd().ends_with("10,\n"));
}

TEST_F(DataThread, AStopEndsAWaitForTheNextAttempt) {
    static std::atomic<bool> waits;
    waits = false;
    const auto sleep = [](std::int64_t) {
        waits = true;
        ::usleep(1000);
    };
    vxlb_set_clock_hooks({.now_us = nullptr, .sleep_us = sleep, .random_byte = nullptr});
    collector.stopListening();
    app->control.retryInterval = 3600000000000;
    startRun();
    EXPECT_TRUE(eventually([] { return waits.load(); }));
    app->Server.testRunRunning = 0;
    EXPECT_TRUE(ended());
}

TEST_F(DataThread, AServiceStopSendsWhatTheChainHoldsAndNoTenRecord) {
    std::atomic<vxApplication*> instances[2]{nullptr, app};
    VXProxyInstance = instances;
    VXProxy.numInstance = 2;
    startRun();
    peer = acceptAnnounced();
    EXPECT_FALSE(vxDataThreadsDrained());
    EXPECT_EQ(peer.readLinesUpTo("7,").back(), "7,replayed");
    dump("2,just written\n");
    proxyStopFlag = 1;
    app->Server.testRunRunning = 0;  // what other threads do meanwhile changes nothing
    EXPECT_EQ(peer.readToEnd(), "2,just written\n");
    EXPECT_TRUE(eventually(vxDataThreadsDrained));
    VXProxyInstance = nullptr;
    VXProxy.numInstance = 0;
}

}  // namespace
}  // namespace vx::test
