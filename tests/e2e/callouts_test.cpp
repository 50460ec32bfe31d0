// Callouts between the real programs: an entry point file that the collector hands out, and what its table
// makes of the traffic of an agent.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/e2e_fixture.h"

namespace vx::test {
namespace {

using collector::BackendRow;
using collector::Summary;

class Callouts : public EndToEnd {
protected:
    void SetUp() override {
        Program::Setup setup;
        setup.arguments = {programPath("vxagent"), "load", "--entry-points"};
        setup.outputFile = dir / "entry.txt";
        Program printer(setup);
        ASSERT_EQ(printer.wait(), 0);
        dir.write("files/VXEntryPointsFile", dir.read("entry.txt"));
        startCollector({"--files", dir / "files"});
        startService();
    }
    // Runs a load to its end and waits until all its transactions have arrived; its last line.
    std::string load(std::vector<std::string> arguments) {
        auto agent = startLoad(std::move(arguments), "load" + std::to_string(++loads));
        EXPECT_EQ(agent->wait(60), 0) << agent->output();
        sent += static_cast<std::uint64_t>(reported(agent->output(), "total", "transactions"));
        EXPECT_TRUE(eventually([&] { return summaryOfStreams().transactions >= sent; })) << traceText();
        return agent->output();
    }
    static std::uint64_t countOf(const Summary& summary, const std::string& target) {
        std::uint64_t count = 0;
        for (const auto& [name, row] : summary.backends)
            if (row.target == target) count += row.count;
        return count;
    }

    int loads = 0;
    std::uint64_t sent = 0;
};

TEST_F(Callouts, ReachTheTableByBackEndWithTheirErrorsAndCallersOnce) {
    const std::string output =
        load({"--callouts", "6", "--mix", "db=1,http=1", "--backends", "2", "--chains", "50", "--callers",
              "2", "--exceptions", "5", "--callout-errors", "10", "--transactions", "150", "--rate", "200"});
    const auto total = [&output](const char* key) {
        return static_cast<std::uint64_t>(reported(output, "total", key));
    };
    Summary summary = summaryOfStreams();
    EXPECT_EQ(total("transactions"), 150u);
    EXPECT_EQ(total("callouts"), 900u);
    EXPECT_EQ(countOf(summary, "DB") + countOf(summary, "HTTP"), 900u);
    ASSERT_EQ(summary.backends.size(), 4u);
    for (const auto& [name, row] : summary.backends) {
        EXPECT_GT(row.errors, 0u) << name;
        EXPECT_LT(row.errors, row.count) << name;
    }
    EXPECT_TRUE(summary.backends.contains("HTTP_payment.example1"));
    EXPECT_TRUE(summary.backends.contains("DB_orders-db2"));
    ASSERT_EQ(summary.callers.size(), 2u);
    for (const auto& [name, row] : summary.callers) EXPECT_EQ(row.announced, 1u) << name;

    load({"--callouts", "4", "--mix", "mq=1,custom=1", "--callout-errors", "0", "--transactions", "100"});
    summary = summaryOfStreams();
    EXPECT_EQ(countOf(summary, "MQ") + countOf(summary, "custom"), 400u);
    EXPECT_GT(countOf(summary, "MQ"), 100u);
    EXPECT_GT(countOf(summary, "custom"), 100u);
    EXPECT_EQ(summary.unreadable, 0u);
    EXPECT_EQ(summary.transactions, sent);
}

}  // namespace
}  // namespace vx::test
