#include "commonlibc/vxlb_mem_pool.h"

#include <set>

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
        for (vxTD* slot = app->flowpath.gBusyTLSTail; slot; slot = slot->busy_prev)
            backward.insert(backward.begin(), slot);
        EXPECT_EQ(forward, backward);
        return forward;
    }
};

TEST_F(SlotPool, GrowsByOneBlockForThe65thFlowpath) {
    const auto slots = take(65);
    EXPECT_EQ(app->flowpath.gFreeTLSCnt, 63);
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 65);
    EXPECT_EQ(busyList(), slots);
    std::set<std::int64_t> indices;
    for (const vxTD* slot : slots) {
        indices.insert(slot->tlsIdx);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(slot) % kSlotAlignment, 0U);
    }
    EXPECT_EQ(indices.size(), 65U);
}

TEST_F(SlotPool, KeepsTheOrderOfTheBusyListWhereverASlotLeavesIt) {
    for (const std::ptrdiff_t leaving : {0, 2, 4}) {
        auto slots = take(5);
        vxTD* left = slots[static_cast<std::size_t>(leaving)];
        free_tls_slot(left);
        slots.erase(slots.begin() + leaving);
        EXPECT_EQ(busyList(), slots) << "slot " << leaving << " left";
        EXPECT_EQ(app->flowpath.gFreeTLSHead, left);
        for (vxTD* slot : slots) free_tls_slot(slot);
        EXPECT_TRUE(busyList().empty());
    }
    EXPECT_EQ(app->flowpath.gFreeTLSCnt, 64);
}

TEST_F(SlotPool, IgnoresASecondReleaseAndNull) {
    const auto slots = take(2);
    free_tls_slot(slots[0]);
    free_tls_slot(slots[0]);
    free_tls_slot(nullptr);
    EXPECT_EQ(app->flowpath.gFreeTLSCnt, 63);
    EXPECT_EQ(busyList(), (std::vector<vxTD*>{slots[1]}));
}

}  // namespace
}  // namespace vx::test
