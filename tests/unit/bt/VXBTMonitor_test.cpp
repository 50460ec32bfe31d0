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
    using Figures = std::vector<std::int64_t>;
    static void expectFigure(const VXFigure& figure, std::int64_t count, std::int64_t total, std::int64_t min,
                             std::int64_t max) {
        EXPECT_EQ(Figures({figure.count, figure.total, figure.min, figure.max}),
                  Figures({count, total, min, max}));
    }
    std::unique_ptr<vxTD> slot = std::make_unique<vxTD>();
};

TEST_F(BtMonitor, StatusAndThresholdsMakeTheCategoryAndANormalOneCapturedForSlownessIsGivenUp) {
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
    app->VXSys.bciInstrSessionPct = 0;
    app->VXSys.captureMethodForAllFP = 1;
    std::uint8_t captured = 1;
    findCategoryOfBT(*slot->tlBTObj, 100, 200, &captured);
    EXPECT_EQ(captured, 1);
    findCategoryOfBT(*slot->tlBTObj, 1, 200, &captured);
    EXPECT_EQ(captured, 0);
}

TEST_F(BtMonitor, AStartClearsTheCountersOfASlotAndNotWhatItStandsFor) {
    EXPECT_TRUE(count(kCategorySlow, 150));
    expectFigure(ofBt().counters.slow, 1, 150, 150, 150);
    VXBTMonitorInit();
    expectFigure(ofBt().counters.duration, 0, 0, kUnset, 0);
    EXPECT_TRUE(ofBt().btObj == slot->tlBTObj && ofBt().isDirty);
}

TEST_F(BtMonitor, GroupsCountForThemselvesHugeSumsWrapAndAMergedBlockIsFreshAgain) {
    VXBTCounters target{}, source{};
    initVXBTMonitorDataCounters(target);
    initVXBTMonitorDataCounters(source);
    updateBTDataCounters(source, {14, 100, 100, {100, 100, 100}});  // no category
    updateBTDataCounters(source, {15, 8, 2, {4, 5, 6}});            // one that counts in general only
    expectFigure(source.duration, 1, 8, 8, 8);
    expectFigure(source.groupA, 1, 4, 4, 4);
    expectFigure(source.groupB, 1, 5, 5, 5);
    expectFigure(source.groupC, 1, 6, 6, 6);
    expectFigure(source.normal, 0, 0, kUnset, 0);
    for (int i = 0; i < 2; ++i) {
        updateBTDataCounters(source, {kCategorySlow, INT64_MAX, INT64_MIN, {0, 0, 0}});
        updateBTDataCountersForAggregate(target, source);
    }
    expectFigure(target.slow, 2, -2, kUnset, INT64_MAX);
    expectFigure(target.cpu, 3, 2, INT64_MIN, 2);
    expectFigure(source.duration, 0, 0, kUnset, 0);
}

TEST_F(BtMonitor, WhatIsExcludedHasNoBtOrMeetsAMonitorOffIsNotCounted) {
    EXPECT_FALSE(count(kCategoryExcluded, 1));
    parseBTMonitorKeyword("0");
    EXPECT_FALSE(count(kCategoryNormal, 1));
    parseBTMonitorKeyword("1");
    for (const std::int32_t id : {-1, 100000}) {
        slot->tlBTObj->btId = id;
        EXPECT_FALSE(count(kCategoryNormal, 1));
    }
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

TEST_F(BtMonitor, TheSizeOnlyRisesAndStaysWithinTheCapacity) {
    EXPECT_EQ(vxGrownSize(128, 300), 514) << "by twice the old size and one from zero";
    EXPECT_EQ(vxGrownSize(0, 5), 6);
    EXPECT_EQ(vxGrownSize(128, 4294967295), 4294967552);
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

}  // namespace
}  // namespace vx::test
