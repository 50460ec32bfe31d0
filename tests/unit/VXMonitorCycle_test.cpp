#include "commonlibc/VXMonitorCycle.h"

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/vx_upcalls.h"
#include "tests/support/fake_clock.h"
#include "tests/support/knowledge_fixture.h"
#include "tests/support/trace_file.h"

namespace vx::test {
namespace {

constexpr std::int64_t kTurnMs = 10000;

class ReportingCycle : public KnowledgeFixture {
protected:
    void TearDown() override {
        vxUpcalls = VXUpcalls{};
        vxFreeChain(app->autoSensor.chain);
        KnowledgeFixture::TearDown();
    }
    // A transaction of a BT has ended.
    static void countOne(BTObject* bt) {
        static thread_local const auto slot = std::make_unique<vxTD>();
        slot->tlBTObj = bt;
        slot->tlCategory = kCategoryNormal;
        updateCounterAndDurationForBT(slot.get());
    }
    // What the lines of all transactions since the last call tell.
    struct Told {
        int lines = 0;
        std::int64_t transactions = 0;
    };
    Told told() {
        Told all;
        const std::string text = textOf(app->autoSensor.chain);
        vxDiscardChain(app->autoSensor.chain);
        for (std::size_t at = 0; (at = text.find("AllTransactions|", at)) != std::string::npos; ++at) {
            long long count = 0;
            std::sscanf(text.c_str() + at, "AllTransactions|%*s %*s %*s %*s %lld", &count);
            all.transactions += count;
            ++all.lines;
        }
        return all;
    }
    FakeClock clock;
};

TEST_F(ReportingCycle, ReportsAtTheFirstTurnThatReachesItsTime) {
    struct Row {
        std::int64_t sample, interval;
        std::string reports;  // of each turn
        std::int64_t leapMs;  // the wall's clock is set, in the third turn
    };
    for (const Row& row :
         {Row{500, 5000, "111111", 0}, Row{500, 60000, "000001000001", 0}, Row{500, 15000, "011011", 0},
          Row{0, 10000, "000000", 0}, Row{500, INT64_MAX, "000000", 0}, Row{500, 20000, "010101", 3600000},
          Row{500, 10000, "1111", -3600000}}) {
        app->VXSys.ASSampleInterval = row.sample;
        app->VXSys.ASReportInterval = row.interval;
        monitorCycle(VXMonitorPhase::kSession);
        std::string made;
        for (std::size_t turn = 0; turn < row.reports.size(); ++turn) {
            clock.advanceMs(kTurnMs);
            if (turn == 2) clock.setWall(row.leapMs);
            monitorCycle(VXMonitorPhase::kTurn);
            made += std::to_string(told().lines);
        }
        EXPECT_EQ(made, row.reports) << row.interval << " leap " << row.leapMs;
    }
}

TEST_F(ReportingCycle, WalksOverIdleTransactionsEveryFewTurnsWithAndWithoutAConnection) {
    static int walks;
    vxUpcalls.markLongIdleTransactions = [] { ++walks; };
    for (const auto& [age, turns] : {std::pair(300, 5), {0, 5}, {119, 1}}) {
        app->VXBCISetting.FPMaxAllowedAgeInSec = age;
        walks = 0;
        for (int i = 0; i < 3 * turns; ++i) {
            EXPECT_EQ(walks, i / turns) << age;
            monitorCycle(i % 2 ? VXMonitorPhase::kTurn : VXMonitorPhase::kIdle);
        }
        EXPECT_EQ(walks, 3) << age;
    }
}

TEST_F(ReportingCycle, WritesDigestsAtPeriodsOfTheirOwn) {
    app->VXSys.ASSampleInterval = 0;  // stops the reports, and nothing else
    app->digest.bt.type = 1;
    app->digest.bt.periodMs = 3 * kTurnMs;
    monitorCycle(VXMonitorPhase::kSession);
    std::string made;
    for (int turn = 0; turn < 7; ++turn) {
        countOne(btOf("/a"));
        clock.advanceMs(kTurnMs);
        monitorCycle(VXMonitorPhase::kTurn);
        made += std::to_string(told().lines);
    }
    EXPECT_EQ(made, "0010010");
}

TEST_F(ReportingCycle, TellsAtTheEndWhatWasNotReported) {
    const TraceFile trace(*app, 1);
    countOne(btOf("/a"));
    monitorCycle(VXMonitorPhase::kLast);
    EXPECT_EQ(told().transactions, 1);
    monitorCycle(VXMonitorPhase::kGone);
    EXPECT_FALSE(trace.says("lost unreported"));
    countOne(btOf("/a"));
    monitorCycle(VXMonitorPhase::kGone);
    EXPECT_TRUE(trace.says("Monitors: lost unreported: transactions = 1, back-end calls = 0, "));
}

TEST_F(ReportingCycle, TellsEachTransactionOnceHoweverManyAgentsGoOn) {
    constexpr int kAgents = 3, kEach = 20000;
    BTObject* const bt = btOf("/a");
    std::atomic<int> working{kAgents};
    std::vector<std::thread> agents;
    for (int i = 0; i < kAgents; ++i)
        agents.emplace_back([&] {
            vxSetCurrent(app);
            for (int n = 0; n < kEach; ++n) countOne(bt);
            --working;
        });
    app->VXSys.ASReportInterval = 1;  // each turn
    monitorCycle(VXMonitorPhase::kSession);
    std::int64_t transactions = 0;
    for (bool last = false; !last;) {
        last = working == 0;
        clock.advanceMs(kTurnMs);
        monitorCycle(last ? VXMonitorPhase::kLast : VXMonitorPhase::kTurn);
        transactions += told().transactions;
    }
    for (std::thread& agent : agents) agent.join();
    EXPECT_EQ(transactions, kAgents * kEach);
}

}  // namespace
}  // namespace vx::test
