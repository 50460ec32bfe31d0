#include "commonlibc/proxyServer/vx_proxy_lws.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "commonlibc/VXAgentLine.h"
#include "commonlibc/VXAgentWs.h"
#include "commonlibc/proxyServer/vx_proxy_lws_callbacks.h"
#include "commonlibc/proxyServer/vx_proxy_read.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "tests/support/fake_clock.h"
#include "tests/support/listener_fixture.h"
#include "tests/support/program.h"
#include "tests/support/ws_bridge.h"
#include "tests/support/ws_peer.h"

namespace vx::test {
namespace {

constexpr const char* kControl = "vx_ctrl_msg_req:";
constexpr const char* kData = "vx_data_msg_req:";

class WebSocketListener : public Listener {
protected:
    void startListening() {
        Listener::startListening("proxyAgentWebSocket=1\n");
        founder = process(1);  // of the instance; it is not answered
    }
    WsPeer process(int pid) const {
        WsPeer peer(port);
        peer.send(line(kControl, pid));
        return peer;
    }
    static std::string reply(int procIndex) {
        return "vx_ctrl_msg_rep:result=Ok;procIndex=" + std::to_string(procIndex) + "\n";
    }
    // True when the loop still answers an agent.
    bool serves() const { return process(9999).read().starts_with("vx_ctrl_msg_rep:result=Ok;procIndex="); }
    static processInfo_t& record(int procIndex) { return *processAt(*instanceAt(1), procIndex); }

    WsPeer founder;
};

TEST_F(WebSocketListener, ServesAProcessFromItsRegistrationToItsEnd) {
    startListening();
    WsPeer agent(port);
    EXPECT_TRUE(agent.status.starts_with("HTTP/1.1 101")) << agent.status;
    const std::string registration = line(kControl, 2);
    agent.send(registration.substr(0, 9), kWsText, false);
    agent.send("are you there", kWsPing);
    agent.send(registration.substr(9), kWsMore);
    EXPECT_EQ(agent.read(), "are you there");
    EXPECT_EQ(agent.opcode, kWsPong);
    ASSERT_EQ(agent.read(), reply(1)) << "a message in parts is one message";

    std::thread relay([] {  // a control thread is another one
        vxRelayLine(record(1), "first");
        vxRelayLine(record(1), "second\xFF");
    });
    EXPECT_EQ(agent.read(), "\nfirst\n");
    EXPECT_EQ(agent.opcode, kWsText);
    EXPECT_EQ(agent.read(), "\nsecond\xFF\n");
    EXPECT_EQ(agent.opcode, kWsBinary) << "peers close on text that is no UTF-8";
    relay.join();

    WsPeer classes(port);
    classes.send(line("agent_post_data_req:", 2));
    std::string list;
    while (list.size() < 3 * kMaxMessage) list += std::string(5000, 'c') + "\n";
    classes.send(list);
    classes.send("are you there", kWsPing);
    EXPECT_EQ(classes.read(), "are you there") << "a list of classes comes in a message of any length";

    WsPeer data(port), early(port), again = process(2);
    EXPECT_EQ(again.read(), reply(1)) << "the process has come back: its place is the same";
    EXPECT_TRUE(agent.peer.ended());
    data.send(line(kData, 2));
    early.send(line(kData, 77));
    EXPECT_TRUE(early.peer.ended()) << "the control connection comes first";
    ASSERT_TRUE(eventually([] { return record(1).dataWs.load() != nullptr; }));
    again.peer.close();
    EXPECT_TRUE(data.peer.ended()) << "with the control connection all of them end";
    EXPECT_EQ(process(3).read(), reply(1)) << "the place is free";
}

TEST_F(WebSocketListener, GivesFilesWholeHoweverManyAreAskedForAtOnce) {
    startListening();
    std::string content(3 * kAgentBlockFull + 77, 'x');
    for (std::size_t i = 0; i < content.size(); i += 100) content[i] = '\n';
    home.write("proxy/.cache/d/rules", content);
    WsPeer agent = process(2);
    ASSERT_EQ(agent.read(), reply(1));
    for (int i = 0; i < 5; ++i) agent.send("vx_control_req:action=send_file;keyword=rules;\n");
    for (int i = 0; i < 5; ++i) {
        std::string answer = agent.read();
        while (answer == "\nheartbeat\n") answer = agent.read();
        const std::size_t head = answer.find('\n') + 1;
        EXPECT_TRUE(answer.starts_with("vx_control_rep:action=file;keyword=rules%3Bsize%3D" +
                                       std::to_string(content.size()) + "%3Blmd%3D"));
        EXPECT_TRUE(answer.compare(head, std::string::npos, content) == 0) << answer.size();
        vxRelayLine(record(1), "heartbeat");
        EXPECT_TRUE(vxHasControl(record(1))) << "small messages have their room beside a file";
    }
}

TEST_F(WebSocketListener, ClosesWhatIsNoAgent) {
    const std::string half(70000, 'x');
    const std::pair<std::string, std::string> rows[] = {
        {"a message without a newline", wsFrame("vx_ctrl_msg_req:pid=5")},
        {"binary garbage", wsFrame(std::string(1000, '\x81'), kWsBinary)},
        {"no message at all", wsFrame("")},
        {"a pid that marks a free place", wsFrame(line(kControl, -1))},
        {"two halves of a line that is too long", wsFrame(half, kWsText, false) + wsFrame(half, kWsMore)},
        {"16 MB in one frame", wsFrame(std::string(16 << 20, '\n'))},
        {"a length that lies", std::string("\x81\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 10)},
    };
    startListening();
    for (const auto& [name, bytes] : rows) {
        SCOPED_TRACE(name);
        WsPeer peer(port);
        peer.peer.send(bytes);  // not all of it may be taken
        if (name == "no message at all") {
            EXPECT_FALSE(peer.peer.ended(0.05)) << "it is only nothing";
        } else {
            EXPECT_TRUE(peer.peer.ended());
        }
        EXPECT_TRUE(serves());
    }
    FakePeer browser = connectTo(port);
    browser.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_TRUE(browser.ended());
}

// Both ends are in one process: what is seen here is twice what the service takes.
TEST_F(WebSocketListener, AThousandSilentPeersAndHalfHandshakesHoldNobodyUp) {
    constexpr std::size_t kSilent = 700, kHalf = 300;
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = std::min<rlim_t>(files.rlim_max, 4096);
    setrlimit(RLIMIT_NOFILE, &files);
    startListening();
    const long before = residentKb(::getpid());
    const auto began = std::chrono::steady_clock::now();
    std::vector<WsPeer> silent;
    std::vector<FakePeer> half;
    for (std::size_t i = 0; i < kSilent; ++i) {
        ASSERT_TRUE(silent.emplace_back(port).status.starts_with("HTTP/1.1 101")) << i;
        if (i % 2) silent.back().send(std::string(50000, 'x'), kWsText, false);
    }
    for (std::size_t i = 0; i < kHalf; ++i) {
        half.push_back(connectTo(port));
        half.back().send("GET / HTTP/1.1\r\nUpgr");
    }
    EXPECT_TRUE(serves());
    EXPECT_LT(residentKb(::getpid()) - before, 262144 + kSanitizerGrowthKb);
    const auto closed = [&] {
        int count = 0;
        for (WsPeer& peer : silent) count += peer.peer.ended(0) ? 1 : 0;
        return count;
    };
    EXPECT_TRUE(eventually([&] { return closed() > 0; })) << "parts of messages have a bound together";
    const int ended = closed();
    const bool late = std::chrono::steady_clock::now() - began >= std::chrono::seconds(kUnknownSeconds);
    EXPECT_TRUE(ended <= static_cast<int>(kSilent) / 2 || late) << "those that only wait have their time";
}

TEST_F(WebSocketListener, AnAgentThatDoesNotReadLosesItsConnectionNotTheMemory) {
    startListening();
    WsPeer deaf = process(2), other = process(3);
    ASSERT_TRUE(other.read() == reply(2) && deaf.read() == reply(1));
    const std::string order(100000, 'o');
    int taken = 0;
    while (taken < 1000 && vxRelayLine(record(1), order.c_str()) == 0) ++taken;
    EXPECT_GE(taken, 11) << "1 MB waits at least";
    EXPECT_LT(taken, 1000) << "and not without end";
    vxRelayLine(record(2), "still there");
    EXPECT_EQ(other.read(), "\nstill there\n");
    EXPECT_TRUE(eventually([] { return !vxHasControl(record(1)); }));
    int whole = 0;
    while (deaf.read() == "\n" + order + "\n") ++whole;
    EXPECT_LE(whole, taken);
}

TEST_F(WebSocketListener, OverTlsItWaitsForACertificate) {
    static const TempDir* folder = nullptr;
    static const TestCertificate* certificate = nullptr;
    static std::atomic<int> sleeps{0};
    const TestCertificate made;
    certificate = &made;
    folder = &home;
    sleeps = 0;
    FakeClock clock;
    clock.atSleep([] {
        const std::string whole = fileText(certificate->certificate) + fileText(certificate->key);
        if (++sleeps == 15) folder->write("proxy/config/proxy.cert", fileText(certificate->certificate));
        if (sleeps == 25) folder->write("proxy/config/proxy.cert", whole);
    });
    start(0, "proxyAgentWebSocket=2\n");
    std::future<int> found = bound.get_future();
    ASSERT_EQ(found.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_EQ(bindFailures, 1) << "the operator is told once";
    EXPECT_EQ(clock.sleptMs(), 30000) << "every 10 s; a certificate without its key is none";
    WsPeer plain(found.get());
    EXPECT_FALSE(plain.status.starts_with("HTTP/1.1 101"));
}

}  // namespace
}  // namespace vx::test
