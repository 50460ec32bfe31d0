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

}  // namespace
}  // namespace vx::test
