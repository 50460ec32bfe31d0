// Method monitor: per monitored method and interval, calls and durations.
//
// Indexed by method id; slots exist for monitored methods only, and there is no overall line. A method that
// was called once has a record at every later report:
//
//     61,<tier id>|<app id>|<id>:<prefix><display name>|<calls> <calls a second> <average> <min> <max>
//     <calls>
//
// Units     Durations in milliseconds.
// Threads   The merge any; growth needs the method table lock; records the auto-sensor thread. All on the
//           current context.
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

// Writes what the interval has brought, and begins the next one. True when records were written.
bool generateAndDumpMethodMonitoringRecord(char* buffer, std::int32_t* length);
// One 61 record of counters that the caller owns.
void dump61RecordForEveryMethod(char* buffer, std::int32_t* length,
                                const VXMethodMonitorDataCounters& counters, std::int64_t id,
                                const char* name);

}  // namespace vx
