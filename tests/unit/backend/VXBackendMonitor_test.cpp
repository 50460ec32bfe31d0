#include "commonlibc/backend/VXBackendMonitor.h"

#include <gtest/gtest.h>

#include "commonlibc/VXMonitorModel.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

TEST_F(KnowledgeFixture, CallsOfABackendAddUpWhileItIsMonitoredUntilTheNextRun) {
    mPP backend{}, other{};
    backend.methodId = 5;
    checkAndIncrementAggrBackendDataArray(&backend);
    EXPECT_FALSE(updateCounterAndDurationForBackend(nullptr, &backend, 40, false));
    EXPECT_FALSE(updateCounterAndDurationForBackend(nullptr, &backend, 0x100000007, true));
    VXBackendMonitorDataCounters& slot = *vxAggSlot(app->method.backendArr, 5);
    EXPECT_TRUE(slot.invocationCount == 2 && slot.callCount == 2 && slot.errorCount == 1);
    EXPECT_EQ(slot.totalDuration, 0x10000002F);
    EXPECT_EQ(slot.minDuration, 7) << "of 32 bits";
    EXPECT_EQ(slot.maxDuration, 40);

    EXPECT_TRUE(updateCounterAndDurationForBackend(nullptr, nullptr, 1, false));
    setBackendMonitorEnabled("0");
    EXPECT_TRUE(updateCounterAndDurationForBackend(nullptr, &backend, 1, false));
    setBackendMonitorEnabled("1");
    for (const std::uint32_t id : {0U, 0xFFFFFFFFU}) {
        other.methodId = id;
        checkAndIncrementAggrBackendDataArray(&other);
        EXPECT_TRUE(updateCounterAndDurationForBackend(nullptr, &other, 1, false));
    }
    EXPECT_EQ(slot.callCount, 2);
    EXPECT_EQ(app->method.backendArr.size, 128);

    VXBackendMonitorInit();
    EXPECT_TRUE(slot.callCount == 0 && slot.minDuration == 0x7FFFFFFF);
    EXPECT_TRUE(slot.mpp == &backend && slot.isDirty);
}

}  // namespace
}  // namespace vx::test
