#include "commonlibc/backend/VXBackendMonitor.h"

#include <algorithm>

#include "commonlibc/VXDigestMonitor.h"
#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

// How a new slot is made ready; method table lock held.
auto slotMaker(vxApplication& app) {
    return [pool = vxOwnPool(app.method.pool, app.pool)](VXBackendMonitorDataCounters& slot) {
        initOnStartInstrumentationIP(slot);
        return vxlb_make_mutex(slot.mutex, pool);
    };
}

void updatePropertiesOfBackend(const VXDigestSettings& digests, VXBackendMonitorDataCounters& slot,
                               std::int64_t duration, bool isError) {
    const std::int64_t extreme = static_cast<std::int32_t>(duration);  // 32 bits on the wire
    VXGuard guard(slot.mutex);
    slot.invocationCount += 1;
    slot.callCount += 1;
    slot.errorCount += isError ? 1 : 0;
    slot.totalDuration = vxSum(slot.totalDuration, duration);
    slot.minDuration = std::min(slot.minDuration, extreme);
    slot.maxDuration = std::max(slot.maxDuration, extreme);
    vxDigestDuration(digests, slot.digest, slot.digestUpdated, duration);
    slot.isDirty = 1;
}

}  // namespace

void createVectorPrefixBackend() {
    vxApplication& app = *vxCurrent();
    vxMakeVectorPrefix(app, app.method.backendPrefix, sizeof(app.method.backendPrefix),
                       app.method.backendPrefixID, sizeof(app.method.backendPrefixID));
}

void VXBackendMonitorInit() {
    vxApplication& app = *vxCurrent();
    auto& array = app.method.backendArr;
    createVectorPrefixBackend();
    {
        VXGuard guard(app.method.mapMutex);
        vxAggStart(array, slotMaker(app));
    }
    vxAggEach(array, 0, [](VXBackendMonitorDataCounters& slot) {
        VXGuard guard(slot.mutex);
        initOnStartInstrumentationIP(slot);
    });
    app.method.enableBackendMonitor.store(1, std::memory_order_relaxed);

    VX_TRACE(1, kIpMon, kInfo,
             "monitorIntervalInSecs = %d, vxBackendMonTraceLevel = %d, aggDataArraySize = %d",
             vx_word_get(app.VXSys.vxMonitorIntervalInSec), vx_word_get(app.VXSys.enableBackendMonTrace),
             array.size.load());
}

bool updateCounterAndDurationForBackend(vxTD*, mPP* backend, std::int64_t duration, bool isError) {
    if (!backend) return true;
    vxApplication& app = *vxCurrent();
    const std::uint32_t id = backend->methodId.load(std::memory_order_relaxed);
    if (!app.method.enableBackendMonitor.load(std::memory_order_relaxed) ||
        static_cast<std::int32_t>(id) < 1) {
        VX_TRACE(2, kIpMon, kInfo, "Returning from Backend Monitor as Backend id '%d' and duration is '%d'",
                 static_cast<int>(id), static_cast<int>(duration));
        return true;
    }
    if (VXBackendMonitorDataCounters* slot = vxAggSlot(app.method.backendArr, id))
        updatePropertiesOfBackend(app.digest.backend, *slot, duration, isError);
    return false;
}

void checkAndIncrementAggrBackendDataArray(mPP* backend) {
    if (!backend) return;
    const std::uint32_t id = backend->methodId.load(std::memory_order_relaxed);
    if (id == 0) return;
    vxApplication& app = *vxCurrent();
    if (VXBackendMonitorDataCounters* slot = vxAggEnsureSlot(app.method.backendArr, id, slotMaker(app)))
        slot->mpp.store(backend, std::memory_order_release);
}

void initOnStartInstrumentationIP(VXBackendMonitorDataCounters& slot) {
    slot.invocationCount = slot.callCount = slot.errorCount = slot.totalDuration = slot.maxDuration = 0;
    slot.minDuration = kMinDurationStart;
}

void setBackendMonitorEnabled(const char* value) {
    vxCurrent()->method.enableBackendMonitor.store(vxbt_int(value) < 1 ? 0 : 1, std::memory_order_relaxed);
}

void parseMaxIPCount(const char* value) {
    VXSys_t& sys = vxCurrent()->VXSys;
    const std::int32_t count = vxbt_int(value);
    if (count >= 1) {
        vx_word_set(sys.maxIPCount, count);
        VX_TRACE(1, kIpMon, kInfo, "maxIPCount = %d", count);
        return;
    }
    VX_TRACE(1, kIpMon, kError,
             "parseMaxIPCount method - Invalid maxIPCount specified by User.Current Value  : %d  Specified "
             "maxIPCount value : %d",
             vx_word_get(sys.maxIPCount), count);
}

}  // namespace vx
