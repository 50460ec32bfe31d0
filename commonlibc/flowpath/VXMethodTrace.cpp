#include "commonlibc/flowpath/VXMethodTrace.h"

#include <algorithm>
#include <cstring>

#include "commonlibc/VXMethodManager.h"
#include "commonlibc/flowpath/VXFlowpathRecords.h"
#include "commonlibc/flowpath/VXFlowpathTime.h"
#include "commonlibc/flowpath/VXMethodCallout.h"
#include "commonlibc/flowpath/VXOpenMethods.h"
#include "commonlibc/flowpath/VXSequenceBlob.h"
#include "commonlibc/mm/VXMethodMonitor.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::uint8_t kSubtypeEntry = '#';  // an entry that is always in the blob
constexpr std::uint8_t kSubtypeExit = 4;     // an exit that is always in the blob
constexpr std::int32_t kEntryItem = 0, kExitItem = 1;
constexpr std::int32_t kStatusOfException = 503;  // at least
constexpr std::int32_t kCpuTimeOfGo = 3;          // CPU time mode from which Go agents' CPU times are taken
constexpr char kPhaseMethod[] = "System.Web.HttpRuntime.ProcessRequestNotificationPrivate";
constexpr std::size_t kPhaseMethodLength = sizeof(kPhaseMethod) - 1;

long long instanceOf(const vxTD* slot) {
    return slot->flowpathInstance.load(std::memory_order_relaxed);
}

bool isAgent(const vxApplication& app, std::int32_t code) {
    return app.VXBCISetting.agentTypeCode.load(std::memory_order_relaxed) == code;
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
bool isFiltered(const vxApplication& app, const VXMethodView& view) {
    if (view.flags != 0 || !isAgent(app, kAgentPhp)) return false;
    const VXMethodLock lock;
    return view.method->isSkippedByProfile == 1 || view.method->skipFlag2 == 1;
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
bool closeEntry(vxTD* slot, const VXMethodView& view, const char* methodName) {
    if (view.id >= kCountedMethods || vxCloseMethod(*slot, view.id)) return true;
    VX_TRACE(2, kFlowpath, kInfo, "FPI = %lld Method Exit = '%s,%d,%d' Entry Not Found", instanceOf(slot),
             methodName, static_cast<int>(view.id), openEntries(slot, view.id));
    return false;
}

bool announcesPhase(const vxApplication& app, const VXMethodExitArguments& exit) {
    return exit.phase && *exit.phase && vx_word_get(app.VXSys.enableProcessNotificationPhase) == 1 &&
           std::strncmp(exit.methodName, kPhaseMethod, kPhaseMethodLength) == 0;
}

// The item of an exit of `type`. What is beyond the depth limit leaves none.
void appendExit(const vxApplication& app, vxTD* slot, const VXMethodView& view,
                const VXMethodExitArguments& exit, std::int32_t type) {
    if (!withinDepth(app, slot)) {
        --slot->nonServiceMethodCount;
        return;
    }
    ++slot->seqNo;
    const bool withPhase = type == kExitItem && announcesPhase(app, exit);
    if (withPhase) dump19RecordForSpecificMethodArg(slot, view.id, exit.phase);
    if (slot->tlIsFPExcluded || !(slot->tlIsFPCaptured || exit.force || view.subtype == kSubtypeExit)) return;
    const bool withoutCpuTime = isAgent(app, kAgentGo) && vx_word_get(app.VXSys.enableCpuTime) < kCpuTimeOfGo;
    append(app, slot,
           {.methodId = view.id,
            .time = exit.methodWallTime / 1000,
            .type = type,
            .cpuTime = withoutCpuTime ? 0 : exit.fpCPUTime,
            .urlFlag = view.urlFlag,
            .threadId = exit.threadId,
            .url = nullptr,
            .phaseFlag = withPhase});
}

// False when an exit without a slot, a run or a name is to be ignored.
bool mayLeave(const vxApplication& app, const vxTD* slot, const VXMethodExitArguments& exit) {
    if (!slot || !app.Server.testRunRunning.load(std::memory_order_relaxed)) return false;
    if (exit.methodName && *exit.methodName) return true;
    VX_TRACE(1, kFlowpath, kError, "Method name for '%lld' is : '%s'.", instanceOf(slot),
             exit.methodName ? exit.methodName : "(null)");
    return false;
}

void countMethod(vxTD* slot, const VXMethodView& view, const VXMethodExitArguments& exit) {
    if (view.flags & kMethodMonitored)
        updateCounterAndDurationForMethod(slot, view.method, exit.methodWallTime / 1000);
}

// An exit by exception leaves the entry open, for the exit that may follow it.
bool entryIsOpen(vxTD* slot, const VXMethodView& view) {
    return view.id >= kCountedMethods || openEntries(slot, view.id) > 0;
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
    const std::int64_t sinceStart = std::max<std::int64_t>(vxSinceStartMs(*slot, time), 0);

    mPP* found = enteredMethod(app, slot, method, entry);
    if (!found) return nullptr;
    markMethodUsed(found);
    const VXMethodView view = vxViewOf(found);
    if (isFiltered(app, view)) return nullptr;

    vxRaise(view.flags & kMethodEntryPoint ? slot->entryPointCount : slot->nonServiceMethodCount);
    if (entry.urlParameter)
        vxlb_copy_text(slot->uRLParameters, sizeof(slot->uRLParameters), entry.urlParameter);
    if (view.flags & kMethodBackend) vxEnterCallout(slot, view);

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
    if (!mayLeave(app, slot, exit)) return;
    if (exit.status >= 0) slot->statusCode = exit.status;

    mPP* found = leftMethod(app, slot, method, exit);
    if (!found) return;
    markMethodUsed(found);
    const VXMethodView view = vxViewOf(found);
    if (!closeEntry(slot, view, exit.methodName) || isFiltered(app, view)) return;

    VXCallout callout{};
    if (vxHasCallout(view)) callout = vxLeaveCallout(slot, view, exit);
    countMethod(slot, view, exit);
    appendExit(app, slot, view, exit, kExitItem);
    if (callout.backend) vxAppendCallout(slot, view, exit, callout);
}

void vxMethodExitException(vxTD* slot, const VXMethodExitArguments& thrown, std::int32_t exitType) {
    const vxApplication& app = *vxCurrent();
    if (!mayLeave(app, slot, thrown)) return;
    VXMethodExitArguments exit = thrown;
    if (exit.threadId == 0) exit.threadId = slot->threadId;
    slot->statusCode = std::max(slot->statusCode, kStatusOfException);

    mPP* found = leftMethod(app, slot, nullptr, exit);
    if (!found) return;
    markMethodUsed(found);
    const VXMethodView view = vxViewOf(found);
    if (!entryIsOpen(slot, view) || isFiltered(app, view)) return;

    if (vxHasCallout(view)) vxThrowFromCallout(slot, view, exit);
    countMethod(slot, view, exit);
    appendExit(app, slot, view, exit, exitType);
}

}  // namespace vx
