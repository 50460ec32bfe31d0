#include "commonlibc/proxyServer/vx_proxy_read.h"

#include <cstring>
#include <string>
#include <utility>

#include "commonlibc/ServerDiagnostics.h"
#include "commonlibc/control_outbox.h"
#include "commonlibc/proxyServer/vx_proxy_events.h"
#include "tests/support/dumped_records.h"
#include "tests/support/proxy_fixture.h"
#include "tests/support/record_stream.h"

namespace vx::test {
namespace {

// Reads of a registered process; the lines that reach the dispatcher are seen through thread dumps.
class ReadTest : public ProxyFixture {
protected:
    void SetUp() override {
        ProxyFixture::SetUp();
        agent = process(100);
        decoder = &instance().decoder;
        apr_pollset_t* poll = nullptr;
        apr_pollset_create(&poll, 1, instance().pool, APR_POLLSET_WAKEABLE);
        vxOutboxOpen(instance(), poll);
    }
    // The lines that went to the collector since the last look.
    static std::string seen() {
        VXOutbox_t& box = instance().control.outbox;
        return std::string(box.text, static_cast<std::size_t>(std::exchange(box.length, 0)));
    }
    int readLines(Agent& from) {
        return readMessageFromSocket(from.socket, VXProxy.controlBuf, &from.address);
    }
    int readRecords(Agent& from, int procIndex = 0) {
        vxSetCurrent(&instance());
        return readDataFromSocket(from.socket, VXProxy.dataBuf, 1, procIndex);
    }
    Agent further(int type) {
        Agent more = connect();
        registerAgent(more, type, dataFields(100));
        return more;
    }
    // What the process's next read goes on from.
    static std::string carried(int procIndex = 0) {
        const char* held = processAt(instance(), procIndex)->dataBuffer;
        std::int32_t length = 0;
        if (held) std::memcpy(&length, held, sizeof(length));
        return held ? std::string(held + sizeof(length), static_cast<std::size_t>(length)) : "";
    }
    // Which links to the collector stand.
    void links(bool control, bool data) {
        if (!link.socket) link = connect();
        instance().control.lws_active = 0;
        instance().control.controlSocket.socket = control ? link.socket : nullptr;
        instance().data.dataSocket.socket = data ? link.socket : nullptr;
    }

    Agent agent, link;
    VXDecoderState_t* decoder = nullptr;
};

TEST_F(ReadTest, WholeLinesOfAReadAreHandedOver) {
    const struct {
        const char *sent, *lines;  // that reach the collector
    } rows[] = {
        {"thread_dump:a\nthread_dump:b\n", "a\nb\n"},
        {"\n\nthread_dump:a\n\n", "a\n"},  // keep-alives
        {"thread_dump:a$b$\n", "a\nb\n"},
        {"thread_dump:a\nthread_du", "a\n"},  // a cut line is lost
        {"vx_ctrl_msg_req:pid=7\n", ""},      // of a known connection: a log line
        {"auto_sensor_GCDump:heap=5\nvx_ctrl_msg_rep:result\nvx_control_req:action=send_file;keyword=a;\n",
         ""},
    };
    instance().Server.testRunRunning = 1;
    for (const auto& row : rows) {
        agent.peer.send(row.sent);
        EXPECT_EQ(readLines(agent), kReadDone) << row.sent;
        EXPECT_EQ(seen(), row.lines);
    }
    EXPECT_EQ(textOf(instance().autoSensor.chain), "heap=5\n") << "another channel, with its newline";
    EXPECT_EQ(readLines(agent), kReadNothing);
    agent.peer.send("thread_dump:a");
    EXPECT_EQ(readLines(agent), kReadClosed) << "a read without a newline";
    EXPECT_EQ(seen(), "");
    agent.peer.close();
    EXPECT_EQ(readLines(agent), kReadClosed);
}

TEST_F(ReadTest, TheLongestLineHas131071BytesWithItsNewline) {
    const int room = 4 * kReadBufSize;
    ::setsockopt(agent.peer.descriptor(), SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    const std::string prefix = "thread_dump:";
    const std::string longest(static_cast<std::size_t>(kReadBufSize) - 2 - prefix.size(), 'x');
    ASSERT_TRUE(agent.peer.send(prefix + longest + "\n"));
    EXPECT_EQ(readLines(agent), kReadDone);
    EXPECT_EQ(seen(), longest.substr(0, kThreadDumpSize - 1) + "\n");
    ASSERT_TRUE(agent.peer.send(prefix + longest + "x\n"));
    EXPECT_EQ(readLines(agent), kReadClosed);
}

TEST_F(ReadTest, RecordsMayRideBehindTheLineThatRegistersUnlessItIsRefused) {
    Agent data = connect(), refused = connect();
    vxSetCurrent(app);
    refused.peer.send("vx_data_msg_req:" + dataFields(999) + "\n^\x0c\nvx_ctrl_msg_req:pid=1\n");
    EXPECT_EQ(readLines(refused), kReadDone);
    EXPECT_TRUE(refused.refused());
    EXPECT_EQ(carried(), "");
    EXPECT_EQ(VXProxy.numInstance, 2) << "nothing more registers over a closed connection";
    // An empty line in between once made a log line of them, where both came in one read.
    for (const char* between : {"\n", "\n\n"}) {
        data.peer.send("vx_data_msg_req:" + dataFields(100) + between + "^\x0c");
        EXPECT_EQ(readLines(data), kReadDone);
        EXPECT_EQ(carried(), "^\x0c") << "the decoder of that instance got them";
        data = connect();
    }
}

TEST_F(ReadTest, ADiscoveryConnectionMayCutItsLinesAnywhere) {
    const std::string text = "thread_dump:first\nthread_dump:second\n";
    for (std::size_t cut = 1; cut < text.size(); ++cut) {
        Agent discovery = further(kConTypeDiscovery);
        discovery.peer.send(text.substr(0, cut));
        EXPECT_EQ(readLines(discovery), kReadDone);
        EXPECT_EQ(readLines(discovery), kReadNothing) << "an event is one read";
        discovery.peer.send(text.substr(cut));
        EXPECT_EQ(readLines(discovery), kReadDone);
        EXPECT_EQ(seen(), "first\nsecond\n") << "cut at " << cut;
    }
}

// Bytes that processes of one instance left behind used to meet in the next read of either.
TEST_F(ReadTest, WhatTheDecoderLeftStandsInFrontOfTheNextReadOfItsOwnConnection) {
    Agent data = further(kConTypeData);
    links(true, true);
    data.peer.send("^\x0c");
    EXPECT_EQ(readRecords(data), kReadDone);
    EXPECT_EQ(carried(), "^\x0c");
    const Agent other = process(101);
    Agent otherData = connect();
    registerAgent(otherData, kConTypeData, dataFields(101));
    otherData.peer.send("\n^");
    EXPECT_EQ(readRecords(otherData, 1), kReadDone);
    EXPECT_EQ(carried(1), "^");
    data.peer.send(std::string("\0\0\0", 3));
    EXPECT_EQ(readRecords(data), kReadDone);
    EXPECT_EQ(carried(), std::string("^\x0c\0\0\0", 5));
    EXPECT_EQ(readRecords(data), kReadNothing);
    EXPECT_EQ(carried(), std::string("^\x0c\0\0\0", 5)) << "a read of nothing leaves it";
    agent.peer.send("a log line\n^\x0d");
    EXPECT_EQ(readLines(agent), kReadDone);
    EXPECT_EQ(carried(), std::string("^\x0c\0\0\0", 5)) << "so do bytes on the control connection";
    EXPECT_EQ(decoder->messagesRefused, 0u);
    for (const bool control : {true, false}) {
        links(control, !control);
        const std::string frame = entryFrame(7, "A.b", 1);
        std::string records = frame.substr(5);  // goes on where the last read ended
        while (records.size() < kReadBufSize) records += frame;
        const std::uint64_t whole = records.size() / frame.size() + 1, before = decoder->messagesRefused;
        data.peer.send(records + "noise" + frame.substr(0, 20));
        EXPECT_EQ(readRecords(data), kReadClosed) << "a link is missing";
        EXPECT_EQ(readRecords(data), kReadNothing) << "the bytes were consumed";
        EXPECT_EQ(decoder->messagesRefused - before, whole + 1) << "and counted, the torn one too";
    }
    vxCloseConnection(*processAt(instance(), 0), VXConnection::kData, true);
    EXPECT_EQ(carried(), "") << "it ends with its connection";
}

// A process that exits ends its connections in the order of their making: records that were still on their
// way went with the control connection, and nothing counted them.
TEST_F(ReadTest, RecordsThatAProcessHasSentAreReadBeforeItsConnectionsAreClosed) {
    const std::string frame = entryFrame(7, "A.b", 1);
    std::string records;
    while (records.size() < 2 * kReadBufSize) records += frame;
    Agent data = further(kConTypeData);
    const int room = 16 * kReadBufSize;
    ::setsockopt(data.peer.descriptor(), SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    ASSERT_TRUE(data.peer.send(records));
    links(false, true);  // what is read is refused, and counted
    agent.peer.close();
    apr_pollfd_t end{};
    end.desc.s = agent.socket;
    end.rtnevents = APR_POLLIN;
    end.client_data = agent.address;
    vxServeConnection(end, 0, 1);
    EXPECT_TRUE(data.refused());
    EXPECT_EQ(decoder->messagesRefused, records.size() / frame.size());
}

}  // namespace
}  // namespace vx::test
