// Two collectors, of which one is killed: the instance goes on at the other, and comes back.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <utility>

#include "tests/support/e2e_fixture.h"

namespace vx::test {
namespace {

// `collector` with its port and streams is the one at hand; the other one stands aside.
class TwoCollectors : public EndToEnd, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override { collectorWay = GetParam(); }
    void swapCollectors() {
        std::swap(collector, other_);
        std::swap(collectorPort, otherPort_);
        std::swap(streamsDir, otherStreams_);
    }
    int otherPort() const { return otherPort_; }
    bool deliversAgain() { return arrive(arrived() + 61); }
    void killCollector() {
        collector->signal(SIGKILL);
        collector->wait();
    }

private:
    std::unique_ptr<Program> other_;
    int otherPort_ = freePort();
    std::string otherStreams_ = dir / "other_streams";
};

TEST_P(TwoCollectors, AKilledOneIsReplacedByTheOtherAndBack) {
    startCollector();
    startService("backupVxcHostName=127.0.0.1\nbackupVxcPort=" + std::to_string(otherPort()) + "\n");
    swapCollectors();
    startCollector();
    swapCollectors();
    const auto agent = startLoad({"--rate", "300", "--duration", "1000"});
    ASSERT_TRUE(deliversAgain() && linksStand()) << traceText();
    const int descriptors = descriptorsOf(service->pid());
    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        killCollector();
        swapCollectors();
        ASSERT_TRUE(deliversAgain()) << traceText();
        EXPECT_EQ(summaryOfStreams().unreadable, 0u);
        swapCollectors();
        startCollector();  // again, in vain until the other one is lost
        swapCollectors();
    }
    EXPECT_TRUE(service->running());
    EXPECT_TRUE(eventually([&] { return descriptorsOf(service->pid()) <= descriptors; }))
        << descriptors << " before, " << descriptorsOf(service->pid());
}

INSTANTIATE_TEST_SUITE_P(Over, TwoCollectors, testing::Values("TCP", "WSS"));

}  // namespace
}  // namespace vx::test
