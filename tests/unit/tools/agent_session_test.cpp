#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "commonlibc/vxlb_encode.h"
#include "tests/support/fake_proxy.h"
#include "tests/support/record_stream.h"
#include "tools/agent/vxagent.h"
#include "tools/agent/vxagent_lines.h"
#include "tools/agent/vxagent_link.h"
#include "tools/agent/vxagent_queue.h"

namespace vx::agent {
namespace {

using namespace test;

const std::string kReply = "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;procIndex=900;procIndex=5\n";
const std::string kStart =
    "vx_control_req:action=start_instrumentation;status=running;tierID=3;appID=4;vxAppServerID=-5;testIdx=11;"
    "filler=" +
    std::string(6000, 'x') + ";\n";
const std::string kStop = "vx_control_req:action=stop_instrumentation;status=stopping;\n";
const std::string kAck = "vx_ctrl_msg_rep:result=Ok;";

struct Frame {
    std::int32_t type;
    std::int64_t flowpath;
    std::string bytes;
};
Frame frameFrom(FakeProxyPeer& data) {
    constexpr std::size_t flowpathAt[] = {4, 32, 24, 4};
    const std::string bytes = data.frame();
    const VXByteView view(bytes.data(), bytes.size());
    const std::int32_t type = view.i32At(9);
    if (bytes.size() < 15 || bytes[0] != '^' || bytes.back() != '\n' || type < 0 || type > 3)
        return {-1, 0, bytes};
    return {type, view.i64At(14 + flowpathAt[type]), bytes};
}

class AgentSession : public testing::Test {
protected:
    void TearDown() override { vxagent_close(agent, 0); }

    void open(std::size_t queueBytes = 0) {
        vxagent_options options;
        vxagent_options_init(&options);
        options.port = proxy.port();
        options.application = "shop";
        options.tier = "web";
        options.server = "host1";
        options.agent = "nginx";
        options.pid = 4711;
        options.queue_bytes = queueBytes;
        options.retry_max_ms = 200;
        agent = vxagent_open(&options);
        ASSERT_TRUE(agent);
    }
    void registerAgent() {
        control = proxy.accept();
        registration = control.line();
        control.say(kReply);
    }
    void startInstrumentation() {
        control.say("\n" + kStart + "\n");
        EXPECT_EQ(control.line(), kAck);
    }
    // A data connection up to where records may come.
    FakeProxyPeer acceptData() {
        FakeProxyPeer peer = proxy.accept();
        dataLine = peer.line();
        return peer;
    }
    void openUntilSending(std::size_t queueBytes = 0) {
        open(queueBytes);
        registerAgent();
        startInstrumentation();
        data = acceptData();
        EXPECT_EQ(data.line(), "");
    }
    bool comes(int state) const {
        for (int i = 0; i < 5000; ++i) {
            if (statistics().state == state) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
    vxagent_statistics statistics() const {
        vxagent_statistics now;
        vxagent_get_statistics(agent, &now);
        return now;
    }
    std::int64_t report() {
        vxagent_transaction transaction{};
        transaction.url = "/cart|x?id=1";
        transaction.method = "GET";
        const std::int64_t number = vxagent_begin(agent, &transaction);
        vxagent_enter(agent, number, "Cart.show", 0);
        vxagent_method method{};
        method.name = "Cart.show";
        method.wall_us = 1500;
        vxagent_leave(agent, number, &method);
        vxagent_end(agent, number, 404, 0, 0);
        return number;
    }

    FakeProxy proxy;
    vxagent* agent = nullptr;
    FakeProxyPeer control, data;
    std::string registration, dataLine;
};

TEST_F(AgentSession, RegistersFollowsTheStartAndSendsRecords) {
    openUntilSending();
    EXPECT_TRUE(registration.starts_with("vx_ctrl_msg_req:appName=shop;vxAppServerHost=host1;tierName=web;"));
    EXPECT_NE(registration.find(";pid=4711;"), std::string::npos);
    EXPECT_NE(registration.find(";agentType=Java;"), std::string::npos);
    EXPECT_NE(registration.find(";agentName=nginx;"), std::string::npos);
    EXPECT_EQ(dataLine,
              "vx_data_msg_req:appName=shop;appID=4;vxAppServerID=-5;vxAppServerHost=host1;"
              "tierName=web;tierID=3;VXCollectorIP=127.0.0.1;VXCollectorPort=" +
                  std::to_string(proxy.port()) + ";testIdx=11;pid=4711;agentName=nginx");
    const std::int64_t number = report();
    EXPECT_EQ(number >> 46, 65536 + 5);
    EXPECT_EQ(report(), number + 1);
    const Frame start = frameFrom(data);
    EXPECT_EQ(start.type, 2);
    EXPECT_EQ(start.flowpath, number);
    EXPECT_NE(start.bytes.find("/cart%7Cx?id=1|GET\n"), std::string::npos);
    for (const std::int32_t type : {0, 1, 3}) {
        const Frame frame = frameFrom(data);
        EXPECT_EQ(frame.type, type);
        EXPECT_EQ(frame.flowpath, number);
    }
    EXPECT_EQ(vxagent_flush(agent, 5000), 1);
    EXPECT_EQ(statistics().sent_records, 8U);
    EXPECT_EQ(statistics().state, VXAGENT_SENDING);
}

TEST_F(AgentSession, MarksCalloutsAndExceptionsAndAnswersThreadDumps) {
    openUntilSending();
    vxagent_transaction transaction{};
    transaction.url = "/";
    transaction.caller = "9_8_7_6_0_0_Front_f1_h1";
    const std::int64_t number = vxagent_begin(agent, &transaction);
    vxagent_method method{};
    method.name = "Web.send";
    method.backend = "pay:80";
    vxagent_leave(agent, number, &method);
    method.callout = 1;
    vxagent_leave(agent, number, &method);
    vxagent_leave_by_exception(agent, number, &method);
    EXPECT_NE(frameFrom(data).bytes.find(transaction.caller), std::string::npos);
    struct Expected {
        std::int32_t done;
        bool numbered;
    };
    for (const Expected& expected : {Expected{0, false}, Expected{1, true}}) {
        const std::string exit = frameFrom(data).bytes;
        const VXByteView view(exit.data() + 14, exit.size() - 14);
        EXPECT_EQ(view.i32At(12), expected.done);
        EXPECT_EQ(view.i64At(60) != 0, expected.numbered);
        EXPECT_TRUE(exit.ends_with("Web.sendpay:80\n"));
    }
    const std::string thrown = data.frame();
    const VXByteView view(thrown.data(), thrown.size());
    EXPECT_EQ(view.i32At(9), 7);
    EXPECT_EQ(view.i32At(14), 3);
    EXPECT_EQ(view.i64At(14 + 12), number);
    EXPECT_TRUE(thrown.ends_with("Web.sendpay:80\n"));
    control.say("\nvx_meta_data_req:action=get_thread_dump;\n\n");
    const std::string dump = control.line();
    EXPECT_TRUE(dump.starts_with("thread_dump:Threads of process ")) << dump;
    EXPECT_NE(dump.find("$\"vxagent\" tid="), std::string::npos) << dump;
}

TEST_F(AgentSession, ReportsNothingWithoutInstrumentation) {
    open();
    EXPECT_EQ(report(), 0);
    registerAgent();
    EXPECT_TRUE(comes(VXAGENT_CONNECTED));
    EXPECT_EQ(report(), 0);
    control.say("vx_control_req:action=reconnect;heartBeat 1;\n\n\nvx_control_req:action=modify;a=b;\n");
    startInstrumentation();
    data = acceptData();
    const std::int64_t number = report();
    EXPECT_NE(number, 0);
    control.say(kStop);
    EXPECT_EQ(control.line(), kAck);
    EXPECT_TRUE(data.ended());
    EXPECT_EQ(report(), 0);
    vxagent_end(agent, number, 200, 0, 0);
    startInstrumentation();
    data = acceptData();
    EXPECT_EQ(data.line(), "");
    const std::int64_t next = report();
    EXPECT_EQ(frameFrom(data).flowpath, next);  // nothing of the first run
}

TEST_F(AgentSession, KeepsItsRecordsWhileTheProxyClosesDataConnections) {
    open();
    registerAgent();
    startInstrumentation();
    const std::int64_t number = report();
    for (int refusals = 0; refusals < 3; ++refusals) {
        FakeProxyPeer refused = acceptData();
        EXPECT_EQ(refused.line(), "");  // the first read after the line: no collector, so the proxy hangs up
    }
    data = acceptData();
    EXPECT_EQ(data.line(), "");
    EXPECT_EQ(frameFrom(data).flowpath, number);
    EXPECT_EQ(statistics().reconnects, 3U);
}

TEST_F(AgentSession, BeginsANewConnectionWithAWholeRecord) {
    openUntilSending();
    ASSERT_TRUE(comes(VXAGENT_SENDING));
    for (int i = 0; i < 5000; ++i) report();
    data.bytes(100000);
    data.hangUp();
    data = acceptData();
    for (int i = 0; i < 100; ++i) report();
    EXPECT_EQ(data.line(), "");
    for (int i = 0; i < 100; ++i) ASSERT_NE(frameFrom(data).type, -1);
}

TEST_F(AgentSession, NeverWaitsForAPeerThatDoesNotRead) {
    openUntilSending(64 << 10);
    ASSERT_TRUE(comes(VXAGENT_SENDING));
    int refused = 0;
    for (int full = 0; full < 1000 && vxagent_flush(agent, 300); ++full)
        for (int i = 0; i < 500; ++i) refused += report() == 0;
    const auto before = std::chrono::steady_clock::now();
    for (int i = 0; i < 100000; ++i) refused += report() == 0;
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(10));
    const vxagent_statistics now = statistics();
    EXPECT_GT(refused, 50000);
    EXPECT_EQ(now.refused, static_cast<std::uint64_t>(refused));
    EXPECT_GE(now.dropped, now.refused);
    EXPECT_LE(now.queued_bytes, now.queue_bytes);
}

TEST_F(AgentSession, RegistersAgainWhenTheProxyComesBack) {
    openUntilSending();
    proxy.closeListener();
    data.hangUp();
    control.hangUp();
    EXPECT_TRUE(comes(VXAGENT_OFFLINE));
    EXPECT_EQ(report(), 0);
    proxy.reopen();
    registerAgent();
    startInstrumentation();
    data = acceptData();
    EXPECT_EQ(data.line(), "");
    const std::int64_t number = report();
    EXPECT_EQ(frameFrom(data).flowpath, number);
}

TEST_F(AgentSession, MovesItsDataConnectionOnlyForOtherIds) {
    openUntilSending();
    startInstrumentation();
    const std::int64_t number = report();
    EXPECT_EQ(frameFrom(data).flowpath, number);
    control.say("vx_control_req:action=start_instrumentation;tierID=3;appID=5;appName=renamed;\n");
    EXPECT_TRUE(data.ended());
    data = acceptData();
    EXPECT_TRUE(dataLine.starts_with("vx_data_msg_req:appName=renamed;appID=5;vxAppServerID=0;")) << dataLine;
}

TEST_F(AgentSession, ClosingSendsWhatIsQueuedDataConnectionFirst) {
    openUntilSending();
    for (int i = 0; i < 1000; ++i) report();
    std::thread reader([this] {
        EXPECT_TRUE(data.ended());
        data.hangUp();
    });
    vxagent_close(agent, 5000);
    agent = nullptr;
    reader.join();
    std::size_t frames = 0;
    const std::string sent = data.rest();
    for (VXByteView bytes(sent.data(), sent.size()); bytes.size(); ++frames)
        bytes.take(static_cast<std::size_t>(std::max(bytes.i32At(5), 1)));
    EXPECT_EQ(frames, 4000U);
    EXPECT_TRUE(control.ended());
}

TEST(AgentOptions, AreRefusedWhenTheyCannotStandInALine) {
    vxagent_options good;
    vxagent_options_init(&good);
    good.port = 1;
    good.application = good.tier = good.server = good.agent = "a";
    for (int broken = 0; broken < 6; ++broken) {
        vxagent_options options = good;
        if (broken == 0) options.port = 65536;
        if (broken == 1) options.application = nullptr;
        if (broken == 2) options.tier = "";
        if (broken == 3) options.server = "a;b";
        if (broken == 4) options.agent = "a\n";
        if (broken == 5) options.agent_type = "";
        vxagent* agent = vxagent_open(&options);
        EXPECT_EQ(agent, nullptr) << broken;
        vxagent_close(agent, 0);
    }
    EXPECT_EQ(vxagent_begin(nullptr, nullptr), 0);
}

TEST(AgentBackoff, DoublesUpToItsCeilingWithAShareOfChance) {
    Backoff backoff{1000, kRetryFirstMs, {}};
    for (const std::int64_t most : {100, 200, 400, 800, 1000, 1000}) {
        const std::int64_t pause = backoff.pause();
        EXPECT_LE(pause, most);
        EXPECT_GE(pause, most / 2);
    }
    backoff.reset();
    EXPECT_LE(backoff.pause(), 100);
}

TEST(AgentLink, PassesOverALineBeyondItsLimit) {
    Link link;
    std::string line;
    link.in = std::string(kLineMax + 1, 'x');
    EXPECT_FALSE(takeLine(link, line));
    link.in += "rest of it\nnext\npart";
    EXPECT_TRUE(takeLine(link, line));
    EXPECT_EQ(line, "next");
    EXPECT_FALSE(takeLine(link, line));
    EXPECT_EQ(link.in, "part");
}

TEST(AgentQueue, KeepsARoomForTheEndsOfTransactions) {
    RecordQueue queue(1600);
    const auto hundred = [](char*, std::size_t size) { return std::int64_t{size >= 100 ? 100 : -1}; };
    EXPECT_EQ(queue.put(Urgency::kOrdinary, hundred), PutResult::kTakenWake);
    for (int i = 0; i < 14; ++i) EXPECT_NE(queue.put(Urgency::kOrdinary, hundred), PutResult::kDropped);
    EXPECT_EQ(queue.put(Urgency::kOrdinary, hundred), PutResult::kDropped);
    EXPECT_EQ(queue.put(Urgency::kEnding, hundred), PutResult::kTaken);
    EXPECT_EQ(queue.put(Urgency::kEnding, hundred), PutResult::kDropped);
    Batch batch;
    queue.take(batch);
    EXPECT_EQ(batch.size, 1600U);
    EXPECT_EQ(batch.records, 16U);
    EXPECT_EQ(queue.put(Urgency::kOrdinary, hundred), PutResult::kTakenWake);
    EXPECT_EQ(queue.drop(batch), 17U);
}

TEST(AgentBatch, KnowsWhereItsFramesEnd) {
    const std::string frames = resetFrame(1) + resetFrame(2) + resetFrame(3);  // of 23 bytes each
    Batch batch{frames.data(), frames.size(), 0, 0, 3};
    EXPECT_EQ(batch.wholeFrames(1), 23U);
    EXPECT_EQ(batch.wholeFrames(68), 46U);
    EXPECT_EQ(batch.advance(30), 1U);
    EXPECT_EQ(batch.wholeFrames(1), 16U);
    EXPECT_EQ(batch.wholeFrames(1000), 39U);
    batch.rewind();
    EXPECT_EQ(batch.at, 23U);
    EXPECT_EQ(batch.advance(46), 2U);
    EXPECT_TRUE(batch.empty());
    EXPECT_EQ(batch.records, 0U);
}

}  // namespace
}  // namespace vx::agent
