// The main job over WS and WSS.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tests/support/e2e_fixture.h"

namespace vx::test {
namespace {

class CollectorBy : public EndToEnd, public testing::WithParamInterface<const char*> {};

// Runs, a file that the collector hands out and a collector that returns: as over plain TCP.
TEST_P(CollectorBy, DeliversEverythingAndComesBack) {
    collectorWay = GetParam();
    dir.write("files/VXEntryPointsFile", "Db|Db.query()|DB_CALLOUT|2\n" + std::string(100000, '#') + "\n");
    startCollector({"--files", dir / "files"});
    startService();
    deliver(300, {"--processes", "2", "--rate", "1000"});
    ASSERT_TRUE(
        collector->outputHolds("asks for a file: vx_control_rep:action=file;keyword=VXEntryPointsFile"))
        << collector->output();
    collector->say("stop");
    ASSERT_TRUE(collector->outputHolds("action=stop_instrumentation;status=stopping;result=Ok"))
        << traceText();
    collector->say("start");
    EXPECT_TRUE(collector->outputHolds("action=start_instrumentation;status=starting;result=Ok", 2));
    deliver(100, {}, "stock");
    const collector::Summary summary = summaryOfStreams();
    EXPECT_EQ(summary.transactions, delivered);
    EXPECT_EQ(summary.unreadable, 0u);
    collector->signal(SIGKILL);
    collector->wait();
    startCollector();
    EXPECT_TRUE(collector->outputHolds("action=start_instrumentation;status=starting;result=Ok"))
        << traceText();
    deliver(50, {}, "third");
}

INSTANTIATE_TEST_SUITE_P(Ways, CollectorBy, testing::Values("WS", "WSS"),
                         [](const auto& one) { return std::string(one.param); });

}  // namespace
}  // namespace vx::test
