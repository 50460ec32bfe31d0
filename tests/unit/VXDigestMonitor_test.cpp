#include "commonlibc/VXDigestMonitor.h"

#include <memory>
#include <string>

#include "commonlibc/bt/VXBTDigest.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "tests/support/knowledge_fixture.h"

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

    rulesAre("7|Former|40|0|/f|0");
    end(find_bt_obj_declared("Former"), 5000);
    rulesAre("7|Later|40|0|/l|0");
    end(find_bt_obj_declared("Later"), 5);
    EXPECT_EQ(reportOf(generateAndDumpBTDigestRecord).substr(0, (head(40, "Later") + "1 5 5 ").size()),
              head(40, "Later") + "1 5 5 ")
        << "what a BT took that had the id before is not among them";
}

}  // namespace
}  // namespace vx::test
