#include "commonlibc/exception/VXException.h"

#include "commonlibc/exception/VXExceptionNames.h"
#include "commonlibc/exception/VXExceptionSettings.h"
#include "commonlibc/vxlb_mem_hook.h"
#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

class Exceptions : public FlowpathFixture {
protected:
    void SetUp() override {
        FlowpathFixture::SetUp();
        slot = takeSlotWithBt();
    }
    // What a report writes.
    Records written(const VXExceptionReport& reported) {
        clearDumped(*app);
        handleExceptionParameters(slot, reported);
        return dumpedRecords(*app);
    }

    const VXExceptionReport report{"E", "gone", "Shop", "Shop.buy", "disk", "at a", atMs(7999) / 1000, 3, 0};
    vxTD* slot = nullptr;
};

TEST_F(Exceptions, NamesTravelOnceAndTheirIdsWithEveryException) {
    char monitored[] = "E|Errors";
    parseExceptionMonFile(monitored);
    EXPECT_EQ(written(report), (Records{"32,1,E", "33,1,Shop", "34,1,Shop.buy", "35,1,gone", "36,1,disk",
                                        "38,77,7,0,0,-1,-1,1,1,1,3,1,1,at%20a"}));
    vx_word_set(app->VXSys.enableExceptionInSeqBlob, 1);
    VXExceptionReport other = report;
    other.className = "F";
    EXPECT_EQ(written(other), (Records{"32,2,F", "38,77,7,0,2,-1,-1,2,1,1,3,1,1,at%20a"}));
    static int allocations;
    allocations = 0;
    vxlb_set_allocation_hook([](std::size_t) { return ++allocations > 0; });
    EXPECT_EQ(written(report), (Records{"38,77,7,0,3,-1,-1,1,1,1,3,1,1,at%20a"}));
    vxlb_set_allocation_hook(nullptr);
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(blobOf(slot), "e2_e3_");
    EXPECT_EQ(slot->exceptionCount, 3);
    EXPECT_EQ(vxAggSlot(app->exceptionMonitor.exceptionArr, 1)->count, 2) << "the class that is monitored";
}

TEST_F(Exceptions, WhatIsMissingOrOffIsWrittenAsSuch) {
    vx_word_set(app->VXSys.maxExceptionMessageLength, 4);
    mPP* method = searchAndUpdateMethodHashMap("Shop.buy", app->method.methodHashMapNode, 0, kTypePlain, 0);
    app->data.data_thread_running = 1;
    EXPECT_EQ(written(report), (Records{"5,Shop.buy,3", "32,1,E", "33,1,Shop", "34,1,Shop.buy", "35,1,gone",
                                        "36,1,disk", "38,77,7,3,0,-1,-1,1,1,1,3,1,1,at%20a"}))
        << "the collector gets to know the method";
    EXPECT_EQ(method->usedFlag, kMethodUsed);
    VXExceptionReport changed = report;
    changed.className = changed.throwingClass = changed.cause = changed.stackTrace = "";
    changed.message = "gone away";  // cut at its limit it is the one above
    changed.exceptionInt = 0;
    EXPECT_EQ(written(changed), (Records{"33,2,-", "38,77,7,3,0,-1,-1,-1,2,1,-1,1,-1,"}));
    changed = report;
    changed.cause = "a\nb\r,c";
    changed.stackTrace = "a,b\r\nc";
    EXPECT_EQ(written(changed), (Records{"36,2,a b ,c", "38,77,7,3,0,-1,-1,1,1,1,3,1,2,a%2Cb %7Cc"}))
        << "line ends break no record";
    setExceptionCaptureSettings("1%201%201%2010%200");
    setExceptionCaptureSettings("2%200");
    EXPECT_EQ(written(report), Records{"38,77,7,3,0,-1,-1,1,1,1,3,1,-1,"}) << "no causes, no stack traces";
}

TEST_F(Exceptions, WhatIsNotWantedLeavesNothing) {
    VXExceptionReport unnamed = report, thrownNowhere = report;
    unnamed.className = unnamed.message = "";
    thrownNowhere.throwingMethod = "";
    EXPECT_EQ(written(unnamed), Records{});
    EXPECT_EQ(written(thrownNowhere), Records{});
    setExceptionCaptureSettings("0%201");
    EXPECT_EQ(written(report), Records{});
    setdefaultValuesForException();
    parseExceptionFilteringList("Z,E,a.b");
    EXPECT_EQ(written(report), Records{});
    for (const char* list : {"e,E ,EE", "nA", ",,", ""}) {
        parseExceptionFilteringList("E");
        parseExceptionFilteringList(list);
        EXPECT_FALSE(vxIsIgnoredException(app->exceptions, "E")) << list;
    }
    slot->tlIsFPExcluded = 1;
    EXPECT_EQ(written(report), Records{});
    slot->tlIsFPExcluded = 0;
    slot->tlBTObj = nullptr;
    EXPECT_EQ(written(report), Records{});
    EXPECT_EQ(slot->exceptionCount + slot->seqNo + app->exceptions.tables[0].count, 0);
}

TEST_F(Exceptions, LongTextsAreCutAndTheRecordsStayWhole) {
    VXExceptionReport wide = report;
    const std::string name(1100, 'n'), sameStart = name.substr(0, 1023) + "x";
    const std::string trace(60000, ' ');
    wide.className = name;
    wide.stackTrace = trace;
    const Records records = written(wide);
    EXPECT_EQ(records.front(), "32,1," + std::string(1017, 'n'));
    ASSERT_GT(records.back().size(), 65530U);
    ASSERT_LE(records.back().size(), 65534U);
    EXPECT_TRUE(records.back().ends_with("%20"));
    EXPECT_EQ(checkAndgenerateIDForDiscoveredExceptions(sameStart), 1);
}

TEST_F(Exceptions, ANameThatCannotBeHeldIsNoName) {
    VXProxy.ceilings.maxExceptionRows = 1;
    EXPECT_EQ(written(report).size(), 6U);
    VXExceptionReport other = report;
    other.message = "other";
    EXPECT_EQ(written(other), Records{"38,77,7,0,0,-1,-1,1,1,1,3,-1,1,at%20a"});
    EXPECT_EQ(app->exceptions.tables[3].ceilingTraced, 1);
    VXProxy.ceilings = {};
    dumpFpFromBusyList();
    vxDropBusyList();
    EXPECT_EQ(app->exceptions.tables[3].ceilingTraced, 0) << "each run tells of it";

    vxlb_set_allocation_hook([](std::size_t) { return false; });
    EXPECT_EQ(getIDAndDumpExceptionMessage("no memory"), kNoExceptionName);
    vxlb_set_allocation_hook(nullptr);
    EXPECT_EQ(getIDAndDumpExceptionMessage("no memory"), 2);
}

}  // namespace
}  // namespace vx::test
