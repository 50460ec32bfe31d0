#include "commonlibc/mm/VXMethodMonitor.h"

#include <algorithm>
#include <limits>

#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/VXMonitorReport.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr int kMethodRecord = 61;
constexpr std::int64_t kMinStart = std::numeric_limits<std::int64_t>::max();

// How a new slot is made ready; method table lock held.
auto slotMaker(vxApplication& app) {
    return [pool = vxOwnPool(app.method.pool, app.pool)](VXMethodMonitorDataCounters& slot) {
        initVXMethodMonitorDataCounters(slot);
        return vxlb_make_mutex(slot.mutex, pool);
    };
}

void updatePropertiesOfMethod(VXMethodMonitorDataCounters& slot, std::int64_t durationMs) {
    VXGuard guard(slot.mutex);
    slot.minDuration = std::min(slot.minDuration, durationMs);
    slot.maxDuration = std::max(slot.maxDuration, durationMs);
    slot.totalDuration = vxSum(slot.totalDuration, durationMs);
    slot.count += 1;
    slot.entryCount += 1;
    slot.isDirty = 1;
}

bool takeOfSlot(VXMethodMonitorDataCounters& slot, VXMethodMonitorDataCounters& taken) {
    using Slot = VXMethodMonitorDataCounters;
    return vxTakeFigures(
        slot, taken,
        {&Slot::count, &Slot::entryCount, &Slot::totalDuration, &Slot::minDuration, &Slot::maxDuration},
        initVXMethodMonitorDataCounters);
}

}  // namespace

void createVectorPrefixMethod() {
    vxApplication& app = *vxCurrent();
    vxMakeVectorPrefix(app, app.method.methodPrefix, sizeof(app.method.methodPrefix),
                       app.method.methodPrefixID, sizeof(app.method.methodPrefixID));
}

void VXMethodMonitorInit() {
    vxApplication& app = *vxCurrent();
    auto& array = app.method.methodArr;
    createVectorPrefixMethod();
    {
        VXGuard guard(app.method.mapMutex);
        vxAggStart(array, slotMaker(app));
        app.method.ceilingTraced = 0;
    }
    vxAggEach(array, 0, [](VXMethodMonitorDataCounters& slot) {
        VXGuard guard(slot.mutex);
        initVXMethodMonitorDataCounters(slot);
    });
    app.method.enableMethodMonitor.store(1, std::memory_order_relaxed);

    VX_TRACE(1, kMethodMon, kInfo,
             "monitorIntervalInSecs = %d, aggMethodArraySize = %d, isMethodMonitorOn = %d",
             vx_word_get(app.VXSys.vxMonitorIntervalInSec), array.size.load(),
             app.method.enableMethodMonitor.load());
}

void updateCounterAndDurationForMethod(vxTD*, mPP* method, std::int64_t durationMs) {
    if (!method) return;
    vxApplication& app = *vxCurrent();
    const std::uint32_t id = method->methodId.load(std::memory_order_relaxed);
    const std::int32_t isOn = app.method.enableMethodMonitor.load(std::memory_order_relaxed);
    if (!isOn || static_cast<std::int32_t>(id) < 1) {
        VX_TRACE(2, kMethodMon, kInfo,
                 "Returning from update method monitor counters, isMethodMonitorOn = %d, methodID = %d", isOn,
                 static_cast<int>(id));
        return;
    }
    if (VXMethodMonitorDataCounters* slot = vxAggSlot(app.method.methodArr, id))
        updatePropertiesOfMethod(*slot, durationMs);
}

void checkAndIncrementAggrMethodDataArray(mPP* method) {
    if (!method) return;
    const std::uint32_t id = method->methodId.load(std::memory_order_relaxed);
    VX_TRACE(2, kMethodMon, kInfo, "checkAndIncrementAggrMethodDataArray started with targeted size : %d",
             static_cast<int>(id));
    if (id == 0) return;
    vxApplication& app = *vxCurrent();
    if (VXMethodMonitorDataCounters* slot = vxAggEnsureSlot(app.method.methodArr, id, slotMaker(app)))
        slot->mPP_.store(method, std::memory_order_release);
}

void initVXMethodMonitorDataCounters(VXMethodMonitorDataCounters& slot) {
    slot.count = slot.entryCount = slot.totalDuration = slot.maxDuration = 0;
    slot.minDuration = kMinStart;
}

// The rate is a whole number: seconds that are not full do not count.
void dump61RecordForEveryMethod(char* buffer, std::int32_t* length,
                                const VXMethodMonitorDataCounters& counters, std::int64_t id,
                                const char* name) {
    const vxApplication& app = *vxCurrent();
    const std::int64_t rate = counters.count / std::max(vx_word_get(app.VXSys.vxMonitorIntervalInSec), 1);
    VXWriter out = vxBeginRecord(buffer, *length);
    vxPutHead(out, kMethodRecord, app.method.methodPrefixID, id, app.method.methodPrefix, name);
    out.number(vxInt32(counters.entryCount)).put(' ');
    out.real(static_cast<double>(rate)).put(' ');
    out.real(vxRatio(counters.totalDuration, counters.count)).put(' ');
    out.real(checkAndGetIntMinValue(counters.minDuration, kMinStart)).put(' ');
    out.number(counters.maxDuration).put(' ').number(vxInt32(counters.count));
    vxEndRecord(out, buffer, length);
}

bool generateAndDumpMethodMonitoringRecord(char* buffer, std::int32_t* length) {
    bool written = false;
    vxAggEach(vxCurrent()->method.methodArr, 1, [&](VXMethodMonitorDataCounters& slot) {
        VXMethodMonitorDataCounters taken{};
        const mPP* method = slot.mPP_.load(std::memory_order_acquire);
        if (!method || !takeOfSlot(slot, taken)) return;
        dump61RecordForEveryMethod(buffer, length, taken, method->methodId.load(std::memory_order_relaxed),
                                   method->aliasMethodName.getOr(method->methodName));
        written = true;
    });
    return written;
}

}  // namespace vx
