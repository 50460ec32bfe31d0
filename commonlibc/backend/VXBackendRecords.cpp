#include "commonlibc/backend/VXBackendRecords.h"

#include <cstring>

#include "commonlibc/VXDigestMonitor.h"
#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/VXMonitorReport.h"
#include "commonlibc/backend/VXBackendMonitor.h"
#include "commonlibc/vxlb_escape.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr int kBackendRecord = 75;
constexpr std::size_t kNameSize = 1024;

// The name under which a back-end is reported: an HTTP one by its display name. False: it has none.
bool nameOfBackend(const mPP& backend, char* name) {
    const bool isHttp = backend.type.load(std::memory_order_relaxed) == kTypeHttp;
    const char* display = isHttp ? backend.aliasMethodName.get() : nullptr;
    const char* text = display ? display : backend.methodName;
    if (!text || (!isHttp && std::strlen(text) >= kNameSize)) return false;
    decodeHTML(name, kNameSize, text);
    return true;
}

bool takeOfSlot(VXBackendMonitorDataCounters& slot, VXBackendMonitorDataCounters& taken) {
    using Slot = VXBackendMonitorDataCounters;
    return vxTakeFigures(slot, taken,
                         {&Slot::invocationCount, &Slot::callCount, &Slot::errorCount, &Slot::totalDuration,
                          &Slot::minDuration, &Slot::maxDuration},
                         initOnStartInstrumentationIP);
}

bool takeDigestOfSlot(VXBackendMonitorDataCounters& slot, VXDigest& taken) {
    VXGuard guard(slot.mutex);
    return vxTakeDigest(slot.digest, slot.digestUpdated, taken);
}

}  // namespace

void dump75RecordForEveryIP(char* buffer, std::int32_t* length, const VXBackendMonitorDataCounters& counters,
                            std::int64_t id, const char* name) {
    const vxApplication& app = *vxCurrent();
    const std::int32_t seconds = vx_word_get(app.VXSys.vxMonitorIntervalInSec);
    const std::int64_t calls = counters.callCount;
    VXWriter out = vxBeginRecord(buffer, *length);
    vxPutHead(out, kBackendRecord, app.method.backendPrefixID, id, app.method.backendPrefix, name);
    out.number(counters.invocationCount).put(' ').real(vxRatio(calls, seconds)).put(' ');
    out.real(calls < 1 ? 0 : vxRatio(counters.totalDuration, calls)).put(' ');
    out.number(counters.minDuration).put(' ').number(counters.maxDuration).put(' ');
    out.number(calls).put(' ').number(counters.errorCount).text(" 0.0 0 0 ");
    out.number(calls).text(" 0.0 0 0 ").number(calls).put(' ');
    out.real(vxRatio(counters.errorCount, seconds)).text(" 0 0 0 0 0 0");
    vxEndRecord(out, buffer, length);
}

bool generateAndDumpBackendMonitoringRecord(char* buffer, std::int32_t* length) {
    auto& array = vxCurrent()->method.backendArr;
    if (array.size.load(std::memory_order_acquire) == 0) {
        VX_TRACE(1, kIpMon, kError, "overallData is empty");
        return false;
    }
    bool written = false;
    vxAggEach(array, 1, [&](VXBackendMonitorDataCounters& slot) {
        VXBackendMonitorDataCounters taken{};
        char name[kNameSize];
        if (!takeOfSlot(slot, taken)) return;
        const mPP* backend = slot.mpp.load(std::memory_order_acquire);
        if (!backend || !nameOfBackend(*backend, name)) return;
        dump75RecordForEveryIP(buffer, length, taken, backend->methodId.load(std::memory_order_relaxed),
                               name);
        written = true;
    });
    return written;
}

bool generateAndDumpBackendDigestRecord(char* buffer, std::int32_t* length) {
    const vxApplication& app = *vxCurrent();
    const std::uint64_t percentiles = app.digest.backend.percentiles.load(std::memory_order_relaxed);
    bool written = false;
    VXDigest taken;
    vxAggEach(vxCurrent()->method.backendArr, 1, [&](VXBackendMonitorDataCounters& slot) {
        char name[kNameSize];
        if (!takeDigestOfSlot(slot, taken)) return;
        const mPP* backend = slot.mpp.load(std::memory_order_acquire);
        if (!backend || !nameOfBackend(*backend, name)) return;
        vxPutDigest(buffer, length, kDigestOfBackend.group, app.method.backendPrefixID,
                    backend->methodId.load(std::memory_order_relaxed), app.method.backendPrefix, name, taken,
                    percentiles);
        written = true;
    });
    return written;
}

}  // namespace vx
