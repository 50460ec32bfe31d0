#include "commonlibc/flowpath/VXPerThreadData.h"

#include <algorithm>

#include "commonlibc/VXMethodManager.h"
#include "commonlibc/flowpath/VXOpenMethods.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr std::int32_t kStatusAfterReset = 200;
constexpr std::int64_t kNoStartArgument = -1;

constexpr char* vxTD::*kHeapTexts[] = {
    &vxTD::prevTierSeq,    &vxTD::tierCalloutHeader, &vxTD::excepMessage,         &vxTD::excepClassName,
    &vxTD::throwingCName,  &vxTD::throwingMName,     &vxTD::exceptionBackendName, &vxTD::exceptionStackTrace,
    &vxTD::OTL_tracestate, &vxTD::OTL_traceID,       &vxTD::OTL_parentID,
};

void freeText(char*& text) {
    if (!text) return;
    VXLB_FREE(text, "slot text", -1);
    text = nullptr;
}

void clearFlags(vxTD& slot) {
    slot.tlIsFPCaptured = slot.tlIsFPExcluded = slot.tlForcedFP = slot.fpHeaderDumped = 0;
    slot.tlCategory = 0;
    slot.endReason = slot.traceFlag = 0;
    slot.fpEnded.store(0, std::memory_order_relaxed);
    slot.queuedForReset.store(0, std::memory_order_relaxed);
    slot.workerId.store(0, std::memory_order_relaxed);
}

void clearCounts(vxTD& slot) {
    slot.entryPointCount = slot.nonServiceMethodCount = slot.httpCallOutDepth = 0;
    slot.sequenceBlobLen = slot.debugDataLen = 0;
    slot.exceptionCount = slot.traceState = 0;
    slot.seqNo = slot.calloutSeq = 0;
    slot.fpCPUTime = slot.fpDuration = 0;
    slot.tlSQLObj.DBCallDepth = 0;
    slot.tlSQLObj.queryId = 0;
}

void clearIdentity(vxTD& slot) {
    slot.flowpathInstance.store(0, std::memory_order_relaxed);
    slot.lastActivityTime.store(0, std::memory_order_relaxed);
    slot.startTimeRel = slot.startTimeUs = slot.startSteadyMs = slot.threadId = 0;
    slot.prevFlowpath = slot.prevTierTime = 0;
    slot.tlBTObj = nullptr;
    slot.tlMethodTable = nullptr;
    slot.tagArray = slot.BTagSeqArray = nullptr;
}

void clearSession(vxTD& slot) {
    slot.testRunId = slot.parentFP = slot.sessionFP = slot.sessionStartTime = 0;
    slot.kwSessionId = slot.kwPageId = 0;
    slot.sessionCaptured = slot.sessionCategory = slot.totalFpcount = 0;
    slot.cookieTierId = slot.cookieServerId = slot.cookieAppId = 0;
}

void clearTexts(vxTD& slot) {
    for (char* vxTD::*text : kHeapTexts) freeText(slot.*text);
    freeText(slot.tlSQLObj.DBQueryParam);
    slot.shownThread = 0;
    slot.shownThreadLength = 0;
    slot.flowpathInstanceStr[0] = slot.calloutKey[0] = slot.debugData[0] = '\0';
    slot.tlURl[0] = slot.uRLParameters[0] = slot.sequenceBlob[0] = '\0';
    // In a page that most transactions never write: a page that was only read stays unmapped.
    if (slot.correlationHeader[0]) slot.correlationHeader[0] = '\0';
}

void dropSlot(vxTD* slot) {
    resetAllThreadLocals(slot);
    free_tls_slot(slot);
}

vxTD* search(const vxApplication& app, const char* key, std::size_t length) {
    constexpr std::size_t longest = sizeof(vxTD::filedKey) - 1;
    return static_cast<vxTD*>(search_hashmap_len(key, static_cast<std::int64_t>(std::min(length, longest)),
                                                 app.flowpath.fpi_tls_map));
}

}  // namespace

void resetAllThreadLocals(vxTD* slot) {
    vxUnfileSlot(slot);
    releaseMethodTable(slot);
    clearFlags(*slot);
    clearCounts(*slot);
    clearIdentity(*slot);
    clearSession(*slot);
    clearTexts(*slot);
    vxClearOpenMethods(*slot);
    slot->statusCode = kStatusAfterReset;
    slot->startArgument = kNoStartArgument;
}

void vxFileSlot(vxTD* slot, const char* key) {
    const vxApplication& app = *vxCurrent();
    vxUnfileSlot(slot);
    if (!app.flowpath.fpi_tls_map || !key || !*key) return;
    const std::size_t length = vxlb_copy_text(slot->filedKey, sizeof(slot->filedKey), key);
    if (vxTD* former = search(app, slot->filedKey, length)) {
        VX_TRACE(1, kFlowpath, kInfo, "-- Not M Type 4  pfpi = %lld ",
                 static_cast<long long>(former->flowpathInstance.load(std::memory_order_relaxed)));
        dropSlot(former);
    }
    modify_hashmap(slot->filedKey, slot, app.flowpath.fpi_tls_map);
}

void vxUnfileSlot(vxTD* slot) {
    if (!slot->filedKey[0]) return;
    VXMap* map = vxCurrent()->flowpath.fpi_tls_map;
    if (search_hashmap(slot->filedKey, map) == slot) modify_hashmap(slot->filedKey, nullptr, map);
    slot->filedKey[0] = '\0';
}

vxTD* vxFindSlot(const char* key, std::size_t length) {
    return search(*vxCurrent(), key, length);
}

}  // namespace vx
