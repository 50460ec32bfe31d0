#include "commonlibc/mm/VXMethodMonitor.h"

#include <string>

#include "commonlibc/VXMonitorModel.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

TEST_F(KnowledgeFixture, OnlyAMonitoredMethodIsCountedAndAReportOrANewRunStartsFromZero) {
    mPP monitored{}, plain{}, unassigned{};
    monitored.methodId = 200;
    plain.methodId = 9000;
    unassigned.methodId = 0xFFFFFFFF;
    checkAndIncrementAggrMethodDataArray(&monitored);
    checkAndIncrementAggrMethodDataArray(&unassigned);
    for (mPP* method : {&monitored, &plain, &unassigned, &monitored})
        updateCounterAndDurationForMethod(nullptr, method, 12);

    VXMethodMonitorDataCounters* slot = vxAggSlot(app->method.methodArr, 200);
    EXPECT_TRUE(slot->entryCount == 2 && slot->totalDuration == 24 && app->method.methodArr.size == 257);
    const std::string head =
        std::string("61,") + app->method.methodPrefixID + "200:" + app->method.methodPrefix + "Shown|";
    char name[] = "method";
    monitored.methodName = name;
    monitored.aliasMethodName.text = "Shown";
    for (int i = 0; i < 23; ++i) updateCounterAndDurationForMethod(nullptr, &monitored, 37);
    EXPECT_EQ(reportOf(generateAndDumpMethodMonitoringRecord),
              head + "25 2.000000 35.000000 12.000000 37 25\n")
        << "whole calls a second";
    EXPECT_EQ(reportOf(generateAndDumpMethodMonitoringRecord),
              head + "0 0.000000 0.000000 500000.000000 0 0\n");

    slot->count = 1;
    VXMethodMonitorInit();
    EXPECT_TRUE(slot->count == 0 && slot->minDuration == INT64_MAX && slot->mPP_ == &monitored);
}

}  // namespace
}  // namespace vx::test
