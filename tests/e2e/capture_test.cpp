// What is captured beside a transaction's calls, between the real programs: exceptions, headers, and monitors
// that tell the same as the single records.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/e2e_fixture.h"

namespace vx::test {
namespace {

TEST_F(EndToEnd, ExceptionsAndHeadersComeWithTheirTransactionsAndTheMonitorsAgree) {
    writeEntryPoints();
    dir.write("files/vxMethodMonFile", "example|com.example.shop.Cart.method0|carts\n");
    dir.write("files/vxExceptionMonFile",
              "com.example.TimeoutException0\ncom.example.OutOfStockException1|stock\n");
    dir.write("keywords",
              "zorEpochDiff=1388534400\nbciInstrSessionPct=100\nenableExceptionInSeqBlob=1\n"
              "instrExceptions=1%201%200%20100%201\ncaptureHTTPReqFullFp=3%200%200%200\n"
              "captureHTTPRespFullFp=3%200%200%200\n");
    startCollector({"--files", dir / "files", "--keywords", dir / "keywords"});
    startService();
    const std::string output = deliver(
        100, {"--processes", "2", "--callouts", "4", "--chains", "20", "--exceptions", "4", "--errors", "20",
              "--slow", "10", "--headers", "50", "--methods", "20", "--rate", "200"});

    collector::Summary summary = summaryOfStreams();
    std::uint64_t exceptions = 0;
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
    EXPECT_EQ(summary.unreadable, 0U);

    collector->say("stop");
    ASSERT_TRUE(collector->outputHolds("compared with its monitors: ")) << traceText();
    collector->say("table");
    ASSERT_TRUE(collector->outputHolds("rows that differ 0\n")) << collector->output();
    EXPECT_TRUE(collector->outputHolds(", 0 differ\n"));
    for (const std::string kept : {"Host: shop.example", "User-Agent: load/1 (a, b; c=d %26 e)"}) {
        bool found = false;
        for (const std::int64_t number : summary.kept.numbers())
            for (const std::string& header : summary.kept.find(number)->request) found |= header == kept;
        EXPECT_TRUE(found) << kept;
    }
}

}  // namespace
}  // namespace vx::test
