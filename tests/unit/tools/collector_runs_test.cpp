#include "tools/collector/collector_runs.h"

#include <gtest/gtest.h>

#include "tools/collector/collector_table.h"

namespace vx::collector {
namespace {

// 74 record with a count per category; all took the same time.
std::string bt(int id, const char* name, int normal, int slow, int error, int ms) {
    const int count = normal + slow + error;
    const std::string time = std::to_string(ms) + ".000000", longest = std::to_string(ms);
    const auto part = [&](int of) {
        return of ? time + " " + time + " " + longest + " " + std::to_string(of) + " "
                  : "0.000000 500000.000000 0 0 ";
    };
    return "74,3|4|" + std::to_string(id) + ":Tier_host7_shop_" + name + "|0.1 " +
           (count ? time + " " + time + " " + longest : "0.000000 500000.000000 0") + " " +
           std::to_string(count) + " 0.0 0.0 " + part(normal) + part(slow) + part(0) + part(error) +
           "0.0 0.0 0.5 0.0 " + std::to_string(count) + " 0.0 0 0 0 0.0 0 0 0 0.0 0 0 0";
}

class CollectorRuns : public testing::Test {
protected:
    void SetUp() override {
        runs.ordered("vx_control_req:action=start_instrumentation;bciInstrSessionPct=100;");
        begin();
    }
    void begin() {
        runs.opened(StreamKind::kData, shop);
        runs.opened(StreamKind::kAutoSensor, shop);
        for (const char* line : {"99,NewConnection,FPGVersion:1.0", "7,2,Cart", "7,3,Pay", "5,Cart.show,6",
                                 "5,HTTP_stock&#58;80,8", "32,1,Timeout"})
            record(line);
    }
    void record(const std::string& line) { runs.line(StreamKind::kData, line, shop); }
    void report(const std::string& line) { runs.line(StreamKind::kAutoSensor, line, shop); }
    void end() {
        record("10,");
        runs.closed(StreamKind::kAutoSensor, shop);
    }
    // The answers of a row: agreed, in part, differing.
    static std::string answers(const MonitorSide& side) {
        return std::to_string(side.agreed) + std::to_string(side.partial) + std::to_string(side.differing);
    }
    std::string answers(const char* name) { return answers(btRow(runs.summary(), name).monitor); }
    std::string table() {
        char* text = nullptr;
        std::size_t size = 0;
        std::FILE* out = ::open_memstream(&text, &size);
        printSummary(runs.summary(), out, 20);
        std::fclose(out);
        std::string made(text, size);
        std::free(text);
        return made;
    }
    Runs runs;
    InstanceState& shop = runs.of("Tier/host7/shop");
};

const std::string kCart = "4,100,200,10,0,40,2,0,,0,6:7_0_1__6:7_1_30____T3:8:2.900:1:-:3::::200_";
const std::string kPay = "4,101,500,13,0,60,3,0,,0,";

TEST_F(CollectorRuns, AgreeWithTheMonitorsOnceTheyHaveEnded) {
    record(kCart);
    report(bt(2, "Cart", 1, 0, 0, 40));
    record(kCart);
    record(kPay);
    record("38,101,5,6,1,-1,-1,1,-1,-1,-1,-1,-1,at%20a%2Cb%7Cat%20c");
    report(bt(2, "Cart", 1, 0, 0, 40));
    report(bt(2, "Cart", 0, 0, 0, 0));
    report(bt(0, "AllTransactions", 2, 0, 0, 40));
    report(
        "75,3|4|8:Tier_host7_shop_HTTP_stock:80|2 0.200000 2.000000 2 2 2 0 0.0 0 0 2 0.0 0 0 2 0 0 0 0 0 0 "
        "0");
    report("61,3|4|6:Tier_host7_shop_shown|2 0.000000 30.000000 30.000000 30 2");
    EXPECT_NE(table().find("40       40  not compared yet\n"), std::string::npos) << table();
    record("10,");
    EXPECT_EQ(answers("Cart"), "000") << "the last report is on its way";
    report(bt(3, "Pay", 0, 0, 1, 60));
    report(bt(0, "AllTransactions", 0, 0, 1, 60));
    report("63,3|4|1:Tier_host7_shop_Timeout|1 0.000000 ");
    report("63,3|4|0:Tier_host7_shop_OverAll|1 0.000000 ");
    report("63,3|4|2:Tier_host7_shop_shown name|1 0.000000 ");
    report("793,3|4|3:Tier_host7_shop_Pay|7 2 871 50.00 14.50 99.90 640.00");
    record("5,MQ_mail,9");
    record("5,CUSTOM_ledger,10");
    report("75,3|4|9:Tier_host7_shop_MQ_mail|1 0.1 2.0 2 2 1 1 0.0 0 0 2 0.0 0 0 2 0 0 0 0 0 0 0");
    report("75,3|4|10:Tier_host7_shop_CUSTOM_x|1 0.1 2.0 2 2 1 1 0.0 0 0 2 0.0 0 0 2 0 0 0 0 0 0 0");
    runs.closed(StreamKind::kAutoSensor, shop);
    EXPECT_EQ(answers("Cart") + answers("Pay"), "100100");
    Summary& summary = runs.summary();
    EXPECT_EQ(answers(backendRow(summary, "HTTP_stock:80").monitor), "100");
    EXPECT_EQ(answers(methodRow(summary, "Cart.show").monitor), "100");
    EXPECT_EQ(answers(exceptionRow(summary, "Timeout").monitor), "100");
    EXPECT_EQ(summary.bts.size() + summary.backends.size() + summary.methods.size(), 6U)
        << "no rows of its own";
    EXPECT_EQ(
        runs.takeNews(),
        "run of Tier/host7/shop compared with its monitors: 6 objects agree, 2 recorded in part, 0 differ\n");
    EXPECT_NE(table().find("  last period 7 of 2 to 871 ms, 50 % below 14.5, 99.9 % below 640.0\n"),
              std::string::npos);
    EXPECT_EQ(answers(exceptionRow(summary, "shown name").monitor), "000") << "no name of a class";
    EXPECT_TRUE(summary.judgedRuns == 1 && summary.unreadable == 0);
    EXPECT_NE(table().find("  monitor                                           2        2      0         0 "
                           "     0       40.0       40       40  agrees\n"),
              std::string::npos)
        << table();
}

TEST_F(CollectorRuns, DifferWhereOneSideTellsMoreOrOtherTimes) {
    const struct {
        const char* name;
        std::vector<std::string> records, reports;
        const char* answers[3];  // all recorded, sampled, reconnected; each: agreed, in part, differing
    } rows[] = {
        {"a record is missing", {kCart}, {bt(2, "Cart", 2, 0, 0, 40)}, {"001", "010", "010"}},
        {"a report is missing", {kCart, kCart}, {bt(2, "Cart", 1, 0, 0, 40)}, {"001", "001", "001"}},
        {"another category", {kCart}, {bt(2, "Cart", 0, 1, 0, 40)}, {"001", "001", "001"}},
        {"another time", {kCart}, {bt(2, "Cart", 1, 0, 0, 39)}, {"001", "001", "001"}},
        {"no report of it", {kCart}, {bt(3, "Pay", 1, 0, 0, 40)}, {"001", "001", "001"}},
        {"a normal one is taken back",
         {kCart, "4,102,-99,10,0,40,2,0,,0,"},
         {bt(2, "Cart", 2, 0, 0, 40)},
         {"100", "100", "100"}},
        {"an excluded one",
         {kCart, "4,102,-99,-99,0,40,2,0,,0,"},
         {bt(2, "Cart", 1, 0, 0, 40)},
         {"100", "100", "100"}},
        {"no monitor at all", {kCart}, {}, {"000", "000", "000"}},
        {"tags have ids of their own", {kCart}, {bt(1, "Cart|t=1", 5, 0, 0, 40)}, {"000", "000", "000"}},
    };
    for (const auto& row : rows)
        for (const int mode : {0, 1, 2}) {
            SCOPED_TRACE(std::string(row.name) + " " + std::to_string(mode));
            runs.ordered(std::string("vx_control_req:action=start_instrumentation;bciInstrSessionPct=") +
                         (mode == 1 ? "20;" : "100;"));
            btRow(runs.summary(), "Cart").monitor = {};
            shop.run = {};
            begin();
            if (mode == 2) runs.opened(StreamKind::kData, shop);
            for (const std::string& line : row.records) record(line);
            for (const std::string& line : row.reports) report(line);
            end();
            EXPECT_EQ(answers("Cart"), row.answers[mode]);
        }
    EXPECT_EQ(runs.summary().unreadable, 0U);
}

TEST_F(CollectorRuns, AreKeptApartHoweverTheirConnectionsComeAndGo) {
    record(kCart);
    report(bt(2, "Cart", 1, 0, 0, 40));
    runs.closed(StreamKind::kAutoSensor, shop);  // broken, or the last report is out: the 10 record tells
    EXPECT_EQ(answers("Cart"), "000");
    record("10,");
    EXPECT_EQ(answers("Cart"), "100");
    begin();
    record(kCart);
    record("10,");
    begin();  // and the former auto-sensor connection has not ended
    EXPECT_EQ(answers("Cart"), "100") << "no report in all of the run";
    runs.ordered("vx_control_req:action=modify;bciInstrSessionPct=50;");
    record(kPay);
    report(bt(2, "Cart", 1, 0, 0, 40));
    report(bt(3, "Pay", 0, 0, 1, 60));
    runs.closed(StreamKind::kAutoSensor, shop);
    end();
    EXPECT_EQ(answers("Cart") + answers("Pay"), "110100") << "not every one was recorded any more";
    runs.ordered("vx_control_req:action=start_instrumentation;bciInstrSessionPct=100;");
    begin();
    record(kPay);
    runs.ordered("vx_control_req:action=modify;enableBTMonitor=1;");
    record(kPay);
    report(bt(3, "Pay", 0, 0, 1, 60));
    end();
    EXPECT_EQ(answers("Pay"), "110") << "the monitor began in the midst of it";
}

}  // namespace
}  // namespace vx::collector
