#include "commonlibc/flowpath/VXFlowpathRecords.h"

#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

class FlowpathRecords : public FlowpathFixture {};

TEST_F(FlowpathRecords, HeaderHasAFormForEachOfItsFourChoices) {
    const struct {
        bool chained, forced, query, otel;
        const char* record;
    } rows[] = {
        {0, 0, 0, 0, "2,77,5,12,12.1,2,/shop,,44,0,8,,0,-1,,,,5000"},
        {0, 1, 1, 1, "2,77F,5,12,12.1,2,/shop?id=1,,44,0,8,,0,-1,tr,pa,01,5000"},
        {1, 0, 0, 0, "2,77:55:66,5,12,3.1.1,2,/shop,,44,0,8,,0,-1,,,,5000"},
        {1, 0, 0, 1, "2,77:55:66,5,12,3.1.1,2,/shop?,,44,0,8,,0,-1,tr,pa,01,5000"},  // keeps the mark
        {1, 1, 0, 1, "2,77F:55F:66F,5,12,3.1.1,2,/shop,,44,0,8,,0,-1,tr,pa,01,5000"},
        {1, 1, 1, 1, "2,77:55:66,5,12,3.1.1,2,/shop?id=1,,44,0,8,,0,-1,tr,pa,01,5000"},  // loses its marks
    };
    vx_word_set(app->VXSys.otelGlobal, 1);
    for (const auto& row : rows) {
        vxTD* slot = takeSlotWithBt();
        slot->tlForcedFP = row.forced;
        if (row.chained) {
            slot->prevFlowpath = 55;
            slot->prevTierTime = 66;
            slot->prevTierSeq = vxlb_strdup("3.1");
        }
        vxlb_copy_text(slot->tlURl, sizeof(slot->tlURl), "/shop");
        if (row.query) vxlb_copy_text(slot->uRLParameters, sizeof(slot->uRLParameters), "id=1");
        vx_word_set(app->VXSys.otelEnabled, row.otel);
        slot->OTL_traceID = vxlb_strdup("tr");
        slot->OTL_parentID = vxlb_strdup("pa");
        slot->traceState = 1;
        slot->parentFP = 44;
        slot->kwPageId = 8;
        dumpFPHeaderRecord(slot, 12);
        EXPECT_EQ(flowpathRecords(), Records{row.record});
    }
    vxTD* slot = takeSlotWithBt();
    vxlb_copy_text(slot->tlURl, sizeof(slot->tlURl), "/a\nb\r");
    vxlb_copy_text(slot->correlationHeader, sizeof(slot->correlationHeader), "c\n1");
    slot->kwSessionId = 1234567890123;
    slot->endReason = 7;
    slot->startArgument = 3;
    slot->traceState = -5;
    vx_word_set(app->VXSys.correlationIDEnabled, 1);
    dumpFPHeaderRecord(slot, 0);
    EXPECT_EQ(flowpathRecords(),
              Records{"2,77,5,9,9.1,2,/a b ,c 1,0,000000001234567890123,0,,7,3,,,-05,5000"});
}

TEST_F(FlowpathRecords, HeaderGoesOutOnceBeforePiecesAndEnd) {
    vxTD* slot = takeSlotWithBt();
    slot->statusCode = 404;
    slot->tlForcedFP = 1;
    for (const char* piece : {"1:9_0_0__", "3:9_0_1__"}) {
        setBlob(slot, piece);
        dumpIncompleteFlowpathSeqBlock(slot, 12);
    }
    setBlob(slot, "1:9_1_2____");
    dumpCompleteFlowpathSeqBlock(slot, 11, 21, 31, 41);
    vx_word_set(app->VXSys.tagsEnabled, 1);
    dumpCompleteFlowpathSeqBlock(slot, 11, 21, 31, 41);
    EXPECT_EQ(flowpathRecords(),
              (Records{"2,77F,5,12,12.1,2,,,0,0,0,,0,-1,,,,5000", "3,77F,1:9_0_0__", "3,77F,3:9_0_1__",
                       "4,77F,404,11,21,31,2,0,,41,1:9_1_2____", "4,77F,404,11,21,31,2,0,,41,-1,"}));
    EXPECT_EQ(slot->sequenceBlobLen, 0);
    clearDumped(*app);
    vxTD* unnamed = takeSlot();  // without a BT nothing is written
    setBlob(unnamed, "1:9_0_0__");
    dumpIncompleteFlowpathSeqBlock(unnamed, 9);
    EXPECT_TRUE(flowpathRecords().empty() && unnamed->sequenceBlobLen == 0 && !unnamed->fpHeaderDumped);
}

TEST_F(FlowpathRecords, EndIsLostMarkedOrWritten) {
    const struct {
        bool excluded, captured, keepAll, headerOut;
        std::int32_t category;
        const char* record;  // the 4 record; empty: nothing
    } rows[] = {
        {1, 1, 0, 0, -99, ""},
        {1, 1, 0, 1, -99, "4,77,-99,-99,0,5,2,0,,0,"},
        {0, 0, 0, 0, 10, ""},
        {0, 0, 0, 1, 10, "4,77,-99,10,0,5,2,0,,0,"},
        {0, 0, 0, 0, 11, "4,77,200,11,0,5,2,0,,0,"},
        {0, 0, 1, 0, 10, "4,77,200,10,0,5,2,0,,0,"},
    };
    for (const auto& row : rows) {
        vxTD* slot = takeSlotWithBt();
        slot->tlIsFPExcluded = row.excluded;
        slot->tlIsFPCaptured = row.captured;
        slot->fpHeaderDumped = row.headerOut;
        vx_word_set(app->bt.doNotDiscardFP, row.keepAll);
        dumpCompleteFlowpathSeqBlock(slot, row.category, 0, 5, 0);
        const Records records = flowpathRecords();
        EXPECT_EQ(records.empty() ? "" : records.back(), row.record);
        EXPECT_EQ(records.size(), !*row.record ? 0U : row.headerOut ? 1U : 2U) << row.record;
    }
}

}  // namespace
}  // namespace vx::test
