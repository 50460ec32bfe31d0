#include "commonlibc/flowpath/VXMethodTrace.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "commonlibc/VXMethodManager.h"
#include "commonlibc/flowpath/VXFlowpathIdentity.h"
#include "commonlibc/flowpath/VXFlowpathTime.h"
#include "commonlibc/flowpath/VXOpenMethods.h"
#include "commonlibc/flowpath/VXSequenceBlob.h"
#include "commonlibc/mm/VXMethodMonitor.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::uint8_t kSubtypeEntry = '#';  // an entry that is always in the blob
constexpr std::uint8_t kSubtypeExit = 4;     // an exit that is always in the blob
constexpr std::int32_t kEntryItem = 0, kExitItem = 1;
constexpr std::int32_t kCpuTimeOfGo = 3;  // CPU time mode from which Go agents' CPU times are taken
constexpr char kPhaseMethod[] = "System.Web.HttpRuntime.ProcessRequestNotificationPrivate";
constexpr std::size_t kPhaseMethodLength = sizeof(kPhaseMethod) - 1;

// What the method's record says at this event.
struct MethodView {
    mPP* method;
    std::uint32_t id, flags, urlFlag;
    std::uint8_t type, subtype;
};

long long instanceOf(const vxTD* slot) {
    return slot->flowpathInstance.load(std::memory_order_relaxed);
}

bool isAgent(const vxApplication& app, std::int32_t code) {
    return app.VXBCISetting.agentTypeCode.load(std::memory_order_relaxed) == code;
}

MethodView viewOf(mPP* method) {
    constexpr auto relaxed = std::memory_order_relaxed;
    return {method,
            method->methodId.load(relaxed),
            method->isEntryPointPtr.load(relaxed),
            method->urlFlag.load(relaxed),
            method->type.load(relaxed),
            method->subtype.load(relaxed)};
}

// The record of a method that is entered, made if it is new.
mPP* enteredMethod(const vxApplication& app, vxTD* slot, mPP* known, const VXMethodEntryArguments& entry) {
    methodHashMapNode_t* table = app.method.methodHashMapNode.load(std::memory_order_acquire);
    if (slot->tlMethodTable != table) {
        releaseMethodTable(slot);
        takeMethodTable(slot);
    } else if (known) {
        return known;
    }
    return vxFindOrAddMethod(table, entry.methodName, entry.methodNameLength);
}

mPP* leftMethod(const vxApplication& app, const vxTD* slot, mPP* known, const VXMethodExitArguments& exit) {
    const bool current = slot->tlMethodTable == app.method.methodHashMapNode.load(std::memory_order_acquire);
    return known && current ? known : vxFindMethod(exit.methodName, exit.methodNameLength);
}

// The method filter of php agents leaves out plain methods that it names.
bool isFiltered(const vxApplication& app, const MethodView& view) {
    if (view.flags != 0 || !isAgent(app, kAgentPhp)) return false;
    const VXMethodLock lock;
    return view.method->isSkippedByProfile == 1 || view.method->skipFlag2 == 1;
}

void raise(std::int32_t& count) {
    if (count < std::numeric_limits<std::int32_t>::max()) ++count;
}

bool isCallout(const vxTD* slot, const MethodView& view) {
    return (view.flags & kMethodBackend) && !slot->tlIsFPExcluded && slot->tlIsFPCaptured;
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

void enterCallout(const vxApplication& app, vxTD* slot, const MethodView& view, std::int64_t timeMs,
                  const char* query) {
    if (view.type == kTypeDb) {
        VX_UPCALL(dbMethodEntry, slot, timeMs, query);
    } else {
        raise(slot->httpCallOutDepth);
    }
    const bool tied = view.type == kTypeHttp || view.type == kTypeDb;
    if (tied && app.VXSys.proxyMode == 0 && vx_word_get(app.VXSys.otelEnabled))
        makeCalloutKey(slot, view.method);
}

bool withinDepth(const vxApplication& app, const vxTD* slot) {
    return slot->nonServiceMethodCount <= vx_word_get(app.VXSys.bciMaxNonServiceMethodsPerFP);
}

void append(const vxApplication& app, vxTD* slot, const VXBlobItem& item) {
    {
        const VXGuard blob(slot->blobMutex);
        updateFPSeqBlob(slot, item);
    }
    if (vx_word_get(app.VXSys.vxEnableDebugMode))
        updateDebugModeData(slot, item.methodId, item.type, item.threadId);
}

// Name, id and open entries, as the traces of this unit show them.
std::int32_t openEntries(vxTD* slot, std::uint32_t methodId) {
    const std::int32_t* count = methodId < kCountedMethods ? vxOpenMethodCount(*slot, methodId) : nullptr;
    return count ? *count : 0;
}

// False when no entry of the method is open.
bool closeEntry(vxTD* slot, const MethodView& view, const char* methodName) {
    if (view.id >= kCountedMethods || vxCloseMethod(*slot, view.id)) return true;
    VX_TRACE(2, kFlowpath, kInfo, "FPI = %lld Method Exit = '%s,%d,%d' Entry Not Found", instanceOf(slot),
             methodName, static_cast<int>(view.id), openEntries(slot, view.id));
    return false;
}

bool announcesPhase(const vxApplication& app, const VXMethodExitArguments& exit) {
    return exit.phase && *exit.phase && vx_word_get(app.VXSys.enableProcessNotificationPhase) == 1 &&
           std::strncmp(exit.methodName, kPhaseMethod, kPhaseMethodLength) == 0;
}

void appendExit(const vxApplication& app, vxTD* slot, const MethodView& view,
                const VXMethodExitArguments& exit, std::int64_t cpuTime) {
    if (!withinDepth(app, slot)) {
        --slot->nonServiceMethodCount;
        return;
    }
    ++slot->seqNo;
    if (slot->tlIsFPExcluded || !(slot->tlIsFPCaptured || exit.force || view.subtype == kSubtypeExit)) return;
    append(app, slot,
           {.methodId = view.id,
            .time = exit.methodWallTime / 1000,
            .type = kExitItem,
            .cpuTime = cpuTime,
            .urlFlag = view.urlFlag,
            .threadId = exit.threadId,
            .url = nullptr,
            .phaseFlag = announcesPhase(app, exit)});
}

}  // namespace

int vxMethodEntry(vxTD* slot, const VXMethodEntryArguments& entry) {
    if (!slot) return 0;
    VXMethodEntryArguments own = entry;
    if (own.threadId == 0) own.threadId = slot->threadId;
    own.force = 0;
    vxMethodEntryEx(nullptr, slot, own);
    return 0;
}

mPP* vxMethodEntryEx(mPP* method, vxTD* slot, const VXMethodEntryArguments& entry) {
    const vxApplication& app = *vxCurrent();
    if (!slot || !app.Server.testRunRunning.load(std::memory_order_relaxed)) return nullptr;
    if (!entry.methodName || !*entry.methodName) {
        VX_TRACE(1, kFlowpath, kError, "Method Name for %lld is : '%s'.", instanceOf(slot),
                 entry.methodName ? entry.methodName : "(null)");
        return nullptr;
    }
    const std::int64_t time = entry.time < 1 ? vxlb_now_us() : entry.time;
    const std::int64_t sinceStart = std::max<std::int64_t>(vxSinceStartMs(app, *slot, time), 0);

    mPP* found = enteredMethod(app, slot, method, entry);
    if (!found) return nullptr;
    markMethodUsed(found);
    const MethodView view = viewOf(found);
    if (isFiltered(app, view)) return nullptr;

    raise(view.flags & kMethodEntryPoint ? slot->entryPointCount : slot->nonServiceMethodCount);
    if (entry.urlParameter)
        vxlb_copy_text(slot->uRLParameters, sizeof(slot->uRLParameters), entry.urlParameter);
    if (isCallout(slot, view)) enterCallout(app, slot, view, sinceStart, entry.url);

    const bool wanted = slot->tlIsFPCaptured || entry.force || view.subtype == kSubtypeEntry;
    if (wanted && !slot->tlIsFPExcluded && withinDepth(app, slot))
        append(app, slot,
               {.methodId = view.id,
                .time = sinceStart,
                .type = kEntryItem,
                .cpuTime = -1,
                .urlFlag = view.urlFlag,
                .threadId = entry.threadId,
                .url = entry.url,
                .phaseFlag = 0});
    if (view.id < kCountedMethods) vxOpenMethod(*slot, view.id);
    VX_TRACE(2, kFlowpath, kInfo, "FPI = %lld Method Entry = '%s,%d,%d'", instanceOf(slot), entry.methodName,
             static_cast<int>(view.id), openEntries(slot, view.id));
    return view.method;
}

void vxMethodExit(vxTD* slot, const VXMethodExitArguments& exit) {
    if (!slot) {
        VX_TRACE(1, kFlowpath, kError, "vxTD is null, returning");
        return;
    }
    VXMethodExitArguments own = exit;
    if (own.threadId == 0) own.threadId = slot->threadId;
    own.force = 0;
    vxMethodExitEx(nullptr, slot, own);
}

void vxMethodExitEx(mPP* method, vxTD* slot, const VXMethodExitArguments& exit) {
    const vxApplication& app = *vxCurrent();
    if (!slot || !app.Server.testRunRunning.load(std::memory_order_relaxed)) return;
    if (!exit.methodName || !*exit.methodName) {
        VX_TRACE(1, kFlowpath, kError, "Method name for '%lld' is : '%s'.", instanceOf(slot),
                 exit.methodName ? exit.methodName : "(null)");
        return;
    }
    if (exit.status >= 0) slot->statusCode = exit.status;

    mPP* found = leftMethod(app, slot, method, exit);
    if (!found) return;
    markMethodUsed(found);
    const MethodView view = viewOf(found);
    if (!closeEntry(slot, view, exit.methodName) || isFiltered(app, view)) return;

    const bool withoutCpuTime = isAgent(app, kAgentGo) && vx_word_get(app.VXSys.enableCpuTime) < kCpuTimeOfGo;
    if (view.flags & kMethodMonitored)
        updateCounterAndDurationForMethod(slot, view.method, exit.methodWallTime / 1000);
    appendExit(app, slot, view, exit, withoutCpuTime ? 0 : exit.fpCPUTime);
}

}  // namespace vx
