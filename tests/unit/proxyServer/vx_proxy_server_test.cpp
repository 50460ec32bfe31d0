#include "commonlibc/proxyServer/vx_proxy_server.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <chrono>
#include <future>
#include <thread>
#include <tuple>
#include <vector>

#include "commonlibc/vxlb_guard.h"
#include "tests/support/fake_clock.h"
#include "tests/support/listener_fixture.h"
#include "tests/support/program.h"

namespace vx::test {
namespace {

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

TEST_F(Listener, DataThatNobodyTakesEndsItsConnectionAControlConnectionTheProcessAndTimeAnUnknownOne) {
    FakeClock clock;
    startListening();
    FakePeer first = agent(1), second = agent(2), unknown = connectTo(port);
    ASSERT_EQ(second.readLine(), "vx_ctrl_msg_rep:result=Ok;procIndex=1");
    unknown.send("vx_data_msg_req:appName=nobody\nrest");
    FakePeer data = connectTo(port), other = connectTo(port);
    data.send(line("vx_data_msg_req:", 2));
    other.send(line("vx_data_msg_req:", 1));
    ASSERT_TRUE(serves(3));
    other.send("^\x0c");
    EXPECT_TRUE(other.ended());
    EXPECT_FALSE(first.ended(0) || data.ended(0));
    second.close();
    EXPECT_TRUE(data.ended());
    EXPECT_EQ(agent(4).readLine(), "vx_ctrl_msg_rep:result=Ok;procIndex=1") << "its place is free";
    EXPECT_FALSE(unknown.ended(0));
    clock.advanceMs(30000);
    ASSERT_TRUE(serves());
    EXPECT_TRUE(unknown.ended());
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
    const int spare = ::socket(AF_INET, SOCK_STREAM, 0);
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
    FakePeer waiting = connectTo(port, spare);
    waiting.send(line("vx_ctrl_msg_req:", 5));
    EXPECT_EQ(waiting.readLine(0.2), kNoLine);
    for (std::uint64_t sent = 1; sent <= 3; ++sent) {
        first.send("thread_dump:x\n");
        EXPECT_TRUE(eventually([&] { return dumps() >= sent; })) << "who is there is served meanwhile";
    }
    holders.clear();
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_TRUE(waiting.readLine().starts_with("vx_ctrl_msg_rep:"));
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
    ASSERT_EQ(found.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_EQ(found.get(), taken.port());
    EXPECT_EQ(bindFailures, 1) << "the operator is told once";
    EXPECT_EQ(clock.sleptMs(), 30000) << "every 10 s";
    stop();
    clock.atSleep([] { proxyStopFlag = 1; });
    const FakeCollector again;
    start(again.port());
    worker.join();
    EXPECT_LE(clock.sleptMs(), 31000) << "a stop ends the tries";
    proxyStopFlag = 0;
}

}  // namespace
}  // namespace vx::test
