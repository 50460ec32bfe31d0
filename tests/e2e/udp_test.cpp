// Functions that report by datagram, between real programs.
#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/e2e_fixture.h"
#include "tests/support/raw_agent.h"
#include "tests/support/ws_bridge.h"

namespace vx::test {
namespace {

class Datagrams : public EndToEnd {};

// Functions whose links to the collector run over the protocol.
class FunctionLives : public Datagrams, public testing::WithParamInterface<const char*> {
protected:
    const std::string protocol = GetParam();
    std::unique_ptr<TestCertificate> certificate;
    std::unique_ptr<WsBridge> front;
};

TEST_P(FunctionLives, DeliverEveryTransactionAndGiveBackWhatTheyHeld) {
    proxySettings = "proxyudpTimeout=4\n";
    startCollector();
    std::string settings;
    if (protocol != "TCP") {
        if (protocol == "WSS") certificate = std::make_unique<TestCertificate>();
        front = std::make_unique<WsBridge>(collectorPort, certificate.get());
        const std::string port = std::to_string(front->port());
        settings = "vxcPort=" + port + "\nVXC_COMM_PROTOCOL=" + protocol + ":" + port + "\n";
    }
    startService(settings);
    const std::vector<std::string> asFunctions = {"--udp", "--processes", "2", "--rate", "20"};
    makeInstance("shop");
    const int descriptors = descriptorsOf(service->pid());
    for (int life = 1; life <= 2; ++life) {
        SCOPED_TRACE(life);
        const std::string output = deliver(20, asFunctions);
        EXPECT_EQ(reported(output, "total", "transactions"), 40u) << output;
        for (const std::string name : {"raw-0", "raw-1"})
            ASSERT_TRUE(eventually(
                [&] { return occurrences(traceText(), "closing connection with vxc func=" + name) == life; },
                60))
                << traceText();
        EXPECT_TRUE(eventually([&] { return descriptorsOf(service->pid()) <= descriptors; }));
    }
    EXPECT_EQ(summaryOfStreams().unreadable, 0u);
    service->signal(SIGTERM);
    EXPECT_EQ(service->wait(), 0) << service->output();
}
INSTANTIATE_TEST_SUITE_P(Over, FunctionLives, testing::Values("TCP", "WSS"));

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
