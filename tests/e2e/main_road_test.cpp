// The main job between real programs: agents, service, collector.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tests/support/e2e_fixture.h"

namespace vx::test {
namespace {

using collector::Summary;

class MainRoad : public EndToEnd {
protected:
    // Runs a load to its end and answers how many transactions it says it sent.
    long long load(std::vector<std::string> arguments, const std::string& name = "load") {
        auto agent = startLoad(std::move(arguments), name);
        EXPECT_EQ(agent->wait(60), 0) << agent->output();
        return reported(agent->output(), "total", "transactions");
    }
    bool delivered(long long transactions) {
        return eventually(
            [&] { return summaryOfStreams().transactions >= static_cast<std::uint64_t>(transactions); });
    }
};

TEST_F(MainRoad, DeliversEveryTransactionOfSeveralProcessesOfTwoApplications) {
    startCollector();
    startService();
    const auto shop = startLoad(
        {"--app", "shop", "--tier", "Web", "--processes", "3", "--rate", "100", "--duration", "2"}, "a");
    const auto stock =
        startLoad({"--app", "stock", "--tier", "Back_End", "--rate", "50", "--duration", "2"}, "b");
    ASSERT_EQ(shop->wait(40), 0) << shop->output();
    ASSERT_EQ(stock->wait(40), 0) << stock->output();
    const long long sent = reported(shop->output(), "total", "transactions") +
                           reported(stock->output(), "total", "transactions");
    EXPECT_GT(sent, 150);  // fewer than asked for where the machine is busy
    EXPECT_TRUE(delivered(sent)) << sent << " sent, " << summaryOfStreams().transactions << " arrived\n"
                                 << traceText();
    const Summary summary = summaryOfStreams();
    EXPECT_EQ(summary.transactions, static_cast<std::uint64_t>(sent));
    EXPECT_EQ(summary.unreadable, 0u);
    EXPECT_FALSE(summary.methods.empty());
    for (const auto& [name, row] : summary.methods) EXPECT_EQ(row.entries, row.exits) << name;
}

TEST_F(MainRoad, StopsAndStartsTenTimesWithOneTenRecordForEachStop) {
    startCollector();
    startService();
    auto agent = startLoad({"--rate", "200", "--duration", "60"});
    for (int run = 1; run <= 10; ++run) {
        ASSERT_TRUE(collector->outputHolds("action=start_instrumentation;status=starting;result=Ok", run))
            << run;
        const auto before = summaryOfStreams().transactions;
        ASSERT_TRUE(eventually([&] { return summaryOfStreams().transactions > before + 5; }))
            << "run " << run;
        collector->say("stop");
        ASSERT_TRUE(collector->outputHolds("action=stop_instrumentation;status=stopping;result=Ok", run))
            << run;
        ASSERT_TRUE(eventually([&] {
            return summaryOfStreams().byNumber[10] >= static_cast<std::uint64_t>(run);
        })) << run;
        collector->say("start");
    }
    const Summary summary = summaryOfStreams();
    EXPECT_EQ(summary.byNumber.at(10), 10u);
    EXPECT_EQ(summary.unreadable, 0u);
}

TEST_F(MainRoad, CollectorThatReturnsGetsTheInstanceBack) {
    startCollector();
    startService();
    auto agent = startLoad({"--rate", "100", "--duration", "60"});
    ASSERT_TRUE(eventually([&] { return summaryOfStreams().transactions > 20; }));
    collector->signal(SIGKILL);
    collector->wait();
    startCollector();
    ASSERT_TRUE(collector->outputHolds("action=start_instrumentation;status=starting;result=Ok"))
        << traceText();
    const auto before = summaryOfStreams().transactions;
    EXPECT_TRUE(eventually([&] { return summaryOfStreams().transactions > before + 20; })) << traceText();
}

TEST_F(MainRoad, AgentsThatDieLeaveTheirPlaceToTheNextOnes) {
    startCollector();
    startService();
    for (int round = 0; round < 5; ++round) {
        auto agent = startLoad({"--rate", "100", "--duration", "60", "--processes", "2"},
                               "load" + std::to_string(round));
        const auto before = summaryOfStreams().transactions;
        ASSERT_TRUE(eventually([&] { return summaryOfStreams().transactions > before + 10; })) << round;
        agent->signal(SIGKILL);
        agent->wait();
    }
    const long long sent = load({"--rate", "50", "--duration", "1"}, "last");
    EXPECT_GT(sent, 30);
    EXPECT_TRUE(service->running());
}

class Stopping : public EndToEnd, public testing::WithParamInterface<int> {};

TEST_P(Stopping, TakesEffectAtOnceWithCodeZero) {
    startCollector();
    startService();
    auto agent = startLoad({"--rate", "100", "--duration", "60"});
    ASSERT_TRUE(eventually([&] { return summaryOfStreams().transactions > 5; }));
    service->signal(GetParam());
    EXPECT_EQ(service->wait(4), 0) << service->output();
}
INSTANTIATE_TEST_SUITE_P(Signals, Stopping, testing::Values(SIGTERM, SIGINT, SIGUSR1));

TEST_F(EndToEnd, SurvivesAHomeThatCannotBeWrittenTo) {
    startCollector();
    // A file where the folder of the logs should be: nothing below it can be made, whoever we are.
    ASSERT_EQ(::system(("mkdir -p " + dir.path() + "/proxy && touch " + dir.path() + "/proxy/logs").c_str()),
              0);
    startService();
    auto agent = startLoad({"--rate", "50", "--duration", "60"});
    EXPECT_TRUE(eventually([&] { return summaryOfStreams().transactions > 10; }));
}

}  // namespace
}  // namespace vx::test
