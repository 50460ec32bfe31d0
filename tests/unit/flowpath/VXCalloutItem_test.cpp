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
    std::string append(std::uint8_t type, std::uint8_t subtype, bool thrown = false,
                       const std::string& before = "") {
        backend.methodId = 12;
        backend.type = type;
        backend.subtype = subtype;
        slot->calloutSeq = 41;
        slot->seqNo = 6;
        slot->tlSQLObj.queryId = 9;
        if (!slot->tlSQLObj.DBQueryParam) slot->tlSQLObj.DBQueryParam = vxlb_strdup("a=1");
        setBlob(slot, before);
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
        std::string returned, thrown;  // of an exception
    } rows[] = {
        {kTypeDb, 29, kAgentJava, false, 200, "T6:12:1234.567:10:9:15::::200:a=1_",
         "E6:12:1234.567:10:9:15:200:::_"},
        {kTypeDb, 29, kAgentDotnet, true, 404, "E6:12:1234.567:29:9:15:404::::a=1_",
         "E6:12:1234.567:10:9:15:404:::_"},
        {kTypeCustom, 8, kAgentJava, true, 299, "T6:12:1234.567:8:-:15::::299_",
         "E6:12:1234.567:1:-:15:299:88::_"},
        {kTypeMq, 13, kAgentJava, false, 199, "E6:12:1234.567:13:9:15:199:::_", ""},
        {kTypeMq, 13, kAgentJava, true, 300, "E6:12:1234.567:13:9:15:300:::_",
         "E6:12:1234.567:1:-:15:300:88::_"},
        {kTypeHttp, 3, kAgentJava, true, 200, "T41:12:1234.567:1:-:15:88:::200_",
         "E41:12:1234.567:1:-:15:200:88::_"},
        {kTypeHttp, 3, kAgentJava, true, -1, "E41:12:1234.567:1:-:15:-1:88::_",
         "E41:12:1234.567:1:-:15:-1:88::_"},
        {7, 7, kAgentJava, false, 200, "T6:12:1234.567:1:-:15::::200_", ""},
    };
    for (const auto& row : rows) {
        app->VXBCISetting.agentTypeCode = row.agent;
        vx_word_set(app->VXSys.enableIPResourceURL, row.resources);
        slot->statusCode = row.status;
        EXPECT_EQ(append(row.type, row.subtype), row.returned);
        EXPECT_EQ(slot->tlSQLObj.DBQueryParam, nullptr);
        const bool own = row.type == kTypeDb || row.type == kTypeCustom || row.type == kTypeMq;
        EXPECT_EQ(slot->calloutSeq, own ? 41 : 0) << row.returned;
        EXPECT_EQ(append(row.type, row.subtype, true), row.thrown);
        EXPECT_EQ(slot->calloutSeq, 0);
    }
}

TEST_F(CalloutItem, AnyWallTimeAndAnyLengthStayInBounds) {
    slot->statusCode = 200;
    wallTime = -1;
    EXPECT_EQ(append(kTypeMq, 13), "T6:12:-0.001:13:9:15::::200_");
    wallTime = INT64_MIN;
    EXPECT_EQ(append(kTypeMq, 13), "T6:12:-9223372036854775.808:13:9:15::::200_");
    // Each form alike goes out at the threshold, and is cut at the end.
    for (const std::uint8_t type : {kTypeDb, kTypeCustom, kTypeMq, kTypeHttp}) {
        clearDumped(*app);
        EXPECT_EQ(append(type, 13, false, std::string(kSequenceBlobSize - 3, 'x')), "");
        EXPECT_EQ(dumpedText(*app).size(), 16383U);
    }
}

}  // namespace
}  // namespace vx::test
