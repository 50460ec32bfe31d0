// BT monitor: per BT and interval, counts and timings by category.
//
// A finished flowpath is counted into a block of counters on the stack, and the block is merged into the slot
// of its BT. Slot 0 is the overall line and belongs to the auto-sensor thread, slot 1 is "Others".
//
// Units     Milliseconds; CPU time in the unit that the flowpath delivers.
// Limits    The merge allocates nothing once the BT's slot exists and the BT was counted once in this run.
// Tags      With tags on, a flowpath whose tags the BT-tag map knows is counted in a slot of aggTagArr; the
//           BT's own slot takes no more than its duration for the digest.
// Threads   The merge takes the slot's mutex and, in it, the BT-tag mutex (a leaf); with tags the flowpath's
//           tag mutex around both. Growth needs the BT map mutex. All on the current context.
#pragma once

#include <limits>

#include "commonlibc/context/vx_application.h"

namespace vx {

inline constexpr std::int64_t kMinCpuStart = std::numeric_limits<std::int64_t>::max();

// What one finished flowpath adds to the counters.
struct VXFlowpathFigures {
    std::int32_t category;
    std::int64_t duration, cpu;
    std::int64_t extra[3];  // for groups A, B and C; nothing delivers them yet
};

// At each start of a run: prefix, settings, array; all counters to their start values. What a slot stands for
// (object, digests, dirty and tag flags) survives.
void VXBTMonitorInit();
void createVectorPrefix();
// Category of a finished flowpath: 10 normal, 11 slow, 12 very slow, 13 error. Clears `captured` for a
// normal flowpath that was captured for the sake of slowness only.
std::int32_t findCategoryOfBT(const BTObject& bt, std::int64_t durationMs, std::int32_t status,
                              std::uint8_t* captured);
// Counts a finished flowpath into its BT's slot. False when it was not counted.
bool updateCounterAndDurationForBT(vxTD* slot);
void initVXBTMonitorDataCounters(VXBTCounters& counters);
// Counts one flowpath. Category 15 counts in the general figures only, an unknown category nowhere.
void updateBTDataCounters(VXBTCounters& counters, const VXFlowpathFigures& figures);
// Merges `source` into `target` and initialises it again.
void updateBTDataCountersForAggregate(VXBTCounters& target, VXBTCounters& source);
// Makes slot btId of the aggregate array exist and point at the object. btMapMutex held.
void checkAndIncrementAggrBTDataArray(BTObject* object);
// Makes slot `btId` of the aggregate array exist, without an object. False: no memory. btMapMutex held.
bool vxEnsureBtSlot(std::int32_t btId);
// Keyword parsers.
void parseBTMonitorKeyword(const char* value);
void parseBTMonitorErrorLevel(const char* value);
void parseBTAggDataArraySize(const char* value);
void parseDoNotDiscardVal(const char* value);

}  // namespace vx
