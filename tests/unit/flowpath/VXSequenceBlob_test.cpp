#include "commonlibc/flowpath/VXSequenceBlob.h"

#include "commonlibc/flowpath/VXFlowpathRecords.h"
#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

class SequenceBlob : public FlowpathFixture {};

TEST_F(SequenceBlob, GoesOutAtTheItemThatFillsItToTheThreshold) {
    const VXBlobItem item = {3, 15, 0, -1, 0, 9, nullptr, 0};  // 10 bytes
    vxTD* slot = takeSlotWithBt();
    slot->fpHeaderDumped = 1;
    setBlob(slot, std::string(13301, 'x'));
    updateFPSeqBlob(slot, item);
    EXPECT_TRUE(slot->sequenceBlobLen == 13311 && flowpathRecords().empty());
    setBlob(slot, std::string(13302, 'x'));
    updateFPSeqBlob(slot, item);
    EXPECT_EQ(flowpathRecords(), Records{"3,77," + std::string(13302, 'x') + "3:9_0_15__"});
}

TEST_F(SequenceBlob, DebugDataTakesWhatFits) {
    vxTD* slot = takeSlot();
    slot->seqNo = 4;
    char own[32];
    std::snprintf(own, sizeof(own), "%p", static_cast<void*>(slot));
    const std::string first = std::string("3:9_1_4_") + own;
    for (int i = 0; i < 2; ++i) updateDebugModeData(slot, 3, 1, 9);
    dumpDataForDebug(slot);
    EXPECT_EQ(flowpathRecords(), Records{"100,77," + first + "|" + first});
    for (int i = 0; i < 20; ++i) updateDebugModeData(slot, 8000, 1, INT64_MIN);
    EXPECT_LT(slot->debugDataLen, 128);
}

}  // namespace
}  // namespace vx::test
