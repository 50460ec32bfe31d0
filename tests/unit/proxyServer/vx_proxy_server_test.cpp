#include "commonlibc/proxyServer/vx_proxy_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include "commonlibc/proxyServer/vx_proxy_instance_link.h"
#include "commonlibc/vx_agent.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_guard.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_collector.h"
#include "tests/support/temp_dir.h"

namespace vx::test {
namespace {

// The service without its shell, on a thread of the test. An instance's collector has always answered.
class Listener : public testing::Test {
protected:
    void TearDown() override {
        stop();
        vxListenerReport = {};
    }

    void start(int wantedPort = 0) {
        setenv("VXHOME", home.path().c_str(), 1);
        std::filesystem::create_directories(home.path() + "/proxy/config");
        std::ofstream(home.path() + "/proxy/config/proxysetting.conf") << "proxyPort=" << wantedPort << "\n";
        vxControlThreadStarter = [](vxApplication* app) {
            app->control.controlThreadId = 1;
            app->control.lws_active = 0;
            app->Server.replyReceived = 1;
            return 0;
        };
        bound = {};
        bindFailures = 0;
        vxListenerReport.listening = [](const char*, int given) { bound.set_value(given); };
        vxListenerReport.bindFailed = [](int, const char*) { ++bindFailures; };
        proxyServerFlag = 1;
        proxyStopFlag = 0;
        worker = std::thread([] { agent_init("DotNetAgent", 3, "ProxyName", "proxy", 0); });
    }
    void startListening() {
        start();
        std::future<int> found = bound.get_future();
        ASSERT_EQ(found.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        port = found.get();
        ASSERT_GT(port, 0);
    }
    void stop() {
        if (!worker.joinable()) return;
        proxyStopFlag = 1;
        vxWakeListener();
        worker.join();
        proxyStopFlag = 0;
    }

    FakePeer connect() const {
        FakePeer peer(::socket(AF_INET, SOCK_STREAM, 0));
        connectTo(peer);
        return peer;
    }
    void connectTo(const FakePeer& peer) const {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        EXPECT_EQ(::connect(peer.descriptor(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    static std::string line(const char* prefix, int pid) {
        return prefix + std::string("appName=a;vxAppServerHost=b;tierName=c;agentName=d;pid=") +
               std::to_string(pid) + "\n";
    }
    // A process of the one identity; the first makes the instance and is not answered.
    FakePeer agent(int pid) const {
        FakePeer peer = connect();
        peer.send(line("vx_ctrl_msg_req:", pid));
        return peer;
    }
    // True when the loop still answers an agent.
    bool serves(int pid = 9999) const {
        return agent(pid).readLine().starts_with("vx_ctrl_msg_rep:result=Ok;procIndex=");
    }

    inline static std::promise<int> bound;
    inline static std::atomic<int> bindFailures{0};
    TempDir home;
    std::thread worker;
    int port = 0;
};

TEST_F(Listener, IsNotHeldUpBySilentConnections) {
    startListening();
    FakePeer silent[10];
    for (FakePeer& peer : silent) peer = connect();
    FakePeer first = agent(1), second = agent(2);
    EXPECT_EQ(second.readLine(), "vx_ctrl_msg_rep:result=Ok;procIndex=1");
    silent[3].send(line("vx_ctrl_msg_req:", 3));
    EXPECT_EQ(silent[3].readLine(), "vx_ctrl_msg_rep:result=Ok;procIndex=2") << "late, but welcome";
}

TEST_F(Listener, StartsAfterAttemptsThatCameToNothingWithWhatTheyMade) {
    start();
    stop();  // perhaps before the port was taken
    proxyStopFlag = 1;
    const auto attempt = [] {
        agent_init("DotNetAgent", 3, "ProxyName", "proxy", 0);
        vxApplication* root = instanceAt(0);
        return std::tuple{
            VXProxyInstance.load(), VXProxy.attached.load(),   root, root->pool, root->agentLogBuffer,
            root->ruckusMap,        root->flowpath.fpi_tls_map};
    };
    const auto former = attempt();
    EXPECT_EQ(attempt(), former);
    vxSetCurrent(nullptr);
    startListening();
    const FakePeer first = agent(1);
    EXPECT_TRUE(serves());
}

TEST_F(Listener, SurvivesWhateverConnectionsSendAndHowTheyEnd) {
    startListening();
    const FakePeer first = agent(1);
    std::mt19937 draw(4711);
    const std::string known = line("vx_ctrl_msg_req:", 1);
    const std::string beginnings[] = {
        "",
        "vx_ctrl_msg_req:",
        "vx_data_msg_req:",
        "agent_post_data_req:",
        "auto_sensor_thread_hotspot_data_req:",
        known + "vx_control_req:action=send_file;keyword=../",
        known + "vx_control_req:action=send_instrumentation_profile;instrProfile=",
        known + "thread_dump:$",
        known + "auto_sensor_GCDump:",
        known + std::string(140000, 'x')};
    for (int round = 0; round < 300; ++round) {
        FakePeer peer = connect();
        std::string bytes = beginnings[draw() % std::size(beginnings)];
        for (auto i = draw() % 200; i > 0; --i) bytes += static_cast<char>(draw() % 256);
        if (draw() % 2) bytes += line(";", static_cast<int>(draw() % 5));
        if (draw() % 2) bytes += "^" + std::string(draw() % 50, '\x0c');
        if (draw() % 8 == 0)  // a byte at a time
            for (std::size_t i = 0; i < bytes.size() && i < 100 && peer.send(bytes.substr(i, 1)); ++i)
                continue;
        else
            peer.send(bytes);
        if (draw() % 3 == 0) peer.reset();
    }
    EXPECT_TRUE(serves());
}

TEST_F(Listener, AnUnknownConnectionIsClosedAfterHalfAMinute) {
    FakeClock clock;
    startListening();
    const FakePeer first = agent(1);
    FakePeer unknown = connect();
    unknown.send("vx_data_msg_req:appName=nobody\nrest");
    ASSERT_TRUE(serves());
    clock.advanceMs(29999);
    ASSERT_TRUE(serves());
    EXPECT_FALSE(unknown.ended(0.1));
    clock.advanceMs(1);
    ASSERT_TRUE(serves());
    EXPECT_TRUE(unknown.ended(5));
}

TEST_F(Listener, TheEndOfAControlConnectionTakesTheProcessWithIt) {
    startListening();
    FakePeer first = agent(1), second = agent(2);
    ASSERT_EQ(second.readLine(), "vx_ctrl_msg_rep:result=Ok;procIndex=1");
    FakePeer data = connect();
    data.send(line("vx_data_msg_req:", 2));
    ASSERT_TRUE(serves(3));
    EXPECT_FALSE(data.ended(0));
    second.close();
    EXPECT_TRUE(data.ended());
    EXPECT_EQ(agent(4).readLine(), "vx_ctrl_msg_rep:result=Ok;procIndex=1") << "its place is free";
}

TEST_F(Listener, DataThatNobodyTakesEndsTheDataConnectionAlone) {
    startListening();
    FakePeer control = agent(1), data = connect();
    data.send(line("vx_data_msg_req:", 1));
    ASSERT_TRUE(serves());
    data.send("^\x0c");
    EXPECT_TRUE(data.ended());
    EXPECT_FALSE(control.ended(0));
}

TEST_F(Listener, GoesOnWhenTheSystemIsOutOfDescriptors) {
    startListening();
    const FakePeer first = agent(1);
    ASSERT_TRUE(serves());
    VXOutbox_t& outbox = instanceAt(1)->control.outbox;
    const auto dumps = [&outbox] {  // with nobody to send them they are counted as lost
        const VXGuard lock(outbox.mutex);
        return outbox.dropped;
    };
    FakePeer waiting(::socket(AF_INET, SOCK_STREAM, 0));
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit few{100, former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    std::vector<FakePeer> holders;
    // Again and again, since the instance's control thread gives a descriptor back when its connect fails.
    // Not copies of the standard input: a test may run without one.
    for (int quietRounds = 0; quietRounds < 40; ++quietRounds) {
        for (int held = 0; (held = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0; quietRounds = 0)
            holders.emplace_back(held);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    connectTo(waiting);
    waiting.send(line("vx_ctrl_msg_req:", 5));
    EXPECT_EQ(waiting.readLine(0.2), kNoLine);
    for (std::uint64_t sent = 1; sent <= 3; ++sent) {
        first.send("thread_dump:x\n");
        for (int i = 0; i < 1000 && dumps() < sent; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(dumps(), 3u) << "who is there is served meanwhile";
    holders.clear();
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_TRUE(waiting.readLine().starts_with("vx_ctrl_msg_rep:"));
}

TEST_F(Listener, AStopEndsTheWaitAtOnce) {
    startListening();
    const auto before = std::chrono::steady_clock::now();
    stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
    vxWakeListener();  // without a loop nothing happens
}

TEST_F(Listener, TriesATakenPortAgainUntilItIsFree) {
    static FakeCollector* holder = nullptr;
    static std::atomic<int> sleeps{0};
    FakeCollector taken;
    holder = &taken;
    sleeps = 0;
    FakeClock clock;
    clock.atSleep([] {
        if (++sleeps == 25) holder->stopListening();
    });
    start(taken.port());
    std::future<int> found = bound.get_future();
    ASSERT_EQ(found.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(found.get(), taken.port());
    EXPECT_EQ(bindFailures, 1) << "the operator is told once";
    EXPECT_EQ(clock.sleptMs(), 30000) << "every 10 s";
}

TEST_F(Listener, AStopEndsTheTriesForAPort) {
    FakeClock clock;
    clock.atSleep([] { proxyStopFlag = 1; });
    const FakeCollector taken;
    start(taken.port());
    worker.join();
    EXPECT_LE(clock.sleptMs(), 1000);
    proxyStopFlag = 0;
}

}  // namespace
}  // namespace vx::test
