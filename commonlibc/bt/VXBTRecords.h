// Records of the BT monitor: 74, one for each BT that was ever counted, and one for all transactions.
//
//     74,<tier id>|<app id>|<BT id>:<prefix><BT name>|<forty figures>
//
// With tags on, the number of the tag list takes the place of the BT id, and its text, once, a field of its
// own behind the name. The figures stand in docs/records.md.
//
// A slot is copied and begun anew under its mutex and written without it: who counts waits for a copy at
// most.
//
// Units     Milliseconds; CPU times in milliseconds.
// Threads   The auto-sensor thread, on the current context. Takes one slot's mutex at a time.
#pragma once

#include <cstdint>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Writes what the interval has brought and begins the next one. False: no BT exists yet.
bool generateAndDumpBTMonitoringRecord(char* buffer, std::int32_t* length);
// One record behind `length` of a buffer of kReportBufferSize bytes. tagString: null when it is not to be
// sent.
void dump74RecordForEveryBT(char* buffer, std::int32_t* length, const VXBTCounters& counters, std::int64_t id,
                            const char* name);
// Transactions counted that no record has told of.
std::int64_t vxUnreportedOfBts();

}  // namespace vx
