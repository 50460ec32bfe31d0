#include "commonlibc/flowpath/VXFlowpathStop.h"

#include "commonlibc/VXDataThread.h"
#include "commonlibc/flowpath/VXFlowpathGenerator.h"
#include "commonlibc/flowpath/VXPerThreadData.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

struct BusyList {
    vxTD* oldest;
    std::int32_t count;
};
BusyList busyList(const vxApplication& app) {
    const VXGuard guard(app.flowpath.poolMutex);
    return {app.flowpath.gBusyTLSHead, app.flowpath.gBusyTLSCnt};
}

// Lets `leave` see each slot that is busy now, oldest first, and gives it back. The decode lock is released
// between slots, so that a decoding thread waits for one slot at most.
template <class Leave>
void emptyBusyList(const vxApplication& app, Leave leave) {
    for (std::int32_t left = busyList(app).count; left > 0; --left) {
        const VXGuard decode(app.decoder.decodeMutex);
        vxTD* slot = busyList(app).oldest;
        if (!slot) return;
        leave(slot);
        resetAllThreadLocals(slot);
        free_tls_slot(slot);
    }
}

// A run tells once of each table that is full.
void clearToldCeilings(vxApplication& app) {
    for (VXExceptionTable_t& table : app.exceptions.tables) {
        const VXGuard names(table.mutex);
        table.ceilingTraced = 0;
    }
    app.tiers.callersTraced = 0;  // decode lock
    {
        const VXGuard pool(app.flowpath.poolMutex);
        app.flowpath.ceilingTraced = 0;
    }
    const VXGuard headers(app.http.headerMutex);
    app.http.headersTraced = 0;
}

}  // namespace

void dumpFpFromBusyList() {
    const vxApplication& app = *vxCurrent();
    if (!busyList(app).oldest) {
        VX_TRACE(2, kFlowpath, kInfo, "gBusyTLSHead is null. Hence returning.");
        return;
    }
    emptyBusyList(app, [](vxTD* slot) {
        // One that has ended was counted: the run's flags fell before it was given back.
        if (!slot->fpEnded.load(std::memory_order_relaxed)) dumpIncompleteFPAtTestStop(slot);
    });
    flushCommonData();
}

void vxDropBusyList() {
    vxApplication& app = *vxCurrent();
    emptyBusyList(app, [](vxTD*) {});
    const VXGuard decode(app.decoder.decodeMutex);
    clearToldCeilings(app);
    iterate_hashtable_and_free_hashmap(app.flowpath.fpi_tls_map);
}

}  // namespace vx
