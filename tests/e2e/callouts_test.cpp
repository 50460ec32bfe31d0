// Callouts between the real programs: an entry point file that the collector hands out, and what its table
// makes of the traffic of an agent.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/e2e_fixture.h"

namespace vx::test {
namespace {

TEST_F(EndToEnd, CalloutsReachTheTableByBackEndWithTheirErrorsAndCallersOnce) {
    writeEntryPoints();
    startCollector({"--files", dir / "files"});
    startService();

    collector::Summary summary;
    const auto countOf = [&summary](const std::string& target) {
        std::uint64_t count = 0;
        for (const auto& [name, row] : summary.backends)
            if (row.target == target) count += row.count;
        return count;
    };
    const std::string output =
        deliver(150, {"--callouts", "6", "--mix", "db=1,http=1", "--backends", "2", "--chains", "50",
                      "--callers", "2", "--exceptions", "5", "--callout-errors", "10", "--rate", "200"});
    summary = summaryOfStreams();
    EXPECT_EQ(summary.transactions, 150u);
    EXPECT_EQ(reported(output, "total", "callouts"), 900u);
    EXPECT_EQ(countOf("DB") + countOf("HTTP"), 900u);
    ASSERT_EQ(summary.backends.size(), 4u);
    for (const auto& [name, row] : summary.backends) {
        EXPECT_GT(row.errors, 0u) << name;
        EXPECT_LT(row.errors, row.count) << name;
    }
    EXPECT_TRUE(summary.backends.contains("HTTP_payment.example1"));
    EXPECT_TRUE(summary.backends.contains("DB_orders-db2"));
    ASSERT_EQ(summary.callers.size(), 2u);
    for (const auto& [name, row] : summary.callers) EXPECT_EQ(row.announced, 1u) << name;

    deliver(100, {"--callouts", "4", "--mix", "mq=1,custom=1", "--callout-errors", "0"});
    summary = summaryOfStreams();
    EXPECT_EQ(countOf("MQ") + countOf("custom"), 400u);
    EXPECT_GT(countOf("MQ"), 100u);
    EXPECT_GT(countOf("custom"), 100u);
    EXPECT_EQ(summary.unreadable, 0u);
    EXPECT_EQ(summary.transactions, 250u);
}

}  // namespace
}  // namespace vx::test
