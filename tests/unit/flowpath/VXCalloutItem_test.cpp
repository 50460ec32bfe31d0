#include "commonlibc/flowpath/VXCalloutItem.h"

#include "commonlibc/vxlb_utiles.h"
#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

// Sequence 6, query 9 with "a=1", back-end 12, 1,234.567 ms, 15 ms after the start, URL 88.
class CalloutItem : public FlowpathFixture {
protected:
    void SetUp() override {
        FlowpathFixture::SetUp();
        slot = takeSlotWithBt();
        slot->fpHeaderDumped = 1;
    }
    std::string append(std::uint8_t type, std::uint8_t subtype, std::int32_t status, std::int64_t calloutSeq,
                       bool thrown = false) {
        backend.methodId = 12;
        backend.type = type;
        backend.subtype = subtype;
        slot->statusCode = status;
        slot->calloutSeq = calloutSeq;
        slot->seqNo = 6;
        slot->tlSQLObj.queryId = 9;
        if (!slot->tlSQLObj.DBQueryParam) slot->tlSQLObj.DBQueryParam = vxlb_strdup("a=1");
        setBlob(slot, "");
        (thrown ? updateFPSeqBlobWithTierCallOutExceptionRecord : updateFPSeqBlobWithTierCallOutRecord)(
            slot, {&backend, 15, wallTime, 88, 9});
        return blobOf(slot);
    }

    vxTD* slot = nullptr;
    mPP backend{};
    std::int64_t wallTime = 1234567;
};

TEST_F(CalloutItem, HasAFormForEachKindOfBackEndAndResult) {
    const struct {
        std::uint8_t type, subtype;
        std::int32_t agent;
        bool resources;
        std::int32_t status;
        std::int64_t calloutSeq;
        const char* text;    // behind the sequence, the back-end and the wall time
        const char* thrown;  // the same of an exception
    } rows[] = {
        {kTypeDb, 29, kAgentJava, false, 200, 41, "T6:10:9:15::::200:a=1_", "E6:10:9:15:200:::_"},
        {kTypeDb, 29, kAgentDotnet, true, 299, 41, "T6:29:9:15::::299:a=1_", "E6:10:9:15:299:::_"},
        {kTypeDb, 29, kAgentJava, true, 404, 0, "E6:10:9:15:404::::a=1_", "E6:10:9:15:404:::_"},
        {kTypeCustom, 8, kAgentJava, true, 200, 41, "T6:8:-:15::::200_", "E6:1:-:15:200:88::_"},
        {kTypeCustom, 8, kAgentJava, false, 199, 41, "E6:8:-:15:199:::_", ""},
        {kTypeMq, 13, kAgentJava, false, 200, 41, "T6:13:9:15::::200_", ""},
        {kTypeMq, 13, kAgentJava, true, 300, 41, "E6:13:9:15:300:::_", "E6:1:-:15:300:88::_"},
        {kTypeHttp, 3, kAgentJava, false, 200, 41, "T41:1:-:15::::200_", "E41:1:-:15:200:::_"},
        {kTypeHttp, 3, kAgentDotnet, false, 503, 0, "E6:1:-:15:503:::_", "E6:1:-:15:503:::_"},
        {kTypeHttp, 3, kAgentJava, true, 200, 41, "T41:1:-:15:88:::200_", "E41:1:-:15:200:88::_"},
        {kTypeHttp, 3, kAgentJava, true, -1, 41, "E41:1:-:15:-1:88::_", "E41:1:-:15:-1:88::_"},
        {7, 7, kAgentJava, false, 200, 41, "T6:1:-:15::::200_", ""},
    };
    const auto whole = [](std::string text) {
        if (!text.empty()) text.insert(text.find(':'), ":12:1234.567");
        return text;
    };
    for (const auto& row : rows) {
        app->VXBCISetting.agentTypeCode = row.agent;
        vx_word_set(app->VXSys.enableIPResourceURL, row.resources);
        EXPECT_EQ(append(row.type, row.subtype, row.status, row.calloutSeq), whole(row.text));
        EXPECT_EQ(slot->tlSQLObj.DBQueryParam, nullptr);
        const bool own = row.type == kTypeDb || row.type == kTypeCustom || row.type == kTypeMq;
        EXPECT_EQ(slot->calloutSeq, own ? row.calloutSeq : 0) << row.text;
        EXPECT_EQ(append(row.type, row.subtype, row.status, row.calloutSeq, true), whole(row.thrown));
        EXPECT_EQ(slot->calloutSeq, 0);
    }
}

TEST_F(CalloutItem, AnyWallTimeAndAnyLengthStayInBounds) {
    const struct {
        std::int64_t us;
        const char* ms;
    } rows[] = {{0, "0.000"}, {-1, "-0.001"}, {999, "0.999"}, {INT64_MIN, "-9223372036854775.808"}};
    for (const auto& row : rows) {
        wallTime = row.us;
        EXPECT_EQ(append(kTypeMq, 13, 200, 0), std::string("T6:12:") + row.ms + ":13:9:15::::200_");
    }
    // Each form alike goes out at the threshold, and is cut at the end.
    for (const std::uint8_t type : {kTypeDb, kTypeCustom, kTypeMq, kTypeHttp}) {
        append(type, 13, 200, 0);
        setBlob(slot, std::string(kSequenceBlobSize - 3, 'x'));
        clearDumped(*app);
        updateFPSeqBlobWithTierCallOutRecord(slot, {&backend, 15, 1, 0, 9});
        EXPECT_EQ(slot->sequenceBlobLen, 0);
        EXPECT_EQ(dumpedText(*app).size(), 16383U);
    }
}

}  // namespace
}  // namespace vx::test
