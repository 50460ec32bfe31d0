#include "commonlibc/bt/VXBTDigest.h"

#include "commonlibc/VXDigestMonitor.h"
#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/vxlb_guard.h"

namespace vx {

namespace {

constexpr const char* kAllName = "AllTransactions";

bool takeOfSlot(VXBTMonitorDataCounters& slot, VXDigest& taken) {
    VXGuard guard(slot.mutex);
    return vxTakeDigest(slot.digest, slot.digestUpdated, taken);
}

}  // namespace

bool generateAndDumpBTDigestRecord(char* buffer, std::int32_t* length) {
    vxApplication& app = *vxCurrent();
    VXBTState_t& bt = app.bt;
    const std::uint64_t percentiles = app.digest.bt.percentiles.load(std::memory_order_relaxed);
    const auto put = [&](std::int64_t id, const char* name, VXDigest& digest) {
        vxPutDigest(buffer, length, kDigestOfBt.group, bt.vectorPrefixID, id, bt.vectorPrefix, name, digest,
                    percentiles);
    };
    VXDigest all, taken;
    vxDigestClear(all);
    vxAggEach(bt.aggDataArr, 1, [&](VXBTMonitorDataCounters& slot) {
        const BTObject* object = slot.btObj.load(std::memory_order_acquire);
        if (!object || !takeOfSlot(slot, taken)) return;
        put(object->btId.load(std::memory_order_relaxed), object->btName, taken);
        vxDigestMerge(all, taken);
    });
    if (vxDigestCount(all) == 0) return false;
    put(0, kAllName, all);
    return true;
}

}  // namespace vx
