#include "tools/agent/vxagent_udp.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <string>

#include "commonlibc/vxlb_bytes.h"
#include "tests/support/loopback.h"
#include "tests/support/program.h"
#include "tools/agent/vxagent.h"

namespace vx::agent {
namespace {

using test::boundTo, test::eventually, test::portOf;

// The proxy's end: a datagram socket on loopback.
class FakeIntake {
public:
    ~FakeIntake() { close(); }

    int port() const { return port_; }
    void close() { ::close(fd_); }
    void reopen() { fd_ = boundTo(port_, SOCK_DGRAM); }
    void answer(const std::string& text) {
        EXPECT_EQ(
            sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&sender_), sizeof(sender_)),
            static_cast<ssize_t>(text.size()));
    }
    // The next datagram of that kind, others answered by nothing; empty after 60 s.
    std::string next(VXWrapType type) {
        std::string datagram;
        do {
            char bytes[65536];
            pollfd ready{fd_, POLLIN, 0};
            socklen_t size = sizeof(sender_);
            if (poll(&ready, 1, 60000) != 1) return "";
            const ssize_t length =
                recvfrom(fd_, bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr*>(&sender_), &size);
            if (length < 0) return "";
            datagram.assign(bytes, static_cast<std::size_t>(length));
        } while (VXByteView(datagram.data(), datagram.size()).u8At(kWrapMessageTypeAt) !=
                 static_cast<std::uint8_t>(type));
        return datagram;
    }

private:
    int fd_ = boundTo(0, SOCK_DGRAM);
    const int port_ = portOf(fd_);
    sockaddr_in sender_{};
};

std::int32_t indexOf(const std::string& datagram) {
    return VXByteView(datagram.data(), datagram.size()).i32At(kWrapContextIndexAt);
}

class UdpAgent : public testing::Test {
protected:
    void SetUp() override {
        vxagent_options options;
        vxagent_options_init(&options);
        options.port = intake.port();
        options.application = "shop";
        options.tier = "web";
        options.server = "host1";
        options.agent = "fn";
        options.function = "resize";
        agent = vxagent_open(&options);
        ASSERT_TRUE(agent);
    }
    void TearDown() override { vxagent_close(agent, 0); }
    vxagent_statistics statistics() const {
        vxagent_statistics now;
        vxagent_get_statistics(agent, &now);
        return now;
    }
    void startTest() {
        EXPECT_EQ(indexOf(intake.next(VXWrapType::kPendingRuckus)), kWrapIndexUnknown);
        intake.answer("AppIndex:5");
        EXPECT_EQ(indexOf(intake.next(VXWrapType::kSettings)), 5);
        intake.answer(R"(["AppId",{"id":5},"TestInfo",{"TestNumber":4711,"bciInstrSessionPct":100}])");
        EXPECT_TRUE(eventually([this] { return vxagent_instrumenting(agent) == 1; }));
    }

    FakeIntake intake;
    vxagent* agent = nullptr;
    const vxagent_transaction transaction = [] {
        vxagent_transaction made{};
        made.url = "/x";
        return made;
    }();
};

TEST_F(UdpAgent, MakesItselfKnownAndSendsWhileATestRuns) {
    const std::string first = intake.next(VXWrapType::kPendingRuckus);
    EXPECT_NE(first.find("resizeappName=shop;tierName=web;vxAppServerHost=host1;agentName=resize;"),
              std::string::npos);
    EXPECT_TRUE(statistics().state == VXAGENT_OFFLINE && vxagent_begin(agent, nullptr) == 0);
    startTest();
    const std::int64_t number = vxagent_begin(agent, &transaction);
    EXPECT_NE(number, 0);
    EXPECT_EQ(vxagent_begin(agent, &transaction), 0) << "one at a time";
    vxagent_end(agent, number, 200, 0, 0);
    EXPECT_EQ(vxagent_flush(agent, 60000), 1);
    EXPECT_EQ(indexOf(intake.next(VXWrapType::kRecords)), 5);
    EXPECT_TRUE(statistics().sent_records == 2 && statistics().refused == 1);

    intake.answer("testIdx=-1");
    EXPECT_TRUE(eventually([this] { return vxagent_instrumenting(agent) == 0; }));
    EXPECT_EQ(statistics().state, VXAGENT_CONNECTED);
}

TEST_F(UdpAgent, MakesItselfKnownAgainWhenThePortWasClosed) {
    startTest();
    const std::int64_t number = vxagent_begin(agent, &transaction);
    intake.close();
    EXPECT_TRUE(eventually([this] { return statistics().state == VXAGENT_OFFLINE; }));
    vxagent_end(agent, number, 200, 0, 0);  // of no use, and the next one may begin
    intake.reopen();
    startTest();
    EXPECT_TRUE(statistics().reconnects == 1 && statistics().starts == 2);
    EXPECT_NE(vxagent_begin(agent, &transaction), 0);
}

}  // namespace
}  // namespace vx::agent
