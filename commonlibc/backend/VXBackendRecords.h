// Records of the back-ends: 75 at each report, 794 at the end of each digest period.
//
//     75,<tier id>|<app id>|<id>:<prefix><name>|<calls> <calls a second> <average> <min> <max> <calls>
//     <errors> ... 794,<tier id>|<app id>|<id>:<prefix><name>|<count> <min> <max> <percentile> <value> ...
//
// A back-end that was called once has a 75 record at every later report, and a 794 record for each period in
// which it was called.
//
// Limits    A name of 1,024 bytes or more that is not the display name of an HTTP back-end: no record.
// Units     Milliseconds; rates are a second of vxMonitorInterval.
// Threads   The auto-sensor thread, on the current context. Takes the mutex of one slot at a time, and
//           formats outside it.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Write what the interval has brought, and begin the next one. True when records were written.
bool generateAndDumpBackendMonitoringRecord(char* buffer, std::int32_t* length);
bool generateAndDumpBackendDigestRecord(char* buffer, std::int32_t* length);
// One 75 record of counters that the caller owns.
void dump75RecordForEveryIP(char* buffer, std::int32_t* length, const VXBackendMonitorDataCounters& counters,
                            std::int64_t id, const char* name);

}  // namespace vx
