#include "commonlibc/bt/VXBTRecords.h"

#include <algorithm>
#include <memory>
#include <string>

#include "commonlibc/VXMonitorReport.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_word.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

const std::string kGroups = " 0.000000 0 0 5 0.000000 0 0 5 0.000000 500000 0 5\n";
const std::string kFigures =
    "0.500000 218.200000 1.000000 900 5 0.0 0.100000 20.000000 10.000000 30 2 150.000000 150.000000 150 1 "
    "900.000000 900.000000 900 1 1.000000 1.000000 1 1 40.000000 2.400000 0.000000 7.000000 5" +
    kGroups;
const std::string kNone = "0.000000 500000.000000 0 0";
const std::string kIdle = "0.000000 " + kNone + " 0.0 0.000000 " + kNone + " " + kNone + " " + kNone + " " +
                          kNone +
                          " 0.000000 0.000000 0.500000 0.000000 0 0.000000 500000 0 0 0.000000 500000 0 0 "
                          "0.000000 500000 0 0\n";

class BtRecords : public KnowledgeFixture {
protected:
    void SetUp() override {
        KnowledgeFixture::SetUp();
        slot->tlBTObj = btOf("/a");
        vxlb_copy_text(app->bt.vectorPrefix, sizeof(app->bt.vectorPrefix), "t|s|i|");
        vxlb_copy_text(app->bt.vectorPrefixID, sizeof(app->bt.vectorPrefixID), "7|9|");
    }
    void count(std::int32_t category, std::int64_t duration, std::int64_t cpu = 0) {
        slot->tlCategory = static_cast<std::int8_t>(category);
        slot->fpDuration = duration;
        slot->fpCPUTime = cpu;
        EXPECT_TRUE(updateCounterAndDurationForBT(slot.get()));
    }
    void countOneOfEach() {
        count(kCategoryNormal, 10, 7000000);
        count(kCategoryNormal, 30, 5000000);
        count(kCategorySlow, 150);
        count(kCategoryVerySlow, 900);
        count(kCategoryError, 1);
    }
    // The records of a report: what has gone to the channel, then what is left in the buffer.
    std::string report() {
        const std::string left = reportOf(generateAndDumpBTMonitoringRecord);
        return textOf(app->autoSensor.chain) + left;
    }
    std::unique_ptr<vxTD> slot = std::make_unique<vxTD>();
};

TEST_F(BtRecords, TellOfTheIntervalAndOfNothingInTheNextOne) {
    EXPECT_EQ(report(), "74,7|9|0:t|s|i|AllTransactions|" + kIdle) << "a BT that was never counted is silent";
    countOneOfEach();
    EXPECT_EQ(vxUnreportedOfBts(), 5);
    EXPECT_EQ(report(), "74,7|9|2:t|s|i|/a|" + kFigures + "74,7|9|0:t|s|i|AllTransactions|" + kFigures);
    EXPECT_EQ(vxUnreportedOfBts(), 0);
    EXPECT_EQ(report(), "74,7|9|2:t|s|i|/a|" + kIdle + "74,7|9|0:t|s|i|AllTransactions|" + kIdle);
}

TEST_F(BtRecords, WithTagsAFlowpathCountsOnItsTagAndATagIsNamedOnce) {
    vx_word_set(app->VXSys.tagsEnabled, 1);
    {
        const VXGuard guard(app->bt.btTagMutex);
        for (const char* key : {"8-0", "2-6"}) vxTagSequence(app->bt.btTagMap, key);
    }
    VXTagNode unknown{5, "none", nullptr}, known{6, "Host=a\nb", &unknown};
    slot->BTagSeqArray = &known;
    countOneOfEach();
    slot->BTagSeqArray = nullptr;
    const std::string own = "74,7|9|3:t|s|i|/a||", ofTag = "74,7|9|2:t|s|i|/a|",
                      all = "74,7|9|0:t|s|i|AllTransactions||";
    EXPECT_EQ(vxUnreportedOfBts(), 5);
    EXPECT_EQ(report(), own + kIdle + ofTag + "Host=a b|" + kFigures + all + kFigures);
    countOneOfEach();
    EXPECT_EQ(report(), own + kFigures + ofTag + "|" + kIdle + all + kFigures);
}

TEST_F(BtRecords, StayWithinTheirSizeAndTheBufferWhateverTheyAreMadeOf) {
    vx_word_set(app->VXSys.tagsEnabled, 1);
    vxlb_copy_text(app->bt.vectorPrefix, sizeof(app->bt.vectorPrefix), std::string(1023, 'p').c_str());
    std::string tag(5000, 't'), name(9000, 'n');
    VXBTCounters counters{};
    for (VXFigure* figure :
         {&counters.duration, &counters.cpu, &counters.normal, &counters.slow, &counters.verySlow,
          &counters.error, &counters.groupA, &counters.groupB, &counters.groupC})
        *figure = {INT64_MIN, INT64_MIN, INT64_MIN, INT64_MIN};
    counters.tagString = tag.data();
    counters.tagSeq = INT32_MAX - 1;
    const auto buffer = std::make_unique<char[]>(kReportBufferSize);
    std::int32_t length = 0;
    dump74RecordForEveryBT(buffer.get(), &length, counters, 1, name.c_str());
    const std::string record(buffer.get(), static_cast<std::size_t>(length));
    EXPECT_LE(length, kMonitorRecordMax);
    EXPECT_EQ(std::ranges::count(record.substr(record.rfind('|')), ' '), 39) << record;
    EXPECT_EQ(record.find('\n'), record.size() - 1);
    EXPECT_NE(record.find(" -2147483648 "), std::string::npos) << "counts are clamped";

    vx_word_set(app->bt.max_bt_count, 2000);
    for (int i = 0; i < 1500; ++i) {
        slot->tlBTObj = btOf("/a/" + std::to_string(i));
        count(kCategoryNormal, i);
    }
    const std::string text = report();
    EXPECT_GT(text.size(), static_cast<std::size_t>(kReportBufferSize));
    EXPECT_EQ(std::ranges::count(text, '\n'), 1501);
    EXPECT_NE(text.find("AllTransactions||150.000000 749.500000 0.000000 1499 1500 "), std::string::npos);
}

}  // namespace
}  // namespace vx::test
