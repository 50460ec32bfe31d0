#include "commonlibc/vxlb_mem_pool.h"

#include "commonlibc/flowpath/VXFlowpathGenerator.h"
#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

class SlotPool : public FlowpathFixture {
protected:
    std::vector<vxTD*> take(std::size_t count) {
        std::vector<vxTD*> slots(count);
        for (vxTD*& slot : slots) slot = get_free_tls_slot();
        return slots;
    }
    // The busy list, which reads the same from its end.
    std::vector<vxTD*> busyList() const {
        std::vector<vxTD*> forward, backward;
        for (vxTD* slot = app->flowpath.gBusyTLSHead; slot; slot = slot->busy_next) forward.push_back(slot);
        for (vxTD* slot = app->flowpath.gBusyTLSTail; slot; slot = slot->busy_prev) backward.push_back(slot);
        EXPECT_EQ(forward, std::vector<vxTD*>(backward.rbegin(), backward.rend()));
        return forward;
    }
};

TEST_F(SlotPool, KeepsTheOrderOfTheBusyListWhereverASlotLeavesItOnce) {
    for (const std::ptrdiff_t leaving : {0, 2, 4}) {
        auto slots = take(5);
        vxTD* left = slots[static_cast<std::size_t>(leaving)];
        for (int again = 0; again < 2; ++again) free_tls_slot(left);
        slots.erase(slots.begin() + leaving);
        EXPECT_EQ(busyList(), slots) << "slot " << leaving << " left";
        for (vxTD* slot : slots) free_tls_slot(slot);
    }
    EXPECT_EQ(VXSlotPool.gFreeTLSCnt, 64);
}

// Two instances in one process: what one gives back serves the other, and the ceiling holds for both.
TEST_F(SlotPool, FreeSlotsBelongToNobodyAndTheCeilingIsOfAll) {
    VXProxy.ceilings.maxSlots = 70;
    vxApplication* other = makeContext();
    other->Server.testRunRunning = 1;
    vxSetCurrent(app);
    const auto slots = take(70);
    vxSetCurrent(other);
    EXPECT_EQ(startFP({}), nullptr);
    EXPECT_EQ(other->flowpath.startsRefused, 1U);
    vxSetCurrent(app);
    for (vxTD* slot : slots) free_tls_slot(slot);
    EXPECT_EQ(VXSlotPool.gFreeTLSCnt, 128) << "two blocks, whoever asks";

    vxSetCurrent(other);
    const auto taken = take(70);
    EXPECT_EQ(taken.front(), slots.back());
    EXPECT_EQ(other->flowpath.gBusyTLSCnt, 70);
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 0);
    EXPECT_EQ(VXSlotPool.gFreeTLSCnt, 58);
    for (vxTD* slot : taken) free_tls_slot(slot);
    freeContext(other);
    vxSetCurrent(app);
    VXProxy.ceilings = {};
}

}  // namespace
}  // namespace vx::test
