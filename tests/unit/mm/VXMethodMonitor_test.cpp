#include "commonlibc/mm/VXMethodMonitor.h"

#include <gtest/gtest.h>

#include "commonlibc/VXMonitorModel.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

TEST_F(KnowledgeFixture, OnlyAMonitoredMethodIsCountedAndANewRunStartsFromZero) {
    mPP monitored{}, plain{}, unassigned{};
    monitored.methodId = 200;
    plain.methodId = 9000;
    unassigned.methodId = 0xFFFFFFFF;
    checkAndIncrementAggrMethodDataArray(&monitored);
    checkAndIncrementAggrMethodDataArray(&unassigned);
    for (mPP* method : {&monitored, &plain, &unassigned, &monitored, static_cast<mPP*>(nullptr)})
        updateCounterAndDurationForMethod(nullptr, method, 12);

    VXMethodMonitorDataCounters* slot = vxAggSlot(app->method.methodArr, 200);
    EXPECT_TRUE(slot->count == 2 && slot->entryCount == 2 && slot->totalDuration == 24);
    EXPECT_TRUE(slot->minDuration == 12 && slot->maxDuration == 12 && slot->isDirty);
    EXPECT_EQ(app->method.methodArr.size, 257);

    VXMethodMonitorInit();
    EXPECT_TRUE(slot->count == 0 && slot->minDuration == INT64_MAX);
    EXPECT_TRUE(slot->mPP_ == &monitored && slot->isDirty);
}

}  // namespace
}  // namespace vx::test
