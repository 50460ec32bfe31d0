#include "commonlibc/control_thread.h"

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/link_fixture.h"

namespace vx::test {
namespace {

const std::string kReply =
    "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=1;retryPolicy=3%1%2%10;ProtoVersion=1;"
    "supportedProtocols=TCP:";
const std::string kHeartbeat =
    "vx_control_req:action=reconnect;heartBeat 1;dataConnState=1;AutosensorConnState=1;";

const std::string kRefusedReply = "vx_ctrl_msg_rep:result=Error;";

// Lines and replies on the test's own thread.
class ControlLines : public LinkFixture {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        lines.clear();
        vxUpcalls.handleUploadDownload = [](char* line) { lines.emplace_back(line); };
        app->collectors.supportedProtocolArray[0] = kProtocolTCP;
        app->collectors.supportedProtocolArray[1] = kProtocolWS;
        app->VXBCISetting.vxcPort = collector.port();
        app->control.ActiveAgentProtocolIndex = kProtocolTCP;
    }
    ctrlBufInfo_t& info() { return app->control.ctrlBufInfo; }
    // Bytes as a read leaves them; as many as fit.
    std::size_t receive(const std::string& bytes) {
        const auto room = static_cast<std::size_t>(kControlBufSize - info().writeOffset);
        const std::size_t count = std::min(room, bytes.size());
        std::memcpy(info().read_socket_buf + info().writeOffset, bytes.data(), count);
        info().writeOffset += static_cast<std::int32_t>(count);
        info().readBytes += static_cast<std::int32_t>(count);
        info().read_socket_buf[info().writeOffset] = '\0';
        return count;
    }
    void split(const std::string& bytes) {
        for (std::size_t at = 0; at < bytes.size();) {
            at += receive(bytes.substr(at));
            processControlConnectionMessage(&info());
        }
    }
    std::string reply(const std::string& more = "") const {
        return kReply + std::to_string(collector.port()) + more + "\n";
    }

    inline static std::vector<std::string> lines;
};

const std::string kTwoLines("\0\0download_file_req one\n\0\ndownload_file_req two\n", 48);
const std::vector<std::string> kBoth = {"download_file_req one", "download_file_req two"};

TEST_F(ControlLines, AreTheSameAtEveryCut) {
    for (std::size_t cut = 0; cut <= kTwoLines.size(); ++cut) {
        lines.clear();
        split(kTwoLines.substr(0, cut));
        split(kTwoLines.substr(cut));
        EXPECT_EQ(lines, kBoth) << "cut after " << cut;
        EXPECT_EQ(info().readBytes + info().readOffset + info().writeOffset, 0);
    }
}

TEST_F(ControlLines, OneThatFillsTheBufferIsPassedOverUpToItsEnd) {
    const std::string longest = "download_file_req " + std::string(kControlBufSize - 19, 'x');
    split(longest + "\n");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].size(), longest.size());
    lines.clear();
    split(std::string(kControlBufSize * 2 + 7, 'y') + "\n" + kTwoLines);
    EXPECT_EQ(lines, kBoth);
}

TEST_F(ControlLines, AReplyIsJudgedAndPassedOn) {
    const std::string ok = "vx_ctrl_msg_rep:result=Ok;state=",
                      beat = "vx_control_req:action=reconnect;heartBeat";
    const struct {
        std::string received;
        int verdict;
        bool open;          // the connection stands
        bool replied;       // who registers from now on is told by the registration
        std::string agent;  // line that the agent got first
    } rows[] = {
        {kRefusedReply + "x=1\n", kReplyRefused, false, false, kRefusedReply + "x=1;procIndex=0"},
        {ok + "0;\n", kReplyRefused, false, false, ok + "0;;procIndex=0"},
        {ok + "1;\n", kReplyChangeProtocol, false, false, ok + "1;;procIndex=0"},
        {ok + "1;supportedProtocols=WS:1\n", kReplyChangeProtocol, false, false,
         ok + "1;supportedProtocols=WS:1;procIndex=0"},
        {ok + "1;supportedProtocols=TCP:1\n", kReplyGoOn, true, true,
         ok + "1;supportedProtocols=TCP:1;procIndex=0"},
        {"hello\n", kReplyGoOn, false, false, kNoLine},
        {beat + " 1;dataConnState=0;\nvx_ctrl_msg_rep:result=O", kReplyGoOn, true, false,
         beat + " 1;dataConnState=0;"},
        {beat + "\n", kReplyGoOn, false, false, beat},  // of two fields
        {"zor_saas_auth_agent_msg_rep:status=ERROR;x\n", kReplyGoOn, false, false, kNoLine},
    };
    for (const auto& row : rows) {
        connect();
        controlSockBufReset(*app);
        app->Server.replyReceived = 0;
        app->control.ActiveAgentProtocolIndex = kProtocolTCP;
        receive(row.received);
        EXPECT_EQ(handle_vxc_con_res_msg(&info()), row.verdict) << row.received;
        EXPECT_EQ(app->control.controlSocket.get() != nullptr, row.open) << row.received;
        EXPECT_EQ(app->Server.replyReceived, row.replied ? 1 : 0) << row.received;
        EXPECT_EQ(toAgent(row.agent == kNoLine ? 0.05 : kPeerSeconds), row.agent);
        vxlb_shared_close(app->control.controlSocket);
    }
}

TEST_F(ControlLines, AGoodReplyNumbersTheInstanceAndTellsEveryProcess) {
    connect();
    app->Server.bciDataRunning = app->Server.asDataRunning = 1;
    const std::string line =
        kReply + std::to_string(collector.port()) + ";procIndex=65539;" + std::string(700, 'x');
    receive(line + "\n");
    EXPECT_EQ(handle_vxc_con_res_msg(&info()), kReplyGoOn);
    EXPECT_EQ(toAgent(), line + ";procIndex=0");
    EXPECT_EQ(app->Server.replyReceived, 1);
    EXPECT_EQ(app->Server.flowPathInstanceInitialID, std::int64_t{3 + 65536} << 46);
    EXPECT_EQ(app->Server.bciDataRunning + app->Server.asDataRunning, 0);
    control_connection_cleanup();
    EXPECT_EQ(app->Server.replyReceived, 0);
}

TEST_F(ControlLines, AReplyBehindAHeartbeatIsTakenWhereverTheReadEnded) {
    const std::string bytes = kHeartbeat + "\n" + reply() + kTwoLines;
    for (std::size_t cut = kHeartbeat.size() + 1; cut <= bytes.size(); cut += 5) {
        connect();
        lines.clear();
        controlSockBufReset(*app);
        receive(bytes.substr(0, cut));
        ASSERT_EQ(handle_vxc_con_res_msg(&info()), kReplyGoOn) << cut;
        processControlConnectionMessage(&info());
        split(bytes.substr(cut));
        EXPECT_EQ(app->control.lateVerdict, 0);
        EXPECT_EQ(app->Server.replyReceived, 1) << cut;
        EXPECT_EQ(lines, kBoth);
        EXPECT_EQ(toAgent(), kHeartbeat);  // once, though it stood in the first buffer
        EXPECT_TRUE(toAgent().starts_with("vx_ctrl_msg_rep:result=Ok;"));
        control_connection_cleanup();
    }
}

TEST_F(ControlLines, AReplyThatBreaksOffClosesTheConnection) {
    connect();
    peer.send("vx_ctrl_msg_rep:res");
    peer.close();
    EXPECT_EQ(rec_control_con_rep_msg_from_vxc(&info()), kReplyGoOn);
    EXPECT_EQ(app->control.controlSocket.get(), nullptr);
    EXPECT_EQ(info().readBytes, 0);
    EXPECT_EQ(handle_msg_from_vxc(&info()), 1);  // the read loop finds no connection

    connect();
    vx_word_set(app->VXSys.fileReadTimeout, 1000);
    EXPECT_EQ(rec_control_con_rep_msg_from_vxc(&info()), kReplyGoOn);
    EXPECT_EQ(app->control.controlSocket.get(), nullptr);
}

// A control thread against a collector on loopback. Its settings come from a file.
class ControlThread : public LinkFixture {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        writeSettings(collector.port());
        app->control.pollTimeUs = 2000;
        app->VXSys.dataConnState = 1;
    }
    void TearDown() override {
        app->control.proxyStopRequested = 1;
        vxlb_shared_shutdown(app->control.controlSocket);
        vxJoinControlThread(*app);
        EXPECT_EQ(app->control.controlThreadId, 0);
        LinkFixture::TearDown();
    }
    void writeSettings(int port, const std::string& more = "") {
        write("vxsettings.conf",
              "vxcHost=127.0.0.1\nCONNECTION_RETRY_TIME_INTERVAL=1\nVXC_COMM_PROTOCOL=TCP:" +
                  std::to_string(port) + "\n" + more);
    }
    bool isConnected() { return bool(acceptStream("vx_ctrl_msg_req:appName=")); }
};

TEST_F(ControlThread, AReplyThatRefusesBehindAHeartbeatLeadsToAnotherAttempt) {
    ASSERT_EQ(vxStartControlThread(app), 0);
    FakePeer late = collector.accept();
    late.readLine();
    late.send(kHeartbeat + "\n");
    late.send("vx_ctrl_msg_rep:result=Ok;status=RUNNING;state=0;\n");
    EXPECT_TRUE(late.ended());
    EXPECT_TRUE(isConnected());
}

TEST_F(ControlThread, CollectorsThatSendItAwayAreRunAgainstAFewTimesOnly) {
    static std::atomic<std::int64_t> slept;
    slept = 0;
    const auto sleep = [](std::int64_t us) {
        slept += us;
        ::usleep(1000);
    };
    vxlb_set_clock_hooks({.now_us = nullptr, .sleep_us = sleep, .random_byte = nullptr});
    ASSERT_EQ(vxStartControlThread(app), 0);
    for (int attempt = 0; attempt < 6; ++attempt) {
        FakePeer away = collector.accept();
        away.readLine();
        EXPECT_EQ(slept, attempt < 5 ? 0 : 1000000) << attempt;
        away.send("vx_ctrl_msg_rep:result=Ok;status=RUNNING;state=0;\n");
        EXPECT_TRUE(away.ended());
    }
}

TEST_F(ControlThread, FailedAttemptsAreCountedAndAChangedFileIsRead) {
    FakeCollector other;
    const int gone = other.port();
    other.stopListening();
    writeSettings(gone);
    ASSERT_EQ(vxStartControlThread(app), 0);
    ASSERT_TRUE(eventually([&] { return app->control.closeCtrlConFlag == 1; }));  // set by a failed attempt
    writeSettings(collector.port(), "# changed\n");
    EXPECT_TRUE(isConnected());
}

}  // namespace
}  // namespace vx::test
