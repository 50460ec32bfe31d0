#include "commonlibc/backend/VXBackendMonitor.h"

#include <gtest/gtest.h>

#include "commonlibc/VXMonitorModel.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

class BackendMonitor : public KnowledgeFixture {
protected:
    void SetUp() override {
        KnowledgeFixture::SetUp();
        backend.methodId = 5;
        checkAndIncrementAggrBackendDataArray(&backend);
    }
    VXBackendMonitorDataCounters& ofBackend() { return *vxAggSlot(app->method.backendArr, 5); }
    mPP backend{};
};

TEST_F(BackendMonitor, CallsErrorsAndDurationsAddUp) {
    EXPECT_FALSE(updateCounterAndDurationForBackend(nullptr, &backend, 40, false));
    EXPECT_FALSE(updateCounterAndDurationForBackend(nullptr, &backend, 0x100000007, true));
    const VXBackendMonitorDataCounters& slot = ofBackend();
    EXPECT_EQ(slot.invocationCount, 2);
    EXPECT_EQ(slot.callCount, 2);
    EXPECT_EQ(slot.errorCount, 1);
    EXPECT_EQ(slot.totalDuration, 0x10000002F);
    EXPECT_EQ(slot.minDuration, 7) << "of 32 bits";
    EXPECT_EQ(slot.maxDuration, 40);
    EXPECT_TRUE(slot.isDirty);
    EXPECT_EQ(slot.mpp, &backend);
}

TEST_F(BackendMonitor, WhatHasNoIdOrMeetsAMonitorOffIsNotCounted) {
    EXPECT_TRUE(updateCounterAndDurationForBackend(nullptr, nullptr, 1, false));
    setBackendMonitorEnabled("0");
    EXPECT_TRUE(updateCounterAndDurationForBackend(nullptr, &backend, 1, false));
    setBackendMonitorEnabled("1");
    for (const std::uint32_t id : {0U, 0xFFFFFFFFU}) {
        mPP other{};
        other.methodId = id;
        checkAndIncrementAggrBackendDataArray(&other);
        EXPECT_TRUE(updateCounterAndDurationForBackend(nullptr, &other, 1, false));
    }
    EXPECT_EQ(ofBackend().callCount, 0);
    EXPECT_EQ(app->method.backendArr.size, 128);
}

TEST_F(BackendMonitor, ANewRunStartsFromZeroAndKeepsTheBackend) {
    updateCounterAndDurationForBackend(nullptr, &backend, 40, true);
    VXBackendMonitorInit();
    EXPECT_EQ(ofBackend().callCount, 0);
    EXPECT_EQ(ofBackend().minDuration, 0x7FFFFFFF);
    EXPECT_TRUE(ofBackend().mpp == &backend && ofBackend().isDirty);
}

}  // namespace
}  // namespace vx::test
