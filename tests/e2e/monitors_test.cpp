// Monitor records between the real programs: what a run has counted is with the collector when it has ended.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <sstream>
#include <string>

#include "tests/support/e2e_fixture.h"
#include "tests/support/raw_agent.h"
#include "tests/support/record_stream.h"

namespace vx::test {
namespace {

// Transactions that the 74 records of all streams tell of, in the line of all.
std::uint64_t reportedTransactions(const std::string& sensor) {
    std::uint64_t sum = 0;
    std::istringstream lines(sensor);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("74,") || line.find("AllTransactions|") == std::string::npos) continue;
        std::istringstream figures(line.substr(line.rfind('|') + 1));
        std::string field;
        for (int i = 0; i < 5; ++i) figures >> field;
        sum += std::stoull(field);
    }
    return sum;
}

class Monitors : public EndToEnd {
protected:
    // The first figures behind the name, summed over the records of a number whose name ends in `name`.
    long long counted(const std::string& number, const std::string& name) const {
        std::istringstream lines(streams("auto-sensor"));
        long long sum = 0, figure = 0;
        for (std::string line; std::getline(lines, line);) {
            const std::size_t bar = line.rfind('|');
            if (line.starts_with(number + ",") && line.substr(0, bar).ends_with(name) &&
                std::sscanf(line.c_str() + bar, "|%lld", &figure) == 1)
                sum += figure;
        }
        return sum;
    }
};

TEST_F(Monitors, BackendsMethodsExceptionsAndPercentilesAddUpToWhatTheAgentsSent) {
    writeEntryPoints();
    dir.write("files/vxMethodMonFile", "m|Shop.buy|Buying\n");
    dir.write("files/vxExceptionMonFile", "Shop.Gone|Gone\nShop.Never|Never\n");
    startCollector(
        {"--files", dir / "files", "--keywords",
         dir.write(
             "keywords",
             "bciInstrSessionPct=100\ntDigestPercentileBT=1%2060000%2050,95\ntDigestPercentileIP=1\n")});
    startService();
    deliver(50, {"--callouts", "4", "--mix", "http=1", "--callout-errors", "0"});

    RawAgent agent(proxyPort, "shop", 4711);
    ASSERT_TRUE(agent.start()) << traceText();
    std::string records = "\n";
    for (int i = 0; i < 7; ++i) {
        const std::int64_t flowpath = 7000 + i;
        records += startFrame(flowpath, "/raw", 0) + entryFrame(flowpath, "Shop.buy", 0) +
                   exitFrame(flowpath, "Shop.buy", 5000, 5000);
        for (const char* className : {"Shop.Gone", "Shop.Other"})
            records +=
                frameOf(ExceptionEncode,
                        VXExceptionRecord{0, flowpath, 0, 0, wire(className), {}, {}, wire("m"), {}, {}});
        records += endFrame(flowpath, 200, 9000);
    }
    agent.openData().send(records);
    ASSERT_TRUE(arrive(57)) << traceText();
    collector->say("stop");
    ASSERT_TRUE(collector->outputHolds("action=stop_instrumentation;status=stopping;result=Ok"));

    ASSERT_TRUE(eventually([this] { return counted("793", "_AllTransactions") == 57; }))
        << streams("auto-sensor");
    EXPECT_EQ(counted("793", "_/raw"), 7);
    EXPECT_EQ(counted("75", ""), 200);
    EXPECT_EQ(counted("794", ""), 200);
    EXPECT_EQ(counted("61", "_Buying"), 7);
    EXPECT_TRUE(counted("63", "_Gone") == 7 && counted("63", "_OverAll") == 7) << streams("auto-sensor");
    EXPECT_EQ(counted("63", "_Never"), 0);
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
    EXPECT_EQ(reportedTransactions(streams("auto-sensor")), arrived()) << traceText();
    EXPECT_EQ(traceText().find("lost unreported"), std::string::npos);
}

}  // namespace
}  // namespace vx::test
