#include "commonlibc/flowpath/VXFlowpathGenerator.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "commonlibc/VXMethodManager.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/flowpath/VXFlowpathIdentity.h"
#include "commonlibc/flowpath/VXFlowpathRecords.h"
#include "commonlibc/flowpath/VXFlowpathTime.h"
#include "commonlibc/flowpath/VXManageTierCallOut.h"
#include "commonlibc/flowpath/VXMethodTrace.h"
#include "commonlibc/flowpath/VXPerThreadData.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxbt/vxbt_rule_execute.h"
#include "commonlibc/vxbt/vxbt_tags.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::size_t kHttpMethodSize = 20;  // with terminator
constexpr std::size_t kChainSize = 4096;
constexpr std::uint8_t kEndReasonTestStop = 7;
constexpr std::int32_t kUrlTag = 1;  // kind of a tag whose value stands in the URL's parameters
constexpr std::size_t kBeginRequestLength = std::string_view(kBeginRequestName).size();

// The first argument of a start: a caller's chain brings no number of its own.
std::int64_t takeChain(vxTD* slot, const char* text) {
    char copy[kChainSize];
    vxlb_copy_text(copy, sizeof(copy), text);
    setTierCallOut(slot, copy);
    return generate_flowpath_instance();
}

std::int64_t chooseInstance(vxTD* slot, const char* text) {
    if (!text || !text[0] || !text[1]) return generate_flowpath_instance();
    if (std::strpbrk(text, "Ff")) slot->tlForcedFP = 1;
    return std::strchr(text, '_') ? takeChain(slot, text) : std::strtoll(text, nullptr, 10);
}

void setInstance(vxTD* slot, std::int64_t instance) {
    slot->flowpathInstance.store(instance, std::memory_order_relaxed);
    VXWriter(slot->flowpathInstanceStr, sizeof(slot->flowpathInstanceStr)).number(instance).terminate();
}

void setTimes(const vxApplication& app, vxTD* slot, std::int64_t startTime) {
    slot->startTimeUs = startTime < 1 ? vxlb_now_us() : startTime;
    slot->startTimeRel = vxRelativeMs(app, slot->startTimeUs);
    const VXDecoderState_t& read = app.decoder;
    const std::int64_t ageMs = vxWrapSub(read.readTimeUs / 1000, slot->startTimeUs / 1000);
    slot->startSteadyMs = vxWrapSub(read.readSteadyMs, ageMs);
    slot->lastActivityTime.store(read.readSteadyMs, std::memory_order_relaxed);
}

void startSession(vxTD* slot) {
    setFPCaptured(slot);
    setValue(slot);
}

bool sessionExpired(const VXSys_t& sys, const vxTD* slot) {
    const std::int64_t duration = vxWrapSub(slot->startTimeRel, slot->sessionStartTime) / 1000;
    const std::int64_t mostFlowpaths = vx_word_get(sys.maxFPCountInSession);
    const std::int64_t longest = vx_word_get(sys.vxSessionIdleTimeOutSecs);
    if ((mostFlowpaths == 0 || slot->totalFpcount <= mostFlowpaths) && (longest == 0 || duration < longest))
        return false;
    VX_TRACE(2, kFlowpath, kInfo,
             "Going to expire session and reset values, vxTD->totalFpcount = %d, duration = %lld",
             slot->totalFpcount, static_cast<long long>(duration));
    return true;
}

void decideSession(const vxApplication& app, vxTD* slot, const char* vxCookie) {
    if (!vxCookie || !*vxCookie) {
        startSession(slot);
        slot->parentFP = slot->sessionFP;
        return;
    }
    parseVXCookieStr(vxCookie, slot);
    if (slot->sessionCaptured || slot->tlForcedFP) slot->tlIsFPCaptured = 1;
    if (!sessionExpired(app.VXSys, slot)) return;
    startSession(slot);
    if (!slot->parentFP) slot->parentFP = slot->sessionFP;
}

void resolveTags(const vxApplication& app, vxTD* slot) {
    if (!vx_word_get(app.VXSys.tagsEnabled) || !slot->tlBTObj) return;
    const std::int32_t btId = slot->tlBTObj->btId.load(std::memory_order_relaxed);
    if (btId > 0 && vxHasTagOfKind(app.bt.ruleSet.load(std::memory_order_acquire), btId, kUrlTag))
        VX_UPCALL(resolveTransactionTag, slot, slot->uRLParameters, nullptr, btId, kUrlTag);
}

void openFirstItem(const vxApplication& app, vxTD* slot, const VXStartArguments& start) {
    VXMethodEntryArguments entry{};
    entry.methodName = kBeginRequestName;
    entry.methodNameLength = kBeginRequestLength;
    entry.url = start.url;
    entry.time = slot->startTimeUs;
    entry.force = 1;
    vxMethodEntryEx(app.method.beginRequest.load(std::memory_order_acquire), slot, entry);
}

void closeFirstItem(const vxApplication& app, vxTD* slot, std::int32_t status, std::int64_t endTime) {
    VXMethodExitArguments exit{};
    exit.methodName = kBeginRequestName;
    exit.methodNameLength = kBeginRequestLength;
    exit.fpCPUTime = slot->fpCPUTime;
    exit.status = status;
    exit.methodWallTime = vxWrapMul(slot->fpDuration, 1000);
    exit.endTime = endTime;
    exit.force = 1;
    vxMethodExitEx(app.method.beginRequest.load(std::memory_order_acquire), slot, exit);
}

void copyPart(char* out, std::size_t size, std::string_view part) {
    const std::size_t length = std::min(part.size(), size - 1);
    if (length) std::memcpy(out, part.data(), length);
    out[length] = '\0';
}

bool urlStands(const vxTD* slot, const char* url) {
    if (!slot->tlURl[0]) return false;
    return slot->fpHeaderDumped || std::strcmp(slot->tlURl, kUnknownUrl) != 0 ||
           std::strcmp(url, kUnknownUrl) == 0;
}

// Takes "path?query|method" into the slot; the method's text into `method` (kHttpMethodSize bytes). False
// when the URL that is there stands.
bool takeUrl(vxTD* slot, const char* text, char* method) {
    if (!text || !*text) text = kUnknownUrl;
    if (urlStands(slot, text)) return false;
    const VXUrlParts url = vxSplitUrl(text);
    copyPart(method, kHttpMethodSize, url.method);
    if (url.query.data()) copyPart(slot->uRLParameters, sizeof(slot->uRLParameters), url.query);
    copyPart(slot->tlURl, sizeof(slot->tlURl), url.path);
    return true;
}

// Up to now, whatever the wall's clock was set to meanwhile. That of an agent on another host may be ahead:
// no transaction takes less than nothing, and one that did would be subtracted from the sums of its BT.
std::int64_t durationSoFar(const vxTD* slot) {
    return std::max<std::int64_t>(vxWrapSub(vxlb_steady_ms(), slot->startSteadyMs), 0);
}

std::int64_t durationOf(const vxTD* slot, std::int64_t endTime) {
    const std::int64_t duration = vxSinceStartMs(*slot, endTime);
    return duration > 0 ? duration : durationSoFar(slot);
}

void setCategory(vxTD* slot) {
    const std::int32_t category =
        slot->tlIsFPExcluded
            ? kCategoryExcluded
            : findCategoryOfBT(*slot->tlBTObj, slot->fpDuration, slot->statusCode, &slot->tlIsFPCaptured);
    slot->tlCategory = static_cast<std::int8_t>(category);
    slot->sessionCategory = category;
}

void writeEnd(vxTD* slot, std::int64_t fpCPUTime, std::int32_t endField) {
    {
        const VXGuard blob(slot->blobMutex);
        dumpCompleteFlowpathSeqBlock(slot, slot->tlCategory, fpCPUTime, slot->fpDuration, endField);
    }
    dumpDataForDebug(slot);
}

}  // namespace

vxTD* startFP(const VXStartArguments& start) {
    vxApplication& app = *vxCurrent();
    if (!app.Server.testRunRunning || app.Server.stopping) return nullptr;
    vxTD* slot = get_free_tls_slot();
    if (!slot) {
        app.flowpath.startsRefused.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }

    resetAllThreadLocals(slot);
    setTimes(app, slot, start.startTime);
    slot->threadId = start.threadId ? start.threadId : vxlb_get_tid();
    setInstance(slot, chooseInstance(slot, start.fpstr));
    parseKWCookieStr(start.kwCookie, slot);
    slot->startArgument = start.startArgument;
    if (start.correlationHeader)
        vxlb_copy_text(slot->correlationHeader, sizeof(slot->correlationHeader), start.correlationHeader);
    decideSession(app, slot, start.vxCookie);
    slot->workerId.store(tlWorkerIndex, std::memory_order_relaxed);
    setBTObjInThreadLocal(slot, start.url, start.btHeaderValue);
    takeMethodTable(slot);
    resolveTags(app, slot);
    openFirstItem(app, slot, start);
    return slot;
}

void setFPCaptured(vxTD* slot) {
    const VXSys_t& sys = vxCurrent()->VXSys;
    const std::int32_t percent = vx_word_get(sys.bciInstrSessionPct);
    bool captured = percent >= 100;
    if (percent > 0 && percent < 100) captured = vxlb_random_byte() % 100 < percent;
    if (slot->tlForcedFP) captured = true;
    if (vx_word_get(sys.captureMethodForAllFP) != 0 && percent >= 0) captured = true;
    slot->tlIsFPCaptured = captured;
}

void setBTObjInThreadLocal(vxTD* slot, const char* url, char* btHeaderValue) {
    char method[kHttpMethodSize];
    if (!takeUrl(slot, url, method)) return;
    const vxApplication& app = *vxCurrent();
    slot->tlBTObj = get_obj_from_bt_name(slot->tlURl, slot->uRLParameters, btHeaderValue, slot->tagMutex,
                                         *method ? method : nullptr);
    if (!slot->tlBTObj) {
        slot->tlIsFPExcluded = 1;
        VX_TRACE(2, kFlowpath, kInfo,
                 "FP (%lld) will be excluded as per BT rule, httpMethod = %s, uRLParameters = %s",
                 static_cast<long long>(slot->flowpathInstance.load(std::memory_order_relaxed)), method,
                 slot->uRLParameters);
    } else if (app.Server.testRunRunning == 1 && app.Server.isTenRecordDump == 1 &&
               !slot->tlBTObj->ownThresholds.load(std::memory_order_relaxed)) {
        slot->tlBTObj->slowThreshold.store(app.bt.allSlowThreshold, std::memory_order_relaxed);
        slot->tlBTObj->verySlowThreshold.store(app.bt.allVerySlowThreshold, std::memory_order_relaxed);
    }
}

void setURLInThreadLocal(vxTD* slot, const char* url) {
    char method[kHttpMethodSize];
    takeUrl(slot, url, method);
}

void endFP(vxTD* slot, std::int32_t status, std::int64_t endTime, std::int64_t fpCPUTime,
           std::int32_t endField) {
    const vxApplication& app = *vxCurrent();
    if (!slot || !app.Server.testRunRunning) return;
    slot->fpCPUTime = std::max<std::int64_t>(fpCPUTime, 0);
    if (endTime < 1) endTime = slot->startTimeUs;
    slot->fpEnded.store(1, std::memory_order_relaxed);
    slot->fpDuration = durationOf(slot, endTime);
    closeFirstItem(app, slot, status, endTime);

    if (!slot->tlBTObj) {
        if (slot->tlIsFPExcluded)
            VX_TRACE(2, kFlowpath, kInfo,
                     "FP (%lld) was excluded as per BT and 3 record was not dumped, ignoring ...",
                     static_cast<long long>(slot->flowpathInstance.load(std::memory_order_relaxed)));
        return;
    }
    setCategory(slot);
    if (!slot->tlIsFPExcluded) updateCounterAndDurationForBT(slot);
    writeEnd(slot, slot->fpCPUTime, endField);
    releaseMethodTable(slot);
    slot->parentFP = slot->sessionFP;
}

void reset(vxTD* slot) {
    if (!slot || !vxCurrent()->Server.testRunRunning) return;
    resetAllThreadLocals(slot);
    free_tls_slot(slot);
}

void dumpIncompleteFPAtTestStop(vxTD* slot) {
    if (!slot) {
        VX_TRACE(1, kFlowpath, kError, "vxTD is NULL.");
        return;
    }
    slot->fpDuration = durationSoFar(slot);
    slot->fpEnded.store(1, std::memory_order_relaxed);
    if (slot->tlBTObj) {
        setCategory(slot);
        slot->endReason = kEndReasonTestStop;
        writeEnd(slot, 0, 0);
        if (!slot->tlIsFPExcluded) updateCounterAndDurationForBT(slot);
    }
    releaseMethodTable(slot);
}

void resetAllFPCounters() {
    vxCurrent()->flowpath.resetCounter.store(0, std::memory_order_relaxed);
}

}  // namespace vx
