// Method monitor: per monitored method and interval, calls and durations.
//
// Indexed by method id; slots exist for monitored methods only, and there is no overall line.
//
// Units     Durations in milliseconds.
// Threads   The merge any; growth needs the method table lock. All on the current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// At each start of a run: prefix, array, all counters to their start values; turns the monitor on. What a
// slot stands for (method, used flag) survives.
void VXMethodMonitorInit();
void createVectorPrefixMethod();
// Counts one finished call of a monitored method.
void updateCounterAndDurationForMethod(vxTD* slot, mPP* method, std::int64_t durationMs);
// Makes the method's slot exist and point at it. Method table lock held.
void checkAndIncrementAggrMethodDataArray(mPP* method);
// Start values of one slot's counters; the slot's mutex held.
void initVXMethodMonitorDataCounters(VXMethodMonitorDataCounters& slot);

}  // namespace vx
