// Functions that report by datagram, between real programs.
#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/e2e_fixture.h"
#include "tests/support/raw_agent.h"

namespace vx::test {
namespace {

class Datagrams : public EndToEnd {};

TEST_F(Datagrams, FunctionsDeliverEveryTransactionInEachOfTheirLives) {
    proxySettings = "proxyudpTimeout=4\n";
    startCollector();
    startService();
    const std::vector<std::string> asFunctions = {"--udp", "--processes", "2", "--rate", "20"};
    for (int life = 1; life <= 2; ++life) {
        SCOPED_TRACE(life);
        const std::string output = deliver(20, asFunctions);
        EXPECT_EQ(reported(output, "total", "transactions"), 40u) << output;
        const auto ended = [&](const char* name) {
            const std::string line = std::string("closing connection with vxc func=") + name;
            std::size_t count = 0, at = 0;
            const std::string text = traceText();
            while ((at = text.find(line, at) + 1) != 0) ++count;
            return count >= static_cast<std::size_t>(life);
        };
        ASSERT_TRUE(eventually([&] { return ended("raw-0") && ended("raw-1"); }, 60)) << traceText();
    }
    EXPECT_EQ(summaryOfStreams().unreadable, 0u);
    service->signal(SIGTERM);
    EXPECT_EQ(service->wait(), 0) << service->output();
}

TEST_F(Datagrams, AServiceThatHasComeBackGetsToKnowItsFunctions) {
    startCollector();
    startService();
    const auto functions = startLoad({"--udp", "--processes", "2", "--rate", "40", "--duration", "1000"});
    ASSERT_TRUE(arrive(10)) << traceText();
    service->signal(SIGTERM);
    EXPECT_EQ(service->wait(), 0);
    startService();
    EXPECT_TRUE(arrive(arrived() + 10)) << traceText();
}

}  // namespace
}  // namespace vx::test
