// Back-end monitor: per back-end and interval, calls, errors and durations.
//
// A back-end's id is the methodId of its record; slot 0 is not used. Each call is merged under the slot's
// mutex.
//
// Units     Durations in milliseconds.
// Threads   The merge any; growth needs the method table lock. All on the current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// At each start of a run: prefix, array, all counters to their start values; turns the monitor on. What a
// slot stands for (record, digest, dirty flag) survives.
void VXBackendMonitorInit();
void createVectorPrefixBackend();
// Counts one call; `duration` ms. False when it was counted, true when not.
bool updateCounterAndDurationForBackend(vxTD* slot, mPP* backend, std::int64_t duration, bool isError);
// Makes the back-end's slot exist and point at it. Method table lock held.
void checkAndIncrementAggrBackendDataArray(mPP* backend);
// Start values of one slot's counters; the slot's mutex held.
void initOnStartInstrumentationIP(VXBackendMonitorDataCounters& slot);
// Keyword parsers.
void setBackendMonitorEnabled(const char* value);
void parseMaxIPCount(const char* value);

}  // namespace vx
