#include "commonlibc/VXDataThread.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_sock.h"
#include "tests/support/app_fixture.h"
#include "tests/support/by_name.h"
#include "tests/support/dumped_records.h"
#include "tests/support/fake_collector.h"

namespace vx::test {
namespace {

constexpr double kThreadSeconds = 10;
std::atomic<std::int64_t> clockAheadUs;  // how far the service's clock is ahead of the system's

std::int64_t shiftedNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count() + clockAheadUs;
}
void shortSleep(std::int64_t) {
    ::usleep(1000);
}

void dump(const std::string& text) {
    dumpData(text.data(), static_cast<std::int64_t>(text.size()));
}

bool eventually(const auto& condition, double seconds = kThreadSeconds) {
    const auto deadline = deadlineIn(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        ::usleep(1000);
    }
    return false;
}

// An instance whose active collector is a socket of the test; upper floors answer with records of their own.
class DataThread : public AppFixture {
protected:
    void SetUp() override {
        AppFixture::SetUp();
        std::signal(SIGPIPE, SIG_IGN);
        clockAheadUs = 0;
        vxlb_set_clock_hooks({.now_us = shiftedNow, .sleep_us = shortSleep, .random_byte = nullptr});
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
        vxMakeCollectorArray(*app);
        app->collectors.vxc_server_arr[0] = {1, collector.port(), "127.0.0.1", 0};
        app->collectors.activeVXCIndex = 0;
        app->collectors.num_vxc_config = 1;
        app->control.lws_active = 0;
        app->control.retryInterval = 1000;
        vx_word_set(app->VXSys.bciDataBufferMaxCount, 4);
        vx_word_set(app->VXSys.bciDataBufferMaxSize, 65536);
        vx_word_set(app->VXSys.sendTagRecords, 0);
    }
    void TearDown() override {
        app->control.proxyStopRequested = 1;
        EXPECT_TRUE(ended());
        vxJoinDataThread(*app);
        proxyStopFlag = 0;
        vxUpcalls = VXUpcalls{};
        vxlb_set_clock_hooks({});
        vxFreeChain(app->data.chain);
        AppFixture::TearDown();
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
    // Accepts a connection and takes its connect line, the empty line behind it and the 99 record.
    FakePeer acceptAnnounced() {
        FakePeer peer = collector.accept();
        EXPECT_TRUE(peer.readLine().starts_with("vx_data_msg_req:"));
        EXPECT_EQ(peer.readLine(), "");
        return peer;
    }
    bool ended(double seconds = kThreadSeconds) {
        return eventually([&] { return !app->data.data_thread_running; }, seconds);
    }
    // Fills the chain against a peer that does not read, until records are refused.
    void stall() {
        const std::string record = std::string(60000, 'x') + "\n";
        ASSERT_TRUE(eventually([&] {
            dump(record);
            return app->VXSys.dataDropCount > 20;
        }));
    }

    FakeCollector collector{4096};
};

const std::string kNewConnection = "99,NewConnection,FPGVersion:1.0";

TEST_F(DataThread, AnnouncesItselfSendsAndEndsWithOneTenRecord) {
    vx_word_set(app->VXSys.sendTagRecords, 1);
    setSharedText(app->retired, app->VXBCISetting.tags, "{\"a\":1}");
    setSharedText(app->retired, app->VXBCISetting.attributes, "{\"b\":2}");
    startRun();
    FakePeer peer = acceptAnnounced();
    EXPECT_EQ(peer.readLine(), kNewConnection);
    EXPECT_EQ(peer.readLine(), "7,replayed");
    EXPECT_EQ(peer.readLine(), "110,{\"a\":1}");
    EXPECT_EQ(peer.readLine(), "111,{\"b\":2}");
    EXPECT_EQ(app->Server.isTenRecordDump, 1);
    EXPECT_EQ(app->VXSys.dataConnState, 1);
    EXPECT_EQ(check_data_thread(), 1);  // one at a time
    dump("2,first\n");
    EXPECT_EQ(peer.readLine(), "2,first");
    dump("2,last\n");
    stopRun();
    EXPECT_EQ(peer.readToEnd(), "2,last\n10,\n");
    EXPECT_TRUE(ended());
    EXPECT_EQ(app->data.controlCommunicationBusyFlag, 0);
    EXPECT_EQ(app->data.dataSocket.get(), nullptr);
}

TEST_F(DataThread, ALostControlLinkStillGetsTheEndOfTheRun) {
    startRun();
    FakePeer peer = acceptAnnounced();
    EXPECT_EQ(peer.readLine(), kNewConnection);
    app->Server.testRunRunning = 0;  // nobody has written a 10 record
    EXPECT_EQ(peer.readToEnd(), "7,replayed\n3,incomplete\n10,\n");
    EXPECT_TRUE(ended());
    EXPECT_EQ(app->Server.draining, 0);
}

TEST_F(DataThread, ATenthStartIsLikeTheFirst) {
    for (int run = 0; run < 10; ++run) {
        startRun();
        FakePeer peer = acceptAnnounced();
        EXPECT_EQ(peer.readLine(), kNewConnection);
        stopRun();
        EXPECT_EQ(peer.readToEnd(), "7,replayed\n10,\n") << run;
        ASSERT_TRUE(ended());
        app->Server.testRunRunning = 1;
        dump("left over\n");  // not sent by the next thread
    }
    EXPECT_EQ(app->data.chain.writeListSize, 4);
}

TEST_F(DataThread, ReconnectsAfterALossAndSendsWhatWaited) {
    startRun();
    FakePeer first = acceptAnnounced();
    EXPECT_EQ(first.readLine(), kNewConnection);
    EXPECT_EQ(first.readLine(), "7,replayed");
    first.reset();
    FakePeer second;
    ASSERT_TRUE(eventually([&] {
        dump("2,while away\n");
        second = collector.accept(0);
        return static_cast<bool>(second);
    }));
    const std::vector<std::string> lines = second.readLinesUpTo(kNewConnection);
    EXPECT_TRUE(lines.front().starts_with("vx_data_msg_req:"));
    EXPECT_EQ(lines.back(), kNewConnection);
    dump("2,back again\n");
    const std::vector<std::string> later = second.readLinesUpTo("2,back");
    EXPECT_EQ(later.back(), "2,back again");
    EXPECT_EQ(std::ranges::count(later, "7,replayed"), 0);  // once a run, unless it is asked for
}

TEST_F(DataThread, WhatWasWrittenIsReceivedOrCountedThroughResetOutageStallAndStop) {
    std::uint64_t written = 0, received = 0;
    const auto writeOne = [&] { dump("2," + std::to_string(written++) + std::string(5000, 'x') + "\n"); };
    const auto count = [&](const std::string& text) {
        for (const char* end : {"x\n", "10,\n"})
            for (std::size_t at = text.find(end); at != std::string::npos; at = text.find(end, at + 1))
                ++received;
        return text;
    };
    startRun();
    FakePeer first = acceptAnnounced();
    for (int i = 0; i < 100; ++i) writeOne();
    count(first.readToEnd(0.3));
    EXPECT_GT(received, 30u);
    ASSERT_TRUE(eventually([&] { return !app->data.chain.VXCollectorBB.load(); }));  // all acknowledged
    first.reset();
    // The next connection is made, and nobody reads it.
    ASSERT_TRUE(eventually([&] {
        writeOne();
        return app->data.chain.recordsDropped > 50;
    }));
    FakePeer second = acceptAnnounced();
    const std::string text = count(second.readToEnd(0.3));
    EXPECT_TRUE(text.starts_with(kNewConnection + "\n2,")) << text.substr(0, 60);  // in front of what waited
    for (int i = 0; i < 2000; ++i) writeOne();
    stopRun();
    ++written;  // the 10 record
    count(second.readToEnd());
    EXPECT_TRUE(ended());
    EXPECT_EQ(received + app->data.chain.recordsDropped, written);
}

TEST_F(DataThread, GoesToTheCollectorOfTheControlConnection) {
    FakeCollector backup;
    setBackupVXC("127.0.0.1", backup.port());
    app->collectors.activeOnMaster = 1;
    app->collectors.dr_switch_pending = 1;
    vxChooseEndpoint(false);  // the backup; the next choice starts from the master
    startRun();
    EXPECT_TRUE(backup.accept().readLine().starts_with("vx_data_msg_req:"));
    EXPECT_FALSE(collector.accept(0));
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

TEST_F(DataThread, SendsAHeartbeatAsAnEmptyLine) {
    startRun();
    FakePeer peer = acceptAnnounced();
    EXPECT_EQ(peer.readLinesUpTo("7,").back(), "7,replayed");
    ASSERT_TRUE(eventually([&] { return app->data.lastDataHeartbeatTime != 0; }));
    clockAheadUs = 300000000;
    EXPECT_EQ(peer.readLine(), "");
}

TEST_F(DataThread, StopWordsEndItWithoutATenRecord) {
    std::atomic<std::int32_t>* const stopRequested = &app->control.proxyStopRequested;
    for (int word = 0; word < 2; ++word) {
        startRun();
        FakePeer peer = acceptAnnounced();
        EXPECT_EQ(peer.readLinesUpTo("7,").back(), "7,replayed");
        if (word == 0) app->control.controlConnClosed = 1;
        if (word == 1) *stopRequested = 1;
        EXPECT_EQ(peer.readToEnd(), "") << word;
        EXPECT_TRUE(ended());
        app->control.controlConnClosed = 0;
    }
}

TEST_F(DataThread, AStalledCollectorHoldsUpNeitherProducersNorAStop) {
    startRun();
    FakePeer peer = acceptAnnounced();
    stall();
    app->control.closeCtrlConFlag = 1;
    ::usleep(1500000);  // the thread stands in a send of at most 1 s; behind it, it tries to drain
    clockAheadUs = 5000000;
    EXPECT_TRUE(ended(3));
    EXPECT_FALSE(peer.readToEnd(0.2).ends_with("10,\n"));
}

TEST_F(DataThread, AStopEndsAWaitForTheNextAttempt) {
    collector.stopListening();
    app->control.retryInterval = 3600000000000;
    startRun();
    ::usleep(20000);
    EXPECT_EQ(app->data.data_thread_running, 1);
    app->Server.testRunRunning = 0;
    EXPECT_TRUE(ended(2));
}

TEST_F(DataThread, AServiceStopSendsWhatTheChainHoldsAndNoTenRecord) {
    std::atomic<vxApplication*> table[2]{nullptr, app};
    VXProxyInstance = table;
    VXProxy.numInstance = 2;
    startRun();
    FakePeer peer = acceptAnnounced();
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

TEST_F(DataThread, WithoutBuffersItEndsAtOnce) {
    vx_word_set(app->VXSys.bciDataBufferMaxSize, 0);
    startRun();
    EXPECT_TRUE(ended());
    EXPECT_EQ(app->data.controlCommunicationBusyFlag, 0);  // the next start may change the size
}

// The sending functions themselves, on the test's thread.
class DataSender : public DataThread {
protected:
    void SetUp() override {
        DataThread::SetUp();
        openDumping(*app, 2, 8000000);
        app->Server.bciDataRunning = 1;
    }
    FakePeer connect() {
        char error[kSockErrorSize];
        apr_socket_t* socket =
            vxlb_create_client_con("127.0.0.1", collector.port(), app->pool, 1000000, error);
        apr_socket_timeout_set(socket, 1000);
        vxlb_shared_put(app->data.dataSocket, socket);
        return collector.accept();
    }
    void TearDown() override {
        vxlb_shared_close(app->data.dataSocket);
        DataThread::TearDown();
    }
};

TEST_F(DataSender, GoesOnWhereAPeerStoppedTakingBytes) {
    FakePeer peer = connect();
    std::string sent;
    while (sent.size() < 7000000) sent += std::to_string(sent.size()) + ",";
    dump(sent);
    movePartialToReadList();
    ASSERT_EQ(processData(0), kSendNoBytes);
    const VXBufferNode* node = app->data.chain.VXCollectorBB;
    EXPECT_GT(node->offset, 0);
    EXPECT_LT(node->offset, node->use_len);
    std::string got;
    std::thread reader([&] { got = peer.readToEnd(); });
    // The node goes back when the other side has acknowledged it.
    EXPECT_TRUE(eventually([&] { return processData(0) == kSendDone && !app->data.chain.VXCollectorBB; }));
    EXPECT_EQ(app->data.chain.writeListTail->use_len, 0);
    vxlb_shared_close(app->data.dataSocket);
    reader.join();
    EXPECT_TRUE(got == sent);
}

TEST_F(DataSender, ALostConnectionKeepsTheNodeAndItsOffset) {
    FakePeer peer = connect();
    dump("2,kept\n");
    movePartialToReadList();
    vxlb_shared_shutdown(app->data.dataSocket);
    EXPECT_EQ(processData(0), kSendLost);
    EXPECT_EQ(app->data.chain.VXCollectorBB.load()->offset, 0);
    vxlb_shared_close(app->data.dataSocket);
    EXPECT_EQ(processData(0), kSendLost);  // without a connection
}

TEST_F(DataSender, BytesOfAFailedSendOverLwsCountAsSent) {
    static std::string taken;
    taken.clear();
    app->control.lws_active = 1;
    app->data.dataWsi = this;
    vxUpcalls.send_data_via_lws_socket = [](const char* data, std::int32_t length) {
        taken.append(data, static_cast<std::size_t>(length));
        return taken.size() == 4 ? 1 : 0;
    };
    dump("2,a\n");
    movePartialToReadList();
    EXPECT_EQ(dataConnService(1), kSendLost);
    dump("2,bc\n");
    movePartialToReadList();
    EXPECT_EQ(dataConnService(0), kSendDone);
    EXPECT_EQ(taken, "2,a\n2,bc\n");
    app->Server.testRunRunning = 0;
    EXPECT_EQ(checkAndStopThread(), kThreadEnds);
    app->data.dataWsi = nullptr;
}

TEST_F(DataSender, AFlushOffTheDataThreadDoesNothing) {
    FakePeer peer = connect();
    dump("2,stays\n");
    flushCommonData();
    EXPECT_EQ(dumpedText(*app), "2,stays\n");
}

struct TextCase {
    const char* name;
    const char* text;
    std::string tags, attributes;  // the 110 and the 111 record
};
class IdentityRecords : public DataSender, public testing::WithParamInterface<TextCase> {};

TEST_P(IdentityRecords, AreWrittenForTextsThatSaySomething) {
    setSharedText(app->retired, app->VXBCISetting.tags, GetParam().text);
    setSharedText(app->retired, app->VXBCISetting.attributes, GetParam().text);
    tag_record();
    EXPECT_EQ(dumpedText(*app), GetParam().tags);
    clearDumped(*app);
    attr_record();
    EXPECT_EQ(dumpedText(*app), GetParam().attributes);
}

const std::string kLongText(6000, 'y');
INSTANTIATE_TEST_SUITE_P(Texts, IdentityRecords,
                         testing::ValuesIn<TextCase>({
                             {"none", nullptr, "", ""},
                             {"empty", "", "", ""},
                             {"empty_object", "{}", "110,{}\n", ""},
                             {"lines_in_it", "{\"a\":\n\"b\"}", "110,{\"a\": \"b\"}\n",
                              "111,{\"a\": \"b\"}\n"},
                             {"too_long", kLongText.c_str(), "110," + kLongText.substr(0, 5114) + "\n",
                              "111," + kLongText.substr(0, 5114) + "\n"},
                         }),
                         byName);

}  // namespace
}  // namespace vx::test
