#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "commonlibc/vxlb_bytes.h"
#include "tests/support/fake_collector.h"
#include "tests/support/program.h"
#include "tests/support/record_stream.h"
#include "tests/support/ws_bridge.h"
#include "tools/agent/vxagent.h"
#include "tools/agent/vxagent_headers.h"
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
Frame frameFrom(FakePeer& data) {
    constexpr std::size_t flowpathAt[] = {4, 32, 24, 4, 0, 28, 32, 12};
    std::string bytes = data.readBytes(1);
    while (bytes == "\n") bytes = data.readBytes(1);  // in front of records after a pause
    bytes += data.readBytes(13);
    if (bytes.size() < 14) return {-1, 0, bytes};
    const auto total = static_cast<std::size_t>(VXByteView(bytes.data(), bytes.size()).i32At(5));
    bytes += data.readBytes(total - bytes.size());
    const VXByteView view(bytes.data(), bytes.size());
    const std::int32_t type = view.i32At(9);
    if (bytes.size() < 15 || bytes[0] != '^' || bytes.back() != '\n' || type < 0 || type > 7)
        return {-1, 0, bytes};
    return {type, view.i64At(14 + flowpathAt[type]), bytes};
}

// By each transport.
class AgentSession : public testing::TestWithParam<int> {
protected:
    void TearDown() override { vxagent_close(agent, 0); }

    void open(std::size_t queueBytes = 0) {
        if (GetParam() == VXAGENT_WSS) own = std::make_unique<TestCertificate>();
        if (GetParam() != VXAGENT_TCP) front = std::make_unique<WsBridge>(proxy.port(), own.get());
        vxagent_options options;
        vxagent_options_init(&options);
        options.port = port = front ? front->port() : proxy.port();
        options.transport = GetParam();
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
        registration = control.readLine();
        control.send(kReply);
    }
    void startInstrumentation() {
        control.send("\n" + kStart + "\n");
        EXPECT_EQ(control.readLine(), kAck);
    }
    // A data connection up to where records may come.
    void acceptData() {
        data = proxy.accept();
        dataLine = data.readLine();
        EXPECT_EQ(data.readLine(), "");
    }
    void openUntilSending(std::size_t queueBytes = 0) {
        open(queueBytes);
        registerAgent();
        startInstrumentation();
        acceptData();
    }
    bool comes(int state) const {
        return eventually([&] { return statistics().state == state; });
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

    // Accepts a data connection, over which comes what is reported now and nothing older.
    void acceptAndDeliver() {
        acceptData();
        const std::int64_t number = report();
        EXPECT_EQ(frameFrom(data).flowpath, number);
    }

    FakeCollector proxy;
    std::unique_ptr<TestCertificate> own;
    std::unique_ptr<WsBridge> front;
    vxagent* agent = nullptr;
    int port = 0;
    FakePeer control, data;
    std::string registration, dataLine;
};

TEST_P(AgentSession, RegistersFollowsTheStartAndSendsRecords) {
    openUntilSending();
    EXPECT_TRUE(registration.starts_with("vx_ctrl_msg_req:appName=shop;vxAppServerHost=host1;tierName=web;"));
    for (const char* field : {";pid=4711;", ";agentType=Java;", ";agentName=nginx;"})
        EXPECT_NE(registration.find(field), std::string::npos) << field;
    EXPECT_EQ(dataLine,
              "vx_data_msg_req:appName=shop;appID=4;vxAppServerID=-5;vxAppServerHost=host1;"
              "tierName=web;tierID=3;VXCollectorIP=127.0.0.1;VXCollectorPort=" +
                  std::to_string(port) + ";testIdx=11;pid=4711;agentName=nginx");
    const std::int64_t number = report();
    EXPECT_EQ(number >> 46, 65536 + 5);
    EXPECT_EQ(report(), number + 1);
    for (const std::int32_t type : {2, 0, 1, 3}) {
        const Frame frame = frameFrom(data);
        EXPECT_TRUE(frame.type == type && frame.flowpath == number) << type;
        EXPECT_EQ(type == 2, frame.bytes.find("/cart%7Cx?id=1|GET\n") != std::string::npos);
    }
    EXPECT_EQ(vxagent_flush(agent, 60000), 1);
    EXPECT_TRUE(statistics().sent_records == 8 && statistics().state == VXAGENT_SENDING);
}

TEST_P(AgentSession, SendsExceptionsWithAsMuchOfTheStackAsFitsAndHeadersAsTheirTypeHasThem) {
    openUntilSending();
    const std::int64_t number = vxagent_begin(agent, std::vector<vxagent_transaction>(1).data());
    std::string stack;
    while (stack.size() < 20000) stack += "at Cart.show(Cart.java:7)\n";
    vxagent_exception exception{};
    exception.class_name = "Class";
    exception.message = "message";
    exception.method = "Cart.show";
    exception.stack_trace = stack.c_str();
    exception.time_us = 1795248306123456;
    vxagent_report_exception(agent, number, &exception);
    const vxagent_header headers[] = {{"Host", "a=b&c"}, {"a=b", "x"}, {"", "x"}, {"Accept", nullptr}};
    vxagent_request_headers(agent, number, headers, 4);
    vxagent_response_headers(agent, number, 404, headers, 1);
    EXPECT_EQ(frameFrom(data).type, 2);
    const Frame thrown = frameFrom(data);
    EXPECT_TRUE(thrown.type == 5 && thrown.flowpath == number && thrown.bytes.size() > kRecordMax - 40);
    EXPECT_EQ(VXByteView(thrown.bytes.data(), thrown.bytes.size()).i64At(14 + 36), 1795248306123);
    EXPECT_EQ(thrown.bytes.substr(66, 46), "ClassmessageCart.showat Cart.show(Cart.java:7)");
    EXPECT_TRUE(thrown.bytes.ends_with(":7)\n\n")) << "whole lines";
    for (const std::string text : {"Host=a=b%26c&Accept=req\n", "Host=a=b%26cresp\n"}) {
        const Frame frame = frameFrom(data);
        EXPECT_TRUE(frame.type == 6 && frame.flowpath == number && frame.bytes.substr(54) == text) << text;
    }
}

TEST(AgentHeaders, AreJoinedByTheSeparatorsOfTheirTypeAsFarAsTheyFit) {
    const vxagent_header headers[] = {{"A", "1|2"}, {"Long", "0123456789"}, {"B", "3\x7F"}};
    char out[12];
    const auto joined = [&](const char* type) {
        return std::string(out, joinHeaders(headerSeparators(type), headers, 3, out, sizeof(out)));
    };
    EXPECT_EQ(joined("Python"), "A$1%7C2|B$3\x7F");
    EXPECT_EQ(joined("go"),
              "A$1|2\x7F"
              "B$3%7F");
    EXPECT_EQ(joined("Dotnet"), "A=1|2&B=3\x7F");
}

TEST_P(AgentSession, ReportsOnlyWhileInstrumentationRunsAndFindsTheProxyAgain) {
    open();
    EXPECT_EQ(report(), 0);
    registerAgent();
    EXPECT_TRUE(comes(VXAGENT_CONNECTED));
    EXPECT_EQ(report(), 0);
    control.send("vx_control_req:action=reconnect;heartBeat 1;\n\n\nvx_control_req:action=modify;a=b;\n");
    startInstrumentation();
    acceptData();
    const std::int64_t number = report();
    EXPECT_NE(number, 0);
    control.send(kStop);
    EXPECT_EQ(control.readLine(), kAck);
    EXPECT_TRUE(data.ended());
    EXPECT_EQ(report(), 0);
    vxagent_end(agent, number, 200, 0, 0);
    startInstrumentation();
    acceptAndDeliver();

    control.send("\nvx_meta_data_req:action=get_thread_dump;\n\n");
    EXPECT_TRUE(control.readLine().starts_with("thread_dump:Threads of process "));
    startInstrumentation();  // with the same ids it stays, with others it moves
    control.send("vx_control_req:action=start_instrumentation;tierID=3;appID=5;appName=renamed;\n");
    EXPECT_TRUE(data.ended());
    acceptData();
    EXPECT_TRUE(dataLine.starts_with("vx_data_msg_req:appName=renamed;appID=5;vxAppServerID=0;")) << dataLine;

    proxy.stopListening();
    data.close();
    control.close();
    EXPECT_TRUE(comes(VXAGENT_OFFLINE));
    EXPECT_EQ(report(), 0);
    proxy.listenAgain();
    registerAgent();
    startInstrumentation();
    acceptAndDeliver();
}

TEST_P(AgentSession, KeepsItsRecordsWhileTheProxyClosesDataConnections) {
    open();
    registerAgent();
    startInstrumentation();
    // For 100 ms the agent looks whether the proxy closes; where the machine closes later, records are lost.
    unsigned round = 0;
    for (bool kept = false; !kept; ++round) {
        ASSERT_LT(round, 20U);
        const std::int64_t number = report();
        for (int refusals = 0; refusals < 3; ++refusals) {
            acceptData();
            data.close();  // at the first read behind the line, as the proxy does that has no collector
        }
        acceptData();
        const std::int64_t later = report(), first = frameFrom(data).flowpath;
        kept = first == number;
        EXPECT_TRUE(kept || first == later);
        data.close();
    }
    EXPECT_TRUE(eventually([&] { return statistics().reconnects == 4 * round; }));
}

TEST_P(AgentSession, BeginsANewConnectionWithAWholeRecord) {
    openUntilSending();
    ASSERT_TRUE(comes(VXAGENT_SENDING));
    for (int i = 0; i < 5000; ++i) report();
    data.readBytes(100000);
    data.close();
    acceptData();
    for (int i = 0; i < 100; ++i) report();
    for (int i = 0; i < 100; ++i) ASSERT_NE(frameFrom(data).type, -1);
}

TEST_P(AgentSession, NeverWaitsForAPeerThatDoesNotRead) {
    openUntilSending(64 << 10);
    ASSERT_TRUE(comes(VXAGENT_SENDING));
    if (front) front->holdReading(true);
    int refused = 0;
    for (int full = 0; full < 1000 && vxagent_flush(agent, 300); ++full)
        for (int i = 0; i < 500; ++i) refused += report() == 0;
    const auto before = std::chrono::steady_clock::now();
    for (int i = 0; i < 100000; ++i) refused += report() == 0;
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(60));
    const vxagent_statistics now = statistics();
    EXPECT_GT(refused, 50000);
    EXPECT_EQ(now.refused, static_cast<std::uint64_t>(refused));
    EXPECT_GE(now.dropped, now.refused);
    EXPECT_LE(now.queued_bytes, now.queue_bytes);
}

// Closing joined threads that were the parent's, and a server's worker never came to its end.
TEST_P(AgentSession, IsNobodysInTheChildOfAFork) {
    openUntilSending();
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        const bool silent = report() == 0 && vxagent_flush(agent, 0) && !vxagent_instrumenting(agent);
        vxagent_close(agent, 1000);
        ::_exit(silent ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    const std::int64_t number = report();
    EXPECT_EQ(frameFrom(data).flowpath, number) << "the parent's goes on";
}

TEST_P(AgentSession, ClosingSendsWhatIsQueuedDataConnectionFirst) {
    openUntilSending();
    for (int i = 0; i < 1000; ++i) report();
    std::string sent;
    std::thread reader([&] {
        sent = data.readToEnd();
        data.close();
    });
    vxagent_close(agent, 60000);
    agent = nullptr;
    reader.join();
    std::size_t frames = 0;
    for (VXByteView bytes(sent.data(), sent.size()); bytes.size(); ++frames)
        bytes.take(static_cast<std::size_t>(std::max(bytes.i32At(5), 1)));
    EXPECT_EQ(frames, 4000U);
    EXPECT_TRUE(control.ended());
}

INSTANTIATE_TEST_SUITE_P(By, AgentSession, testing::Values(VXAGENT_TCP, VXAGENT_WS, VXAGENT_WSS),
                         [](const auto& one) { return std::to_string(one.param); });

TEST(AgentOptions, AreRefusedWhenTheyCannotStandInALine) {
    for (const char* server : {static_cast<const char*>(nullptr), "", "a;b", "a\n", "good"}) {
        vxagent_options options;
        vxagent_options_init(&options);
        options.application = options.tier = options.agent = "a";
        options.server = server;
        options.port = server && std::string(server) == "good" ? 65536 : 1;
        EXPECT_EQ(vxagent_open(&options), nullptr);
    }
    EXPECT_EQ(vxagent_begin(nullptr, nullptr), 0);
    vxagent_close(nullptr, 0);
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

}  // namespace
}  // namespace vx::agent
