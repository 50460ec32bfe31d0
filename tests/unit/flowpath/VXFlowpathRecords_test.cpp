#include "commonlibc/flowpath/VXFlowpathRecords.h"

#include "tests/support/by_name.h"
#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

struct HeaderCase {
    const char* name;
    bool chained, forced, query, otel;
    const char* record;
};

class FlowpathRecords : public FlowpathFixture {};
class HeaderRecord : public FlowpathFixture, public testing::WithParamInterface<HeaderCase> {};

TEST_P(HeaderRecord, IsWrittenByItsFourChoices) {
    const HeaderCase& row = GetParam();
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
    vx_word_set(app->VXSys.otelGlobal, 1);
    slot->OTL_traceID = vxlb_strdup("tr");
    slot->OTL_parentID = vxlb_strdup("pa");
    slot->traceState = 1;
    slot->parentFP = 44;
    slot->kwPageId = 8;
    dumpFPHeaderRecord(slot, 12);
    EXPECT_EQ(flowpathRecords(), Records{row.record});
    EXPECT_TRUE(slot->fpHeaderDumped);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, HeaderRecord,
    testing::ValuesIn<HeaderCase>({
        {"plain", 0, 0, 0, 0, "2,77,5,12,12.1,2,/shop,,44,0,8,,0,-1,,,,5000"},
        {"plain_otel", 0, 0, 0, 1, "2,77,5,12,12.1,2,/shop,,44,0,8,,0,-1,tr,pa,01,5000"},
        {"query", 0, 0, 1, 0, "2,77,5,12,12.1,2,/shop?id=1,,44,0,8,,0,-1,,,,5000"},
        {"query_otel", 0, 0, 1, 1, "2,77,5,12,12.1,2,/shop?id=1,,44,0,8,,0,-1,tr,pa,01,5000"},
        {"forced", 0, 1, 0, 0, "2,77F,5,12,12.1,2,/shop,,44,0,8,,0,-1,,,,5000"},
        {"forced_otel", 0, 1, 0, 1, "2,77F,5,12,12.1,2,/shop,,44,0,8,,0,-1,tr,pa,01,5000"},
        {"forced_query", 0, 1, 1, 0, "2,77F,5,12,12.1,2,/shop?id=1,,44,0,8,,0,-1,,,,5000"},
        {"forced_query_otel", 0, 1, 1, 1, "2,77F,5,12,12.1,2,/shop?id=1,,44,0,8,,0,-1,tr,pa,01,5000"},
        {"chained", 1, 0, 0, 0, "2,77:55:66,5,12,3.1.1,2,/shop,,44,0,8,,0,-1,,,,5000"},
        {"chained_otel_keeps_the_mark", 1, 0, 0, 1,
         "2,77:55:66,5,12,3.1.1,2,/shop?,,44,0,8,,0,-1,tr,pa,01,5000"},
        {"chained_query", 1, 0, 1, 0, "2,77:55:66,5,12,3.1.1,2,/shop?id=1,,44,0,8,,0,-1,,,,5000"},
        {"chained_query_otel", 1, 0, 1, 1, "2,77:55:66,5,12,3.1.1,2,/shop?id=1,,44,0,8,,0,-1,tr,pa,01,5000"},
        {"chained_forced", 1, 1, 0, 0, "2,77F:55F:66F,5,12,3.1.1,2,/shop,,44,0,8,,0,-1,,,,5000"},
        {"chained_forced_otel", 1, 1, 0, 1, "2,77F:55F:66F,5,12,3.1.1,2,/shop,,44,0,8,,0,-1,tr,pa,01,5000"},
        {"chained_forced_query", 1, 1, 1, 0, "2,77F:55F:66F,5,12,3.1.1,2,/shop?id=1,,44,0,8,,0,-1,,,,5000"},
        {"chained_forced_query_otel_loses_its_marks", 1, 1, 1, 1,
         "2,77:55:66,5,12,3.1.1,2,/shop?id=1,,44,0,8,,0,-1,tr,pa,01,5000"},
    }),
    byName);

TEST_F(FlowpathRecords, HeaderCarriesSessionCorrelationAndEndAndStaysOneLine) {
    vxTD* slot = takeSlotWithBt();
    vxlb_copy_text(slot->tlURl, sizeof(slot->tlURl), "/a\nb\r");
    vxlb_copy_text(slot->correlationHeader, sizeof(slot->correlationHeader), "c\n1");
    slot->kwSessionId = 1234567890123;
    slot->endReason = 7;
    slot->startArgument = 3;
    slot->traceState = -5;
    vx_word_set(app->VXSys.correlationIDEnabled, 1);
    vx_word_set(app->VXSys.otelEnabled, 1);
    vx_word_set(app->VXSys.otelGlobal, 1);
    dumpFPHeaderRecord(slot, 0);
    EXPECT_EQ(flowpathRecords(),
              Records{"2,77,5,9,9.1,2,/a b ,c 1,0,000000001234567890123,0,,7,3,,,-05,5000"});
}

TEST_F(FlowpathRecords, WithoutBtNothingIsWrittenAndThePieceIsDropped) {
    vxTD* slot = takeSlot();
    setBlob(slot, "1:9_0_0__");
    dumpCompleteFlowpathSeqBlock(slot, 10, 0, 0, 0);
    EXPECT_EQ(slot->sequenceBlobLen, 9);
    dumpIncompleteFlowpathSeqBlock(slot, 9);
    EXPECT_EQ(slot->sequenceBlobLen, 0);
    EXPECT_TRUE(flowpathRecords().empty());
    EXPECT_FALSE(slot->fpHeaderDumped);
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
}

TEST_F(FlowpathRecords, ARecordTooLongEndsInItsNewline) {
    vxTD* slot = takeSlotWithBt();
    slot->fpHeaderDumped = 1;
    setBlob(slot, std::string(kSequenceBlobSize, 'x'));
    dumpIncompleteFlowpathSeqBlock(slot, 9);
    const std::string text = dumpedText(*app);
    EXPECT_EQ(text.size(), 16383U);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(flowpathRecords().size(), 1U);
}

TEST_F(FlowpathRecords, EndIsLostMarkedOrWritten) {
    const struct {
        const char* name;
        bool excluded, captured, keepAll, headerOut;
        std::int32_t category;
        const char* record;  // the 4 record; empty: nothing
    } rows[] = {
        {"excluded, nothing out", 1, 1, 0, 0, -99, ""},
        {"excluded, data out", 1, 1, 0, 1, -99, "4,77,-99,-99,0,5,2,0,,0,"},
        {"uncaptured normal", 0, 0, 0, 0, 10, ""},
        {"uncaptured normal, data out", 0, 0, 0, 1, 10, "4,77,-99,10,0,5,2,0,,0,"},
        {"uncaptured slow", 0, 0, 0, 0, 11, "4,77,200,11,0,5,2,0,,0,"},
        {"uncaptured error", 0, 0, 0, 1, 13, "4,77,200,13,0,5,2,0,,0,"},
        {"uncaptured, nothing is discarded", 0, 0, 1, 0, 10, "4,77,200,10,0,5,2,0,,0,"},
    };
    for (const auto& row : rows) {
        vxTD* slot = takeSlotWithBt();
        slot->tlIsFPExcluded = row.excluded;
        slot->tlIsFPCaptured = row.captured;
        slot->fpHeaderDumped = row.headerOut;
        vx_word_set(app->bt.doNotDiscardFP, row.keepAll);
        dumpCompleteFlowpathSeqBlock(slot, row.category, 0, 5, 0);
        const Records records = flowpathRecords();
        EXPECT_EQ(records.empty() ? "" : records.back(), row.record) << row.name;
        EXPECT_EQ(records.size(), !*row.record ? 0U : row.headerOut ? 1U : 2U) << row.name;
    }
}

TEST_F(FlowpathRecords, DebugDataGoesOutWhereThereIsSome) {
    vxTD* slot = takeSlotWithBt();
    dumpDataForDebug(slot);
    slot->debugDataLen = static_cast<std::int32_t>(vxlb_copy_text(slot->debugData, 128, "3:9_0_0_0x1"));
    dumpDataForDebug(slot);
    EXPECT_EQ(flowpathRecords(), Records{"100,77,3:9_0_0_0x1"});
}

}  // namespace
}  // namespace vx::test
