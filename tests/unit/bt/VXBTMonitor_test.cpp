#include "commonlibc/bt/VXBTMonitor.h"

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
    }
    VXBTMonitorDataCounters& ofBt() { return *vxAggSlot(app->bt.aggDataArr, slot->tlBTObj->btId); }
    bool count(std::int32_t category, std::int64_t duration) {
        slot->tlCategory = static_cast<std::int8_t>(category);
        slot->fpDuration = duration;
        return updateCounterAndDurationForBT(slot.get());
    }
    static std::vector<std::int64_t> of(const VXFigure& figure) {
        return {figure.count, figure.total, figure.min, figure.max};
    }
    using Figures = std::vector<std::int64_t>;
    std::unique_ptr<vxTD> slot = std::make_unique<vxTD>();
};

TEST_F(BtMonitor, StatusAndThresholdsMakeTheCategoryAndANormalOneCapturedForSlownessIsGivenUp) {
    const struct {
        std::int64_t duration;
        std::int32_t status, category;
    } rows[] = {{99, 200, kCategoryNormal},    {100, 200, kCategorySlow},   {199, 399, kCategorySlow},
                {200, 200, kCategoryVerySlow}, {5000, 599, kCategoryError}, {1, 600, kCategoryNormal}};
    for (const auto& row : rows)
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

TEST_F(BtMonitor, GroupsCountForThemselvesHugeSumsWrapAndAMergedBlockIsFreshAgain) {
    VXBTCounters target{}, source{};
    initVXBTMonitorDataCounters(target);
    initVXBTMonitorDataCounters(source);
    updateBTDataCounters(source, {14, 100, 100, {100, 100, 100}});  // no category
    updateBTDataCounters(source, {15, 8, 2, {4, 5, 1}});            // one that counts in general only
    EXPECT_EQ(of(source.duration), Figures({1, 8, 8, 8}));
    EXPECT_EQ(of(source.groupC), Figures({1, 1, 1, 1}));
    EXPECT_EQ(of(source.normal), Figures({0, 0, kUnset, 0}));
    for (int i = 0; i < 2; ++i) {
        updateBTDataCounters(source, {kCategorySlow, INT64_MAX, INT64_MIN, {0, 0, 0}});
        updateBTDataCountersForAggregate(target, source);
    }
    EXPECT_EQ(of(target.slow), Figures({2, -2, kUnset, INT64_MAX}));
    EXPECT_EQ(of(target.groupC), Figures({3, 1, 1, 1})) << "0 is counted and not measured";
    EXPECT_EQ(of(target.cpu), Figures({3, 2, INT64_MIN, 2}));
    EXPECT_EQ(of(source.duration), Figures({0, 0, kUnset, 0}));
}

TEST_F(BtMonitor, WhatIsExcludedHasNoBtOrMeetsAMonitorOffIsNotCountedAndAStartForgetsTheRest) {
    EXPECT_TRUE(count(kCategorySlow, 150));
    EXPECT_EQ(of(ofBt().counters.slow), Figures({1, 150, 150, 150}));
    VXBTMonitorInit();
    EXPECT_EQ(of(ofBt().counters.duration), Figures({0, 0, kUnset, 0}));
    EXPECT_TRUE(ofBt().btObj == slot->tlBTObj && ofBt().isDirty);
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

}  // namespace
}  // namespace vx::test
