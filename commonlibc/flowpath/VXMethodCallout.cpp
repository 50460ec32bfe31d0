#include "commonlibc/flowpath/VXMethodCallout.h"

#include <cstring>

#include "commonlibc/VXMethodManager.h"
#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/backend/VXBackendMonitor.h"
#include "commonlibc/backend/VXBackendNaming.h"
#include "commonlibc/flowpath/VXCalloutItem.h"
#include "commonlibc/flowpath/VXFlowpathIdentity.h"
#include "commonlibc/flowpath/VXFlowpathTime.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_escape.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

// Escaping stops where a reference might not fit: with room for one more, a name of the full size is whole.
constexpr std::size_t kEscapedSize = kBackendNameSize + 6;

long long instanceOf(const vxTD* slot) {
    return slot->flowpathInstance.load(std::memory_order_relaxed);
}

bool isNestable(const VXMethodView& view) {
    return view.type == kTypeDb || view.type == kTypeMq;
}

bool isCallout(const vxTD* slot, const VXMethodView& view) {
    return (view.flags & kMethodBackend) && !slot->tlIsFPExcluded;
}

// A database call begins; its query is not kept.
void dbMethodEntry(vxTD* slot) {
    vxRaise(slot->tlSQLObj.DBCallDepth);
}

// A key by which the called side can be tied to this call.
void makeCalloutKey(vxTD* slot, mPP* method) {
    VXWriter(slot->calloutKey, sizeof(slot->calloutKey))
        .hex(static_cast<std::uint64_t>(generate_flowpath_instance()))
        .terminate();
    const VXMethodLock lock;
    std::memcpy(method->calloutKey, slot->calloutKey, sizeof(slot->calloutKey));
    method->keyTime = vxlb_now_us();
}

// Records that stand in for a back-end were made as methods: their counters may not exist yet.
mPP* metered(const vxApplication& app, mPP* backend) {
    const auto* counters =
        vxAggSlot(app.method.backendArr, backend->methodId.load(std::memory_order_relaxed));
    if (counters && counters->mpp.load(std::memory_order_acquire) == backend) return backend;
    const VXMethodLock lock;
    checkAndIncrementAggrBackendDataArray(backend);
    return backend;
}

mPP* namedBackend(const vxTD* slot, const VXMethodView& view, const char* name, std::size_t length) {
    char escaped[kEscapedSize], named[kBackendNameSize];
    escapeHTMLforBackendName(escaped, sizeof(escaped), name, length);
    settingBackendName(escaped, kDefaultBackendRule, named, sizeof(named));
    return searchAndUpdateMethodHashMap(named, slot->tlMethodTable, 1, view.type, view.subtype);
}

// Databases and queues have a back-end of their kind where the agent gave no name, a database the method
// itself where even that cannot be had.
mPP* unnamedBackend(const vxTD* slot, const VXMethodView& view) {
    if (!isNestable(view)) return nullptr;
    char named[kBackendNameSize];
    settingBackendName(nullptr, kDefaultBackendRule, named, sizeof(named));
    mPP* backend = searchAndUpdateMethodHashMap(named, slot->tlMethodTable, 0, view.type, view.subtype);
    return backend || view.type != kTypeDb ? backend : view.method;
}

VXCallout findCallout(const vxApplication& app, const vxTD* slot, const VXMethodView& view,
                      const char* backendName) {
    VXCallout callout{nullptr, kNoResourceId};
    const std::size_t length = backendName ? std::strlen(backendName) : 0;
    if (length && view.type == kTypeHttp && vx_word_get(app.VXSys.enableIPResourceURL))
        callout.resourceId = getIDForIPResourceURL(backendName, length);
    callout.backend = length ? namedBackend(slot, view, backendName, length) : unnamedBackend(slot, view);
    if (callout.backend) metered(app, callout.backend);
    return callout;
}

// Leaves one level. True when the call was not inside another one.
bool leaveNested(vxTD* slot) {
    vxLower(slot->tlSQLObj.DBCallDepth);
    VX_TRACE(2, kFlowpath, kInfo,
             "In dumpDBCallOutRecordForEntry, DBCallDepth = %d,  flowpathInstance = %lld, vxTD = %p",
             slot->tlSQLObj.DBCallDepth, instanceOf(slot), static_cast<void*>(slot));
    return slot->tlSQLObj.DBCallDepth <= 0;
}

bool wasMade(const vxTD* slot, const VXMethodExitArguments& exit) {
    return slot->calloutSeq != 0 && exit.calloutDone != 0;
}

// isError as the status says it; the agents' codes begin at 200.
bool isError(std::int32_t status) {
    return static_cast<std::uint32_t>(status) - 200U > 99U;
}

void leaveDepthAndCount(vxTD* slot, const VXMethodView& view, const VXMethodExitArguments& exit,
                        mPP* backend) {
    bool counts = false;
    if (isNestable(view)) {
        counts = leaveNested(slot);
    } else {
        vxLower(slot->httpCallOutDepth);
        counts = wasMade(slot, exit);
    }
    if (counts)
        updateCounterAndDurationForBackend(slot, backend, exit.methodWallTime / 1000,
                                           isError(slot->statusCode));
}

VXCalloutItem itemOf(const vxTD* slot, const VXMethodExitArguments& exit, const VXCallout& callout) {
    const std::int64_t endTime = exit.endTime < 1 ? vxlb_now_us() : exit.endTime;
    return {.backend = callout.backend,
            .startOffset = vxSinceStartMs(*slot, endTime),
            .wallTime = exit.methodWallTime,
            .resourceId = callout.resourceId,
            .threadId = exit.threadId};
}

void appendItem(vxTD* slot, const VXMethodExitArguments& exit, const VXCallout& callout) {
    ++slot->seqNo;
    const VXGuard blob(slot->blobMutex);
    updateFPSeqBlobWithTierCallOutRecord(slot, itemOf(slot, exit, callout));
}

// A custom method is a back-end of its own.
void leaveCustom(const vxApplication& app, vxTD* slot, const VXMethodView& view,
                 const VXMethodExitArguments& exit, bool failed) {
    if (!(view.flags & kMethodCustomBackend) || !slot->tlIsFPCaptured) return;
    mPP* second = view.method->customBackend.load(std::memory_order_acquire);
    mPP* custom = second ? second : view.method;
    markMethodUsed(custom);
    appendItem(slot, exit, {metered(app, custom), kNoResourceId});
    updateCounterAndDurationForBackend(slot, custom, exit.methodWallTime / 1000, failed);
}

bool leavesItem(const vxApplication& app, const vxTD* slot, const VXMethodView& view,
                const VXMethodExitArguments& exit) {
    switch (view.type) {
        case kTypeDb:
            return slot->tlSQLObj.DBCallDepth <= 0;
        case kTypeHttp:
            return wasMade(slot, exit);
        case kTypeMq: {
            const auto agent = app.VXBCISetting.agentTypeCode.load(std::memory_order_relaxed);
            return wasMade(slot, exit) || (agent == kAgentPython && slot->calloutSeq == 0);
        }
        default:
            return false;
    }
}

// What the entry raised falls here too: the agent may send no other exit.
void throwFromBackend(vxTD* slot, const VXMethodView& view, const VXMethodExitArguments& exit,
                      const VXCallout& callout) {
    if (view.type == kTypeDb) {
        ++slot->seqNo;
        if (!leaveNested(slot)) return;
    } else {
        vxLower(view.type == kTypeMq ? slot->tlSQLObj.DBCallDepth : slot->httpCallOutDepth);
    }
    if (!callout.backend) return;
    updateFPSeqBlobWithTierCallOutExceptionRecord(slot, itemOf(slot, exit, callout));
    updateCounterAndDurationForBackend(slot, callout.backend, exit.methodWallTime / 1000, true);
}

}  // namespace

void vxEnterCallout(vxTD* slot, const VXMethodView& view) {
    if (!isCallout(slot, view) || !slot->tlIsFPCaptured) return;
    if (view.type == kTypeDb) {
        dbMethodEntry(slot);
    } else {
        vxRaise(view.type == kTypeMq ? slot->tlSQLObj.DBCallDepth : slot->httpCallOutDepth);
    }
    const VXSys_t& sys = vxCurrent()->VXSys;
    const bool tied = view.type == kTypeHttp || view.type == kTypeDb;
    if (tied && sys.proxyMode == 0 && vx_word_get(sys.otelEnabled)) makeCalloutKey(slot, view.method);
}

VXCallout vxLeaveCallout(vxTD* slot, const VXMethodView& view, const VXMethodExitArguments& exit) {
    const vxApplication& app = *vxCurrent();
    VXCallout callout{nullptr, kNoResourceId};
    if (isCallout(slot, view)) {
        callout = findCallout(app, slot, view, exit.backendName);
        if (slot->tlIsFPCaptured) leaveDepthAndCount(slot, view, exit, callout.backend);
    }
    leaveCustom(app, slot, view, exit, false);
    return callout;
}

void vxAppendCallout(vxTD* slot, const VXMethodView& view, const VXMethodExitArguments& exit,
                     const VXCallout& callout) {
    const vxApplication& app = *vxCurrent();
    if (slot->tlIsFPCaptured && leavesItem(app, slot, view, exit)) appendItem(slot, exit, callout);
}

void vxThrowFromCallout(vxTD* slot, const VXMethodView& view, const VXMethodExitArguments& exit) {
    const vxApplication& app = *vxCurrent();
    if (isCallout(slot, view)) {
        const VXCallout callout = findCallout(app, slot, view, exit.backendName);
        if (slot->tlIsFPCaptured) throwFromBackend(slot, view, exit, callout);
    }
    leaveCustom(app, slot, view, exit, true);
}

}  // namespace vx
