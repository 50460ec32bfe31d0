// Functions that report by datagram, between real programs.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>

#include "tests/support/e2e_fixture.h"
#include "tests/support/raw_agent.h"
#include "tests/support/udp_messages.h"

namespace vx::test {
namespace {

class Datagrams : public EndToEnd {};

// Functions whose links to the collector run over the protocol.
class FunctionLives : public Datagrams, public testing::WithParamInterface<const char*> {};

TEST_P(FunctionLives, DeliverEveryTransactionAndGiveBackWhatTheyHeld) {
    proxySettings = "proxyudpTimeout=10\n";
    collectorWay = GetParam();
    startCollector();
    startService();
    ASSERT_TRUE(eventually([&] { return occurrences(traceText(), "created socket for UDP") == 1; }));
    makeInstance("shop");
    const int descriptors = descriptorsOf(service->pid());
    for (int life = 1; life <= 2; ++life) {
        SCOPED_TRACE(life);
        const std::string output = deliver(20, {"--udp", "--processes", "2", "--rate", "20"});
        EXPECT_EQ(reported(output, "total", "transactions"), 40u) << output;
        for (const std::string name : {"raw-0", "raw-1"})
            ASSERT_TRUE(eventually([&] {
                return occurrences(traceText(), "closing connection with vxc func=" + name) >= life;
            })) << traceText();
        EXPECT_TRUE(eventually([&] { return descriptorsOf(service->pid()) <= descriptors; }));
    }
    EXPECT_EQ(summaryOfStreams().unreadable, 0u);
    service->signal(SIGTERM);
    EXPECT_EQ(service->wait(), 0) << service->output();
}
INSTANTIATE_TEST_SUITE_P(Over, FunctionLives, testing::Values("TCP", "WSS"));

// A function by hand, at a port of its own.
class RawFunction {
public:
    explicit RawFunction(int port)
        : socket_(connectTo(port, ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))) {}
    void say(const std::string& bytes) const { socket_.send(bytes); }
    // The next text that begins so; others are passed over.
    std::string hears(const std::string& prefix) const {
        const auto deadline = deadlineIn(kPeerSeconds);
        std::string text(20000, '\0');
        while (readableUntil(socket_.descriptor(), deadline)) {
            const ssize_t length = ::recv(socket_.descriptor(), text.data(), text.size(), 0);
            std::string heard = text.substr(0, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
            if (heard.starts_with(prefix)) return heard;
        }
        return kNoLine;
    }

private:
    FakePeer socket_;
};

TEST_F(Datagrams, SettingsAndMessagesOfTheCollectorReachFunctionsAndTheirAnswersReachIt) {
    startCollector();
    startService();
    ASSERT_TRUE(eventually([&] { return occurrences(traceText(), "created socket for UDP") == 1; }));
    const RawFunction pay(proxyPort), late(proxyPort);
    pay.say(introduced(VXWrapType::kPendingRuckus, "pay"));
    const std::string named = pay.hears("AppIndex:");
    ASSERT_NE(named, kNoLine) << traceText();
    const std::int32_t index = std::stoi(named.substr(named.find(':') + 1));
    const auto settingsHold = [&](const std::string& text) {
        return eventually([&] {
            pay.say(wrapped(VXWrapType::kSettings, index));
            return pay.hears("[\"AppId\"").find(text) != std::string::npos;
        });
    };
    EXPECT_TRUE(settingsHold("\"TestNumber\":1,")) << traceText();
    collector->say("modify enableDBBackendName=1");
    EXPECT_EQ(pay.hears("enableDBBackendName"), "enableDBBackendName=1") << traceText();
    EXPECT_TRUE(settingsHold("\"enableDBBackendName\":1}"));

    const std::string message = "VexalineMessage 2.0;RKMID=7;duration=600;funcName=pay;delay=3;";
    collector->say("ruckus 7 600 funcName=pay;delay=3");
    EXPECT_EQ(pay.hears("VexalineMessage"), message) << traceText();
    late.say(introduced(VXWrapType::kHeartbeat, "pay"));
    EXPECT_EQ(late.hears("Heart Beat Received"), "Heart Beat Received" + message);
    late.say(wrapped(VXWrapType::kRuckusResponse, index, "^RKMID=7;status=Done;"));
    EXPECT_TRUE(collector->outputHolds("VexalineMessage 2.0;RKMID=7;status=Done;")) << traceText();
    collector->say("ruckus 7 1");  // replaces it
    EXPECT_TRUE(collector->outputHolds("VexalineMessage 2.0;RKMID=7;status=Success;")) << traceText();
}

}  // namespace
}  // namespace vx::test
