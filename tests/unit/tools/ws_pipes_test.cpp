// Descriptors that are WebSockets: what goes in at one end comes out at the other, whatever ends first.
#include "tools/ws/ws_pipes.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "tests/support/fake_collector.h"
#include "tests/support/program.h"
#include "tests/support/ws_bridge.h"

namespace vx::test {
namespace {

constexpr int kWaitMs = 60000;

bool readable(int fd) {
    pollfd one{fd, POLLIN, 0};
    return ::poll(&one, 1, kWaitMs) == 1;
}

// What can be read until there are `most` bytes, or the end.
std::string readUpTo(int fd, std::size_t most) {
    std::string out;
    char bytes[4096];
    while (out.size() < most && readable(fd)) {
        const ssize_t got = ::recv(fd, bytes, std::min(sizeof(bytes), most - out.size()), 0);
        if (got <= 0) break;
        out.append(bytes, static_cast<std::size_t>(got));
    }
    return out;
}

// True when the end is what comes next.
bool ends(int fd) {
    char byte = 0;
    return readable(fd) && ::recv(fd, &byte, 1, 0) == 0;
}

// Writes as much as goes; what is written is taken off `rest`.
void writeSome(int fd, std::string_view& rest) {
    const ssize_t sent = ::send(fd, rest.data(), std::min<std::size_t>(rest.size(), 50000), MSG_NOSIGNAL);
    if (sent > 0) rest.remove_prefix(static_cast<std::size_t>(sent));
}
void writeAll(int fd, std::string_view text) {
    while (!text.empty()) writeSome(fd, text);
}

std::string lines(std::size_t bytes) {
    std::string out;
    for (int i = 0; out.size() < bytes; ++i) out += "4,line " + std::to_string(i) + "\n";
    return out;
}

class WsPipesBy : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        ws::ListenAt at{"127.0.0.1", 0, "", ""};
        if (GetParam()) at = {"127.0.0.1", 0, own.certificate, own.key};
        std::string error;
        ASSERT_TRUE(server.listen(at, error)) << error;
        ASSERT_TRUE(client.open(GetParam()));
    }
    // A connection that stands, at both ends.
    void connect() {
        near = client.dial("localhost", "127.0.0.1", server.port());
        ASSERT_EQ(readUpTo(near, 1).size(), 1u);
        ASSERT_TRUE(readable(server.news()));
        ASSERT_TRUE(server.take(far));
    }
    void TearDown() override {
        for (const int fd : {near, far.fd})
            if (fd >= 0) ::close(fd);
    }

    TestCertificate own;
    ws::WsPipes server, client;
    int near = -1;
    ws::Accepted far{-1, ""};
};

TEST_P(WsPipesBy, BytesArriveWholeInBothDirectionsAndTheEndBehindThem) {
    connect();
    EXPECT_TRUE(far.peer.starts_with("127.0.0.1:")) << far.peer;
    const std::string up = lines(3000000), down = lines(2000000);
    std::string_view upRest = up, downRest = down;
    std::string upRead, downRead;
    // Both write until nothing goes any more: nobody holds more than its bounds, and nothing is lost by that.
    while (upRead.size() < up.size() || downRead.size() < down.size()) {
        std::size_t before = 0;
        do {
            before = upRest.size() + downRest.size();
            writeSome(near, upRest);
            writeSome(far.fd, downRest);
        } while (upRest.size() + downRest.size() < before);
        if (upRead.size() < up.size())
            upRead += readUpTo(far.fd, std::min<std::size_t>(up.size() - upRead.size(), 70000));
        if (downRead.size() < down.size())
            downRead += readUpTo(near, std::min<std::size_t>(down.size() - downRead.size(), 90000));
        if (HasFailure()) return;
    }
    EXPECT_EQ(upRead, up);
    EXPECT_EQ(downRead, down);
    writeAll(near, "last\n");
    ::shutdown(near, SHUT_WR);
    EXPECT_EQ(readUpTo(far.fd, 5), "last\n");
    EXPECT_TRUE(ends(far.fd));
    EXPECT_TRUE(ends(near)) << "the other host's answer";
}

TEST_P(WsPipesBy, WhatAProgramLeavesBehindStillGoesOut) {
    const std::string left = lines(150000);
    for (const bool fromServer : {true, false}) {
        connect();
        writeAll(fromServer ? far.fd : near, left);
        ::close(std::exchange(fromServer ? far.fd : near, -1));
        const int reader = std::exchange(fromServer ? near : far.fd, -1);
        EXPECT_EQ(readUpTo(reader, left.size()), left);
        EXPECT_TRUE(ends(reader));
        ::close(reader);
    }
    connect();
    writeAll(near, "bye\n");
    ::close(std::exchange(near, -1));
    client.end(kWaitMs);
    EXPECT_EQ(readUpTo(far.fd, 4), "bye\n") << "an end waits for what is on its way";
    EXPECT_TRUE(ends(far.fd));
}

TEST_P(WsPipesBy, WhatCannotConnectEnds) {
    near = client.dial("localhost", "127.0.0.1", freePort());
    EXPECT_TRUE(ends(near)) << "refused";
    ::close(near);
    const FakeCollector deaf;        // takes connections, says nothing
    for (int i = 0; i < 200; ++i) {  // more than there is room for at a time: given up, they are forgotten
        near = client.dial("localhost", "127.0.0.1", deaf.port());
        ASSERT_GE(near, 0);
        ::close(near);
    }
    EXPECT_TRUE(eventually([&] {
        near = client.dial("localhost", "127.0.0.1", server.port());
        if (readUpTo(near, 1).size() == 1) return true;
        ::close(std::exchange(near, -1));
        return false;
    }));
}

INSTANTIATE_TEST_SUITE_P(Protocols, WsPipesBy, testing::Values(false, true),
                         [](const auto& one) { return one.param ? "WSS" : "WS"; });

// The proxy takes a line by its message, and refuses one that is cut.
TEST(WsPipes, AMessageOfAConnectionMadeHereEndsWithALine) {
    const FakeCollector proxy;
    const WsBridge front(proxy.port());
    ws::WsPipes client;
    ASSERT_TRUE(client.open(false));
    const int fd = client.dial("localhost", "127.0.0.1", front.port());
    ASSERT_EQ(readUpTo(fd, 1).size(), 1u);
    const std::string text = std::string(100000, 'x') + "\n";
    writeAll(fd, text);
    FakePeer peer = proxy.accept();
    EXPECT_EQ(peer.readBytes(text.size()), text);
    EXPECT_LE(front.binaryMessages(), 1);
    EXPECT_EQ(front.textMessages(), 0);
    ::close(fd);
}

}  // namespace
}  // namespace vx::test
