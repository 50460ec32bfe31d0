#include "commonlibc/VXAgentLine.h"

#include <chrono>
#include <string>
#include <thread>

#include "commonlibc/vxlb_sock.h"
#include "tests/support/app_fixture.h"
#include "tests/support/fake_collector.h"

namespace vx::test {
namespace {

// Two process records: the first with a control connection whose far end the test holds, the second without.
class AgentLine : public AppFixture {
protected:
    void SetUp() override {
        AppFixture::SetUp();
        for (processInfo_t& process : processes) {
            apr_thread_mutex_create(&process.sendMutex, APR_THREAD_MUTEX_NESTED, app->pool);
            apr_thread_mutex_create(&process.control.closeMutex, APR_THREAD_MUTEX_NESTED, app->pool);
        }
        app->identity.processInfo = table;
        app->identity.numProcess = 2;
        char error[kSockErrorSize];
        vxlb_shared_put(processes[0].control,
                        vxlb_create_client_con("127.0.0.1", listener.port(), app->pool, 1000000, error));
        agent = listener.accept();
        ASSERT_TRUE(agent);
    }
    void TearDown() override {
        vxlb_shared_close(processes[0].control);
        AppFixture::TearDown();
    }

    FakeCollector listener{4096};
    FakePeer agent;
    processInfo_t processes[2]{};
    processInfo_t* table[2]{&processes[0], &processes[1]};
};

double secondsOf(const auto& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(AgentLine, ARelayedLineStandsBetweenTwoNewlines) {
    EXPECT_EQ(vxRelayToAll("vx_control_req:action=modify;a=1;"), 1);  // one of the two has a connection
    EXPECT_EQ(vxSendToAgent(processes[0], "raw;", 4), 0);
    vxlb_shared_close(processes[0].control);
    EXPECT_EQ(agent.readToEnd(), "\nvx_control_req:action=modify;a=1;\nraw;");
    EXPECT_EQ(vxRelayLine(processes[0], "gone"), -1);
    EXPECT_EQ(vxRelayToAll("gone"), 0);
}

TEST_F(AgentLine, ALineThatTheSocketTakesInPartsArrivesWhole) {
    const std::string line(400000, 'x');
    int result = -1;
    std::thread sender([&] { result = vxRelayLine(processes[0], line.c_str()); });
    EXPECT_EQ(agent.readLine(), "");
    EXPECT_EQ(agent.readLine().size(), line.size());
    sender.join();
    EXPECT_EQ(result, 0);
}

TEST_F(AgentLine, AnAgentThatDoesNotReadIsGivenUpAfterTwoSeconds) {
    const std::string line(20000000, 'x');
    const double seconds = secondsOf([&] { EXPECT_EQ(vxRelayLine(processes[0], line.c_str()), -1); });
    EXPECT_GE(seconds, 1.9);
    EXPECT_LT(seconds, 8);  // room for a loaded machine
    EXPECT_LT(secondsOf([&] { EXPECT_EQ(vxRelayLine(processes[0], "next"), -1); }), 1);
    EXPECT_NE(processes[0].control.get(), nullptr);  // closing is the listener's
    EXPECT_TRUE(agent.ended());
}

TEST_F(AgentLine, ABrokenConnectionIsAnAnswerNotASignal) {
    agent.reset();
    vxRelayLine(processes[0], "into the reset");
    EXPECT_EQ(vxRelayLine(processes[0], "behind it"), -1);
}

}  // namespace
}  // namespace vx::test
