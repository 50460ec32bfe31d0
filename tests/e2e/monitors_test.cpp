// Monitor records between the real programs: what a run has counted is with the collector when it has ended.
#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/e2e_fixture.h"

namespace vx::test {
namespace {

class Monitors : public EndToEnd {
protected:
    // One of the figures behind the name, summed over the records of a number whose name ends in `name`.
    std::uint64_t counted(const std::string& number, const std::string& name, int place = 1) const {
        std::istringstream lines(streams("auto-sensor"));
        std::uint64_t sum = 0;
        for (std::string line; std::getline(lines, line);) {
            const std::size_t bar = line.rfind('|');
            if (!line.starts_with(number + ",") || !line.substr(0, bar).ends_with(name)) continue;
            std::istringstream figures(line.substr(bar + 1));
            double figure = 0;
            for (int i = 0; i < place; ++i) figures >> figure;
            sum += static_cast<std::uint64_t>(figure);
        }
        return sum;
    }
};

// Every kind of traffic at once: what the agent has counted, the single records and the monitors tell the
// same.
TEST_F(Monitors, CalloutsExceptionsAndHeadersComeWithTheirTransactionsAndTheMonitorsAgree) {
    writeEntryPoints();
    dir.write("files/vxMethodMonFile", "example|com.example.shop.Cart.method0|carts\n");
    dir.write("files/vxExceptionMonFile",
              "com.example.TimeoutException0\ncom.example.OutOfStockException1|stock\n");
    dir.write("keywords",
              "zorEpochDiff=1388534400\nbciInstrSessionPct=100\nenableExceptionInSeqBlob=1\n"
              "instrExceptions=1%201%200%20100%201\ncaptureHTTPReqFullFp=3%200%200%200\n"
              "captureHTTPRespFullFp=3%200%200%200\n"
              "tDigestPercentileBT=1%2060000%2050,95\ntDigestPercentileIP=1\n");
    startCollector({"--files", dir / "files", "--keywords", dir / "keywords"});
    startService();
    const std::string output = deliver(
        150, {"--processes",      "2",  "--callouts", "4",  "--mix",     "db=1,http=1", "--backends",   "2",
              "--callout-errors", "10", "--chains",   "20", "--callers", "2",           "--exceptions", "4",
              "--errors",         "20", "--slow",     "10", "--headers", "50",          "--methods",    "20",
              "--rate",           "200"});
    deliver(100, {"--callouts", "4", "--mix", "mq=1,custom=1", "--callout-errors", "0"});

    collector::Summary summary = summaryOfStreams();
    EXPECT_EQ(summary.transactions, 400u);
    EXPECT_EQ(summary.unreadable, 0u);
    std::map<std::string, std::uint64_t> callouts;
    std::uint64_t exceptions = 0;
    for (const auto& [name, row] : summary.backends) callouts[row.target] += row.count;
    EXPECT_EQ(callouts["DB"] + callouts["HTTP"], 1200u);
    EXPECT_EQ(callouts["MQ"] + callouts["custom"], 400u);
    EXPECT_TRUE(callouts["MQ"] > 100u && callouts["custom"] > 100u);
    for (const char* name :
         {"HTTP_payment.example1", "HTTP_payment.example2", "DB_orders-db1", "DB_orders-db2"}) {
        const collector::BackendRow& row = summary.backends[name];
        EXPECT_TRUE(row.errors > 0 && row.errors < row.count) << name;
    }
    ASSERT_EQ(summary.callers.size(), 2u);
    for (const auto& [name, row] : summary.callers) EXPECT_EQ(row.announced, 1u) << name;
    for (const auto& [name, row] : summary.exceptions) {
        exceptions += row.count;
        EXPECT_TRUE(row.lastStack.starts_with("com.example.") &&
                    row.lastStack.ends_with("Dispatcher.java:12)\n"))
            << name << ": " << row.lastStack;
        EXPECT_FALSE(row.bts.empty()) << name;
    }
    EXPECT_EQ(summary.exceptions.size(), 5U);
    EXPECT_EQ(exceptions, reported(output, "total", "exceptions"));
    const std::uint64_t withHeaders = reported(output, "total", "headers");
    EXPECT_GT(withHeaders, 50U);
    EXPECT_EQ(summary.byNumber[12], withHeaders);
    EXPECT_EQ(summary.byNumber[13], withHeaders);
    std::set<std::string> kept;
    for (const std::int64_t number : summary.kept.numbers())
        for (const std::string& header : summary.kept.find(number)->request) kept.insert(header);
    EXPECT_TRUE(kept.contains("Host: shop.example"));
    EXPECT_TRUE(kept.contains("User-Agent: load/1 (a, b; c=d %26 e)"));

    collector->say("stop");
    ASSERT_TRUE(collector->outputHolds("compared with its monitors: ")) << traceText();
    collector->say("table");
    ASSERT_TRUE(collector->outputHolds("rows that differ 0\n")) << collector->output();
    EXPECT_TRUE(collector->outputHolds(", 0 differ\n"));
    EXPECT_EQ(counted("793", "_AllTransactions"), 400u);
    EXPECT_EQ(counted("794", "") - counted("794", "_CUSTOM_com.example.client.Ledger.post"), 1600u)
        << "what calls a back-end of its own kind counts as one, too";
    EXPECT_TRUE(counted("61", "_carts") > 0 && counted("63", "_stock") > 0) << streams("auto-sensor");
}

TEST_F(Monitors, ReportsOfARunAddUpToItsTransactionsThoughItEndsInTheMidstOfThem) {
    startCollector(
        {"--keywords", dir.write("keywords", "zorEpochDiff=1388534400\nbciInstrSessionPct=100\n")});
    startService();
    const auto load = startLoad({"--processes", "3", "--rate", "60", "--duration", "1000", "--errors", "20",
                                 "--slow", "20", "--urls", "5"});
    for (int run = 1; run <= 2; ++run) {
        SCOPED_TRACE(run);
        ASSERT_TRUE(arrive(arrived() + 60)) << traceText();
        collector->say("stop");
        ASSERT_TRUE(collector->outputHolds(" compared with its monitors: ", run)) << traceText();
        collector->say("start");
    }
    const std::string output = collector->output();
    EXPECT_EQ(occurrences(output, " objects agree, 0 recorded in part, 0 differ"), 2) << output;
    EXPECT_EQ(occurrences(output, " 0 objects agree"), 0) << output;
    ASSERT_TRUE(arrive(arrived() + 10)) << "a run that has not begun is compared with nothing";
    load->signal(SIGKILL);
    load->wait();
    collector->say("stop");
    ASSERT_TRUE(collector->outputHolds(" compared with its monitors: ", 3));
    EXPECT_EQ(counted("74", "_AllTransactions", 5), arrived()) << traceText();
    EXPECT_EQ(traceText().find("lost unreported"), std::string::npos);
}

}  // namespace
}  // namespace vx::test
