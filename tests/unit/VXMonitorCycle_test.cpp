#include "commonlibc/VXMonitorCycle.h"

#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "commonlibc/NIOConnection.h"
#include "commonlibc/NIODataDispatcher.h"
#include "commonlibc/ServerStop.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "tests/support/fake_clock.h"
#include "tests/support/link_fixture.h"
#include "tests/support/record_stream.h"
#include "tests/support/trace_file.h"

namespace vx::test {
namespace {

const std::string kAutoSensorLine = "auto_sensor_thread_hotspot_data_req:";
constexpr std::int64_t kTurnMs = 10000;

class ReportingCycle : public KnowledgeFixture {
protected:
    void TearDown() override {
        vxUpcalls = VXUpcalls{};
        vxFreeChain(app->autoSensor.chain);
        KnowledgeFixture::TearDown();
    }
    // A transaction of the BT "/a" has ended.
    void countOne() {
        const auto slot = std::make_unique<vxTD>();
        slot->tlBTObj = btOf("/a");
        slot->tlCategory = kCategoryNormal;
        updateCounterAndDurationForBT(slot.get());
    }
    // Lines of all transactions since the last call.
    int reports() {
        movePartialToReadList(app->autoSensor.chain);
        int count = 0;
        while (VXBufferNode* node = app->autoSensor.chain.VXCollectorBB.load()) {
            const std::string text(node->buffer, static_cast<std::size_t>(node->use_len));
            for (std::size_t at = 0; (at = text.find("AllTransactions|", at)) != std::string::npos; ++at)
                ++count;
            node->use_len = 0;
            moveToWriteList(app->autoSensor.chain);
        }
        return count;
    }
    FakeClock clock;
};

TEST_F(ReportingCycle, ReportsAtTheFirstTurnThatReachesItsTime) {
    struct Row {
        std::int64_t sample, interval;
        std::string reports;  // of each turn
        std::int64_t leapMs;  // of the clock, in the third turn
        std::int64_t baseMs;
    };
    for (const Row& row :
         {Row{500, 10000, "111111", 0, 0}, Row{500, 5000, "111111", 0, 0}, Row{500, 0, "111111", 0, 0},
          Row{500, 60000, "000001000001", 0, 0}, Row{500, 15000, "011011", 0, 0},
          Row{0, 10000, "000000", 0, 0}, Row{500, INT64_MAX, "000000", 0, 0},
          Row{500, 20000, "0111", 3600000, 0}, Row{500, 10000, "1101", -3600000, 0},
          Row{500, 10000, "111", 0, INT64_MIN}, Row{500, 10000, "111", 0, INT64_MAX}}) {
        app->VXSys.ASSampleInterval = row.sample;
        app->VXSys.ASReportInterval = row.interval;
        app->Server.zorEpochDiff = row.baseMs;
        monitorCycle(VXMonitorPhase::kSession);
        std::string made;
        for (std::size_t turn = 0; turn < row.reports.size(); ++turn) {
            clock.advanceMs(kTurnMs + (turn == 2 ? row.leapMs : 0));
            monitorCycle(VXMonitorPhase::kTurn);
            made += std::to_string(reports());
        }
        EXPECT_EQ(made, row.reports) << row.interval << " leap " << row.leapMs;
    }
}

TEST_F(ReportingCycle, WalksOverIdleTransactionsEveryFewTurnsWithAndWithoutAConnection) {
    static int walks;
    vxUpcalls.markLongIdleTransactions = [] { ++walks; };
    for (const auto& [age, turns] :
         {std::pair(300, 5), std::pair(720, 12), std::pair(0, 5), std::pair(119, 1)}) {
        app->VXBCISetting.FPMaxAllowedAgeInSec = age;
        walks = app->monitor.turns = 0;
        for (int i = 0; i < 2 * turns; ++i)
            monitorCycle(i % 2 ? VXMonitorPhase::kTurn : VXMonitorPhase::kIdle);
        EXPECT_EQ(walks, 2) << age;
    }
}

TEST_F(ReportingCycle, WritesDigestsAtPeriodsOfTheirOwn) {
    app->VXSys.ASSampleInterval = 0;  // stops the reports, and nothing else
    app->digest.bt.type = 1;
    app->digest.bt.periodMs = 3 * kTurnMs;
    monitorCycle(VXMonitorPhase::kSession);
    std::string made;
    for (int turn = 0; turn < 7; ++turn) {
        countOne();
        clock.advanceMs(kTurnMs);
        monitorCycle(VXMonitorPhase::kTurn);
        made += std::to_string(reports());
    }
    EXPECT_EQ(made, "0010010");
}

TEST_F(ReportingCycle, TellsAtTheEndWhatWasNotReported) {
    const TraceFile trace(*app, 1);
    countOne();
    monitorCycle(VXMonitorPhase::kLast);
    EXPECT_EQ(reports(), 1);
    monitorCycle(VXMonitorPhase::kGone);
    EXPECT_FALSE(trace.says("lost unreported"));
    countOne();
    monitorCycle(VXMonitorPhase::kGone);
    EXPECT_TRUE(trace.says("Monitors: lost unreported: transactions = 1, back-end calls = 0, "));
}

TEST_F(ReportingCycle, DigestsComeByTheirOwnPeriodOnceTheyAreOrderedAndAtTheEnd) {
    app->VXSys.ASSampleInterval = 0;  // no other reports
    const auto slot = std::make_unique<vxTD>();
    slot->tlBTObj = btOf("/a");
    slot->tlCategory = kCategoryNormal;
    monitorCycle(VXMonitorPhase::kSession);
    std::string made;
    for (int turn = 0; turn < 8; ++turn) {
        if (turn == 2) setDigestPercentileBT("1%2020000");
        updateCounterAndDurationForBT(slot.get());
        clock.advanceMs(kTurnMs);
        monitorCycle(VXMonitorPhase::kTurn);
        made += std::to_string(reports());
    }
    for (int i = 0; i < 2; ++i) {
        monitorCycle(VXMonitorPhase::kLast);
        made += std::to_string(reports());
    }
    EXPECT_EQ(made, "0000101010") << "the last one has what the last turn has brought";
}

// Counts of a BT: all, and by category 10 to 13.
using Counts = std::array<std::int64_t, 5>;
std::map<std::string, Counts> ended;  // by BT id, of the flowpath records
std::mutex endedMutex;

std::vector<std::string> fieldsOf(const std::string& text, char separator) {
    std::vector<std::string> fields(1);
    for (const char byte : text) byte == separator ? fields.emplace_back() : fields.back() += byte;
    return fields;
}

void noteRecord(const char* record, std::int64_t length) {
    const auto fields = fieldsOf({record, static_cast<std::size_t>(length)}, ',');
    if (fields[0] != "4") return;
    const std::lock_guard lock(endedMutex);
    for (const std::string& id : {fields[6], std::string("0")}) {
        ++ended[id][0];
        ++ended[id][static_cast<std::size_t>(std::stoi(fields[3]) - 9)];
    }
}

// Adds the counts of a 74 record up; true for the line of all.
bool noteReport(const std::string& line, std::map<std::string, Counts>& sums) {
    if (!line.starts_with("74,")) return false;
    const std::string id = line.substr(0, line.find(':')).substr(line.rfind('|', line.find(':')) + 1);
    const auto figures = fieldsOf(line.substr(line.rfind('|') + 1), ' ');
    Counts& counts = sums[id];
    for (std::size_t i = 0; const std::size_t field : {4U, 10U, 14U, 18U, 22U})
        counts[i++] += std::stoll(figures[field]);
    return id == "0";
}

class MonitorSums : public LinkFixture {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        vxUpcalls.monitorCycle = monitorCycle;
        VXBTConfigModelInit();
        VXBackendMonitorInit();
        VXMethodMonitorInit();
        hashMapForAgent();
        parse_global_rule(std::string("1|1|Default|Complete-URL|-|0|-|-|-").data());
        app->VXSys.bciInstrSessionPct = 100;
        app->VXSys.ASReportInterval = 1;  // each turn
        app->bt.allSlowThreshold = 100;
        app->bt.allVerySlowThreshold = 200;
        ended.clear();
    }
    void TearDown() override {
        vxDropBusyList();
        vxFreeSlotPools();
        LinkFixture::TearDown();
    }
    // An agent: transactions one behind another, some of which stay open, until `goesOn` is false.
    void runAgent(std::int64_t agentNumber, const std::atomic<bool>& goesOn) {
        vxSetCurrent(app);
        vxDivertRecords(noteRecord);
        for (std::int64_t i = 1; goesOn; ++i) {
            const std::int64_t number = agentNumber * 1000000 + i, start = 1700000000000000;
            const std::string url = "/shop/" + std::to_string(i % 5);
            const std::int64_t durationMs = i % 7 * 50 + 1;
            {
                const VXGuard decode(app->decoder.decodeMutex);
                readBytes(*app, startFrame(number, url.c_str(), start));
            }
            if (i % 50 == 0 && i < 500) continue;
            const VXGuard decode(app->decoder.decodeMutex);
            readBytes(*app, endFrame(number, i % 11 == 0 ? 500 : 200, start + durationMs * 1000));
        }
        vxDivertRecords(nullptr);
    }
    // Reads reports until `count` of them tell of transactions; the number of transactions that they tell of.
    static void readReports(FakePeer& remote, int count, std::map<std::string, Counts>& sums) {
        while (count > 0) {
            const std::string line = remote.readLine();
            ASSERT_NE(line, kNoLine);
            const std::int64_t before = sums["0"][0];
            if (noteReport(line, sums) && sums["0"][0] > before) --count;
        }
    }
};

TEST_F(MonitorSums, AreExactlyTheTransactionsThatEndedOverConnectionsAndUpToTheStop) {
    app->Server.asDataRunning = app->Server.testRunRunning = 1;
    ASNioInit();
    ASSERT_EQ(create_autoSensor_thread(), 0);
    std::atomic<bool> goesOn{true};
    std::vector<std::thread> agents;
    for (int i = 1; i <= 3; ++i) agents.emplace_back([this, i, &goesOn] { runAgent(i, goesOn); });
    std::map<std::string, Counts> sums;
    FakePeer remote = acceptStream(kAutoSensorLine);
    readReports(remote, 3, sums);
    app->VXSys.autosensorConnState = 0;  // an order of the collector: the thread connects anew
    for (const std::string& line : fieldsOf(remote.readToEnd(), '\n')) noteReport(line, sums);
    remote = acceptStream(kAutoSensorLine);
    readReports(remote, 3, sums);
    std::thread rest([&] {
        for (const std::string& line : fieldsOf(remote.readToEnd(30), '\n')) noteReport(line, sums);
    });
    vxDivertRecords(noteRecord);
    handleStoppingCaseAtStopInstrumentCase();  // ends the open ones while the agents go on
    vxDivertRecords(nullptr);
    EXPECT_TRUE(eventually([&] { return !app->autoSensor.autoSensor_thread_running; }));
    goesOn = false;
    for (std::thread& sender : agents) sender.join();
    rest.join();
    EXPECT_EQ(app->autoSensor.chain.recordsDropped, 0u);
    EXPECT_EQ(sums, ended);
    EXPECT_GT(sums["0"][4], 0);
    EXPECT_GT(sums["0"][2], 0);
}

}  // namespace
}  // namespace vx::test
