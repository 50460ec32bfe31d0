// The main job between real programs: agents, service, collector.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tests/support/e2e_fixture.h"

namespace vx::test {
namespace {

class MainRoad : public EndToEnd {
protected:
    std::unique_ptr<Program> endlessLoad() { return startLoad({"--rate", "100", "--duration", "1000"}); }
    // True once so many more have come.
    bool arriveFurther(std::uint64_t count) { return arrive(arrived() + count); }
};

TEST_F(MainRoad, DeliversEveryTransactionOfSeveralProcessesOfTwoApplications) {
    startCollector();
    startService();
    makeInstance("stock_2");
    const auto stock =
        startLoad({"--app", "stock_2", "--rate", "50", "--transactions", "100", "--duration", "100"});
    deliver(80, {"--processes", "3", "--rate", "100"});
    ASSERT_EQ(stock->wait(150), 0) << stock->output();
    const std::uint64_t sent = delivered + reported(stock->output(), "total", "transactions");
    EXPECT_EQ(sent, 340u);
    EXPECT_TRUE(arrive(sent)) << traceText();
    const collector::Summary summary = summaryOfStreams();
    EXPECT_EQ(summary.transactions, sent);
    EXPECT_EQ(summary.unreadable, 0u);
    EXPECT_FALSE(summary.methods.empty());
    for (const auto& [name, row] : summary.methods) EXPECT_EQ(row.entries, row.exits) << name;
}

TEST_F(MainRoad, StopsAndStartsTenTimesWithOneTenRecordEachThoughTheHomeCannotBeWrittenTo) {
    startCollector();
    dir.write("proxy/logs", "");  // in the folder's place: nothing can be made below it, whoever we are
    startService();
    const auto agent = endlessLoad();
    for (std::uint64_t run = 1; run <= 10; ++run) {
        SCOPED_TRACE(run);
        ASSERT_TRUE(started(static_cast<int>(run)));
        ASSERT_TRUE(arriveFurther(5));
        ASSERT_TRUE(stopRun(static_cast<int>(run)));
        ASSERT_TRUE(eventually([&] { return summaryOfStreams().byNumber[10] >= run; }));
        collector->say("start");
    }
    const collector::Summary summary = summaryOfStreams();
    EXPECT_EQ(summary.byNumber.at(10), 10u);
    EXPECT_EQ(summary.unreadable, 0u);
}

TEST_F(MainRoad, EverySignalThatStopsTakesEffectAtOnceWithCodeZero) {
    startCollector();
    int round = 0;
    for (const int number : {SIGTERM, SIGINT, SIGUSR1}) {
        ++round;
        startService();
        const auto agent = endlessLoad();
        ASSERT_TRUE(arriveFurther(5)) << number;
        service->signal(SIGHUP);  // of a terminal that goes: no stop
        EXPECT_TRUE(eventually([&] { return occurrences(traceText(), "SIGHUP received") == round; }));
        ASSERT_TRUE(arriveFurther(5)) << number;
        service->signal(number);
        EXPECT_EQ(service->wait(), 0) << number << service->output();
    }
}

}  // namespace
}  // namespace vx::test
