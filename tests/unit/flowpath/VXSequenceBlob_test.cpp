#include "commonlibc/flowpath/VXSequenceBlob.h"

#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

class SequenceBlob : public FlowpathFixture {};

TEST_F(SequenceBlob, TakesItemsAsText) {
    const struct {
        VXBlobItem item;
        const char* text;
    } rows[] = {
        {{3, 15, 0, -1, 0, 9, "/u", 0}, "3:9_0_15__"},
        {{3, 15, 0, -1, 1, 9, "/u\n1", 0}, "3:9:1:/u 1_0_15__"},
        {{3, 15, 0, -1, 1, 9, nullptr, 0}, "3:9:1:_0_15__"},
        {{3, 7, 1, 20, 1, 9, nullptr, 0}, "3:9_1_7_20___"},
        {{3, 7, 1, -1, 0, 9, nullptr, 0}, "3:9_1_7____"},
        {{3, 7, 1, 0, 0, 9, nullptr, 1}, "3:9_1:6_7_0___"},
        {{3, 7, 1, -1, 0, 9, nullptr, 1}, "3:9_1:6_7____"},
        {{3, 7, 3, 20, 0, 9, nullptr, 1}, "3:9_1_7_20___"},
        {{3, 7, 4, -1, 0, 9, nullptr, 0}, "3:9_1_7____"},
        {{3, 7, 2, 20, 0, 9, nullptr, 0}, ""},
        {{3, 7, 5, 20, 0, 9, nullptr, 0}, ""},
    };
    vxTD* slot = takeSlotWithBt();
    slot->seqNo = 6;
    vx_word_set(app->VXSys.enableProcessNotificationPhase, 1);
    for (const auto& row : rows) {
        setBlob(slot, "1:9_0_0__");
        updateFPSeqBlob(slot, row.item);
        EXPECT_EQ(blobOf(slot), std::string("1:9_0_0__") + row.text);
    }
}

TEST_F(SequenceBlob, GoesOutAtTheItemThatFillsItToTheThreshold) {
    const VXBlobItem item = {3, 15, 0, -1, 0, 9, nullptr, 0};  // 10 bytes
    vxTD* slot = takeSlotWithBt();
    slot->fpHeaderDumped = 1;
    setBlob(slot, std::string(13301, 'x'));
    updateFPSeqBlob(slot, item);
    EXPECT_EQ(slot->sequenceBlobLen, 13311);
    EXPECT_TRUE(flowpathRecords().empty());

    setBlob(slot, std::string(13302, 'x'));
    updateFPSeqBlob(slot, item);
    EXPECT_EQ(slot->sequenceBlobLen, 0);
    EXPECT_EQ(flowpathRecords(), Records{"3,77," + std::string(13302, 'x') + "3:9_0_15__"});
}

TEST_F(SequenceBlob, CutsAnItemAtItsEnd) {
    const std::string url(4000, 'u');
    vxTD* slot = takeSlotWithBt();
    slot->fpHeaderDumped = 1;
    setBlob(slot, std::string(13311, 'x'));
    updateFPSeqBlob(slot, {3, 15, 0, -1, 1, 9, url.c_str(), 0});
    EXPECT_EQ(dumpedText(*app).size(), 16383U);
    EXPECT_EQ(slot->sequenceBlobLen, 0);
}

TEST_F(SequenceBlob, DebugDataTakesWhatFits) {
    vxTD* slot = takeSlot();
    slot->seqNo = 4;
    char own[32];
    std::snprintf(own, sizeof(own), "%p", static_cast<void*>(slot));
    const std::string first = std::string("3:9_1_4_") + own;
    updateDebugModeData(slot, 3, 1, 9);
    EXPECT_EQ(std::string(slot->debugData, static_cast<std::size_t>(slot->debugDataLen)), first);
    updateDebugModeData(slot, 3, 1, 9);
    EXPECT_EQ(std::string(slot->debugData, static_cast<std::size_t>(slot->debugDataLen)),
              first + "|" + first);
    for (int i = 0; i < 20; ++i) updateDebugModeData(slot, 8000, 1, INT64_MIN);
    EXPECT_LT(slot->debugDataLen, 128);
}

}  // namespace
}  // namespace vx::test
