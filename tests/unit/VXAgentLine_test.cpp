#include "commonlibc/VXAgentLine.h"

#include <string>
#include <thread>

#include "tests/support/link_fixture.h"

namespace vx::test {
namespace {

using AgentLine = LinkFixture;

double secondsOf(const auto& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(AgentLine, ARelayedLineStandsBetweenTwoNewlinesAlsoWhenTheSocketTakesItInParts) {
    apr_socket_opt_set(processes[0].control.get(), APR_SO_SNDBUF, 4096);
    const std::string line(400000, 'x');
    std::thread sender([&] { EXPECT_EQ(vxRelayLine(processes[0], line.c_str()), 0); });
    EXPECT_EQ(agent.readLine(), "");
    EXPECT_TRUE(agent.readLine() == line);
    sender.join();
    EXPECT_EQ(vxRelayToAll("vx_control_req:action=modify;a=1;"), 1);  // one of the two has a connection
    EXPECT_EQ(vxSendToAgent(processes[0], "raw;", 4), 0);
    vxlb_shared_close(processes[0].control);
    EXPECT_EQ(agent.readToEnd(), "\nvx_control_req:action=modify;a=1;\nraw;");
    EXPECT_EQ(vxRelayLine(processes[0], "gone"), -1);
    EXPECT_EQ(vxRelayToAll("gone"), 0);
}

TEST_F(AgentLine, AnAgentThatDoesNotReadIsGivenUpAfterTwoSeconds) {
    const std::string line(20000000, 'x');
    EXPECT_GE(secondsOf([&] { EXPECT_EQ(vxRelayLine(processes[0], line.c_str()), -1); }), 1.9);
    const double further = secondsOf([&] {
        for (int i = 0; i < 50; ++i) EXPECT_EQ(vxRelayLine(processes[0], "further"), -1);
    });
    EXPECT_LT(further, 60) << "once, and not for each line";
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
