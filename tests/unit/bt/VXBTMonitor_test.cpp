#include "commonlibc/bt/VXBTMonitor.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "commonlibc/VXMonitorModel.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

constexpr std::int64_t kUnset = 0x7FFFFFFF;

TEST(Growth, AddsTwiceTheOldSizeAndOneFromZero) {
    struct Row {
        std::int64_t size, index, grown;
    };
    for (const Row& row : {Row{128, 127, 128}, Row{128, 128, 257}, Row{128, 257, 514}, Row{128, 300, 514},
                           Row{0, 5, 6}, Row{128, -1, 128}, Row{128, 4294967295, 4294967552}})
        EXPECT_EQ(vxGrownSize(row.size, row.index), row.grown) << row.size << " for " << row.index;
}

class BtMonitor : public KnowledgeFixture {
protected:
    void SetUp() override {
        KnowledgeFixture::SetUp();
        slot->tlBTObj = btOf("/a");
        slot->tlBTObj->slowThreshold = 100;
        slot->tlBTObj->verySlowThreshold = 200;
        slot->tlCategory = kCategoryNormal;
        slot->statusCode = 200;
    }
    VXBTMonitorDataCounters& ofBt() { return *vxAggSlot(app->bt.aggDataArr, slot->tlBTObj->btId); }
    bool count(std::int32_t category, std::int64_t duration, std::int64_t cpu = 0) {
        slot->tlCategory = static_cast<std::int8_t>(category);
        slot->fpDuration = duration;
        slot->fpCPUTime = cpu;
        return updateCounterAndDurationForBT(slot.get());
    }
    static void expectFigure(const VXFigure& figure, std::int64_t count, std::int64_t total, std::int64_t min,
                             std::int64_t max) {
        EXPECT_EQ(figure.count, count);
        EXPECT_EQ(figure.total, total);
        EXPECT_EQ(figure.min, min);
        EXPECT_EQ(figure.max, max);
    }
    std::unique_ptr<vxTD> slot = std::make_unique<vxTD>();
};

TEST_F(BtMonitor, TheStatusAndThenTheThresholdsMakeTheCategory) {
    struct Row {
        std::int64_t duration;
        std::int32_t status, category;
    };
    for (const Row& row :
         {Row{99, 200, kCategoryNormal}, Row{100, 200, kCategorySlow}, Row{199, 399, kCategorySlow},
          Row{200, 200, kCategoryVerySlow}, Row{1, 404, kCategoryError}, Row{5000, 599, kCategoryError},
          Row{1, 600, kCategoryNormal}, Row{1, -99, kCategoryNormal}})
        EXPECT_EQ(findCategoryOfBT(*slot->tlBTObj, row.duration, row.status, nullptr), row.category)
            << row.duration << " and " << row.status;
}

TEST_F(BtMonitor, ANormalFlowpathCapturedForSlownessOnlyIsGivenUp) {
    struct Row {
        std::int32_t pct, all;
        std::int64_t duration;
        std::uint8_t left;
    };
    for (const Row& row :
         {Row{0, 1, 1, 0}, Row{0, 0, 1, 1}, Row{1, 1, 1, 1}, Row{0, 2, 1, 1}, Row{0, 1, 100, 1}}) {
        app->VXSys.bciInstrSessionPct = row.pct;
        app->VXSys.captureMethodForAllFP = static_cast<std::int16_t>(row.all);
        std::uint8_t captured = 1;
        findCategoryOfBT(*slot->tlBTObj, row.duration, 200, &captured);
        EXPECT_EQ(captured, row.left) << row.pct << ' ' << row.all << ' ' << row.duration;
    }
}

TEST_F(BtMonitor, EachFlowpathCountsInGeneralAndInItsCategory) {
    EXPECT_TRUE(count(kCategoryNormal, 10, 7));
    EXPECT_TRUE(count(kCategoryNormal, 30, 5));
    EXPECT_TRUE(count(kCategorySlow, 150));
    EXPECT_TRUE(count(kCategoryVerySlow, 900));
    EXPECT_TRUE(count(kCategoryError, 1));
    const VXBTCounters& counters = ofBt().counters;
    expectFigure(counters.duration, 5, 1091, 1, 900);
    expectFigure(counters.cpu, 5, 12, 0, 7);
    expectFigure(counters.normal, 2, 40, 10, 30);
    expectFigure(counters.slow, 1, 150, 150, 150);
    expectFigure(counters.verySlow, 1, 900, 900, 900);
    expectFigure(counters.error, 1, 1, 1, 1);
    expectFigure(counters.groupA, 5, 0, 0, 0);
    expectFigure(counters.groupC, 5, 0, kUnset, 0);
    EXPECT_TRUE(ofBt().isDirty);
    EXPECT_EQ(counters.tagSeq, 0) << "the first BT counted in this run";
}

TEST_F(BtMonitor, ACategoryOfItsOwnCountsInGeneralOnlyAndAnUnknownOneNowhere) {
    VXBTCounters counters{};
    initVXBTMonitorDataCounters(counters);
    updateBTDataCounters(counters, {15, 8, 2, {4, 5, 6}});
    updateBTDataCounters(counters, {14, 100, 100, {100, 100, 100}});
    expectFigure(counters.duration, 1, 8, 8, 8);
    expectFigure(counters.groupA, 1, 4, 4, 4);
    expectFigure(counters.groupB, 1, 5, 5, 5);
    expectFigure(counters.groupC, 1, 6, 6, 6);
    expectFigure(counters.normal, 0, 0, kUnset, 0);
}

TEST_F(BtMonitor, WhatIsExcludedHasNoBtOrMeetsAMonitorOffIsNotCounted) {
    EXPECT_FALSE(count(kCategoryExcluded, 1));
    parseBTMonitorKeyword("0");
    EXPECT_FALSE(count(kCategoryNormal, 1));
    parseBTMonitorKeyword("1");
    slot->tlBTObj->btId = -1;
    EXPECT_FALSE(count(kCategoryNormal, 1));
    slot->tlBTObj->btId = 100000;
    EXPECT_FALSE(count(kCategoryNormal, 1)) << "there is no slot";
    slot->tlBTObj = nullptr;
    EXPECT_FALSE(count(kCategoryNormal, 1));
    EXPECT_FALSE(updateCounterAndDurationForBT(nullptr));
}

TEST_F(BtMonitor, SlotsStayInPlaceWhileOtherThreadsGrowTheArray) {
    VXBTMonitorDataCounters* before = &ofBt();
    std::thread grower([this] {
        vxSetCurrent(app);
        VXGuard guard(app->bt.btMapMutex);
        for (std::int32_t id = 3; id < 1500; id += 100) {
            BTObject* object = find_bt_obj_in_config_map(std::to_string(id).c_str(), id, 1, 2, -1, -1);
            checkAndIncrementAggrBTDataArray(object);
        }
    });
    for (int i = 0; i < 500; ++i) EXPECT_TRUE(count(kCategoryNormal, 1));
    grower.join();
    EXPECT_EQ(&ofBt(), before);
    EXPECT_EQ(ofBt().counters.duration.count, 500);
    EXPECT_GT(app->bt.aggDataArr.size, 1403);
    EXPECT_EQ(vxAggSlot(app->bt.aggDataArr, 1403)->btObj.load()->btId, 1403);
}

TEST_F(BtMonitor, HugeSumsWrapAndAMergedBlockIsFreshAgain) {
    VXBTCounters target{}, source{};
    initVXBTMonitorDataCounters(target);
    initVXBTMonitorDataCounters(source);
    for (int i = 0; i < 2; ++i) {
        updateBTDataCounters(source, {kCategorySlow, INT64_MAX, INT64_MIN, {0, 0, 0}});
        updateBTDataCountersForAggregate(target, source);
    }
    expectFigure(target.slow, 2, -2, kUnset, INT64_MAX);
    expectFigure(target.cpu, 2, 0, INT64_MIN, 0);
    expectFigure(source.duration, 0, 0, kUnset, 0);
}

TEST_F(BtMonitor, TheEndOfARunKeepsTheCountsAndTheNextOneStartsFromZero) {
    count(kCategoryNormal, 10);
    ofBt().digestUpdated = 1;
    ResetMonitorData();
    EXPECT_EQ(ofBt().counters.duration.count, 1) << "the last report is still to come";
    EXPECT_FALSE(ofBt().digestUpdated);
    VXBTMonitorInit();
    expectFigure(ofBt().counters.duration, 0, 0, kUnset, 0);
    EXPECT_TRUE(ofBt().btObj == slot->tlBTObj && ofBt().isDirty);
}

TEST_F(BtMonitor, TheSizeOnlyRisesAndStaysWithinTheCapacity) {
    BTObject object{};
    object.btId = kAggCapacity;
    checkAndIncrementAggrBTDataArray(&object);
    parseBTAggDataArraySize("-5");
    EXPECT_EQ(app->bt.aggDataArr.size, 128);
    parseBTAggDataArraySize("1000");
    EXPECT_EQ(vxAggSlot(app->bt.aggDataArr, 999), nullptr) << "no id has asked for it";
    parseBTAggDataArraySize("99999999999");
    EXPECT_EQ(app->bt.aggDataArr.size, 65536);
}

TEST_F(BtMonitor, ThePrefixNamesTheInstanceByItsEncodedNames) {
    setSharedText(app->retired, app->VXBCISetting.encodedTierName, "my&#95;tier");
    setSharedText(app->retired, app->VXBCISetting.encodedServerName, "srv");
    setSharedText(app->retired, app->VXBCISetting.encodedAppName, "app");
    app->VXBCISetting.tierID = 3;
    app->VXBCISetting.appID = 44;
    createVectorPrefix();
    EXPECT_STREQ(app->bt.vectorPrefix, "my&#95;tier_srv_app_");
    EXPECT_STREQ(app->bt.vectorPrefixID, "3|44|");
}

}  // namespace
}  // namespace vx::test
