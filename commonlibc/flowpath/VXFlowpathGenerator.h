// Transaction life cycle: start, capture decision, BT, end, reset.
//
//     free -> started (busy, no output yet) -> header out -> ended -> reset -> free
//
// A transaction inside a live session inherits the session's capture decision; the first one of a session
// draws. A flowpath without a BT is excluded: its items are dropped and it leaves no record.
//
// Units     Times from the agent are Unix microseconds; durations and relative times milliseconds.
// Threads   Under the decode lock of the instance (dumpIncompleteFPAtTestStop too). Current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Arguments of a transaction start, borrowed for the call.
struct VXStartArguments {
    const char* fpstr;    // decimal instance; F forces, "_" makes it a caller's chain; short: a new instance
    const char* url;      // "path?query|method"
    char* btHeaderValue;  // changed in place; may be null
    const char* vxCookie;
    const char* kwCookie;
    const char* correlationHeader;
    std::int64_t startArgument;
    std::int64_t startTime;  // microseconds; below 1: now
    std::int64_t threadId;   // 0: the present thread's
};
// A busy slot with its first item; the caller files it. Null while no test runs, and, counted in
// startsRefused, without a slot.
vxTD* startFP(const VXStartArguments& start);
void setFPCaptured(vxTD* slot);
// URL and BT of the flowpath. A URL is replaced only by a real one where "UnknownUrl" stood, and only
// before the first record.
void setBTObjInThreadLocal(vxTD* slot, const char* url, char* btHeaderValue);
void setURLInThreadLocal(vxTD* slot, const char* url);  // the URL alone
// Last item, category, counters, records; the caller resets the slot. Null is ignored.
void endFP(vxTD* slot, std::int32_t status, std::int64_t endTime, std::int64_t fpCPUTime,
           std::int32_t endField);
void reset(vxTD* slot);  // empties the slot and gives it back; only while testRunRunning; null is ignored
void dumpIncompleteFPAtTestStop(vxTD* slot);
void resetAllFPCounters();  // statistics only

}  // namespace vx
