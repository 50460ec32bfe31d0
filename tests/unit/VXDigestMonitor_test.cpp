#include "commonlibc/VXDigestMonitor.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "commonlibc/bt/VXBTDigest.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "tests/support/knowledge_fixture.h"
#include "tests/support/monitor_report.h"

namespace vx::test {
namespace {

class DigestMonitor : public KnowledgeFixture {
protected:
    void end(BTObject* bt, std::int64_t duration) {
        slot->tlBTObj = bt;
        slot->tlCategory = kCategoryNormal;
        slot->fpDuration = duration;
        updateCounterAndDurationForBT(slot.get());
    }
    std::string head(int id, const std::string& name) const {
        return std::string("793,") + app->bt.vectorPrefixID + std::to_string(id) + ":" +
               app->bt.vectorPrefix + name + "|";
    }
    std::unique_ptr<vxTD> slot = std::make_unique<vxTD>();
};

TEST_F(DigestMonitor, TheKeywordSetsTypePeriodAndPercentilesOrNothingAtAll) {
    const VXDigestSettings& settings = app->digest.bt;
    const struct {
        const char* value;
        std::int32_t type, periodMs;
        std::uint64_t percentiles;
    } rows[] = {
        {"1", 1, 300000, 9500},
        {"1%2010000", 1, 10000, 9500},
        {"1%2086400000%20100", 1, 86400000, 10000},
        {"1%2060000%200.01,50,95.5,99.999", 1, 60000, 1ULL | 5000ULL << 16 | 9550ULL << 32 | 10000ULL << 48},
        {"0%2060000%2050", 0, 60000, 5000},
    };
    for (const auto& row : rows) {
        setDigestPercentileBT(row.value);
        EXPECT_TRUE(settings.type == row.type && settings.periodMs == row.periodMs) << row.value;
        EXPECT_EQ(settings.percentiles, row.percentiles) << row.value;
    }
    for (const std::string& refused :
         {std::string("2"), std::string("1x"), std::string("1%209999"), std::string("1%2086400001"),
          std::string("1%2060000%20"), std::string("1%2060000%200"), std::string("1%2060000%20100.01"),
          std::string("1%2060000%20nan"), std::string("1%2060000%2050,"),
          std::string("1%2060000%2010,20,30,40,50"), std::string("1%2060000%2050%201"),
          std::string(5000, '1')}) {
        setDigestPercentileBT(refused.c_str());
        EXPECT_TRUE(settings.type == 0 && settings.periodMs == 60000 && settings.percentiles == 5000)
            << refused;
    }
    setDigestPercentileBT("1");
    vxDigestInit();
    EXPECT_EQ(settings.type, 0) << "no run inherits it";
}

TEST_F(DigestMonitor, EachBtHasItsPercentilesAndALineOfAll) {
    EXPECT_EQ(reportOf(generateAndDumpBTDigestRecord), "");
    setDigestPercentileBT("1%2060000%2025,90");
    BTObject *const a = btOf("/a"), *const b = btOf("/b");
    for (int i = 1; i <= 100; ++i) {
        end(a, i);
        end(b, 1000 + i);
    }
    EXPECT_EQ(reportOf(generateAndDumpBTDigestRecord),
              head(a->btId, "/a") + "100 1 100 25.00 25.50 90.00 90.50\n" + head(b->btId, "/b") +
                  "100 1001 1100 25.00 1025.50 90.00 1090.50\n" + head(0, "AllTransactions") +
                  "200 1 1100 25.00 50.50 90.00 1080.50\n");
    end(b, 7);
    const std::string last = "1 7 7 25.00 7.00 90.00 7.00\n";
    EXPECT_EQ(reportOf(generateAndDumpBTDigestRecord),
              head(b->btId, "/b") + last + head(0, "AllTransactions") + last);
    end(b, 8);
    ResetMonitorData();
    EXPECT_EQ(vxAggSlot(app->bt.aggDataArr, b->btId)->counters.duration.count, 102)
        << "the report is to come";
    EXPECT_EQ(reportOf(generateAndDumpBTDigestRecord), "") << "a run leaves nothing to the next";
}

}  // namespace
}  // namespace vx::test
