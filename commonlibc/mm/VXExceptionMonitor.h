// Exception monitor: per monitored exception class and interval, how often it was reported.
//
// A text of the collector names the classes, one a line; lines that begin with "#" are comments. A class
// without a display name is reported under its own name. The next text takes its place: classes that it does
// not name are counted no more, and ids stay what they were. The text "NA" turns the monitor off until
// another one comes; a new run begins with no class named.
//
//     class|display name
//
//     63,<tier id>|<app id>|<id>:<prefix><display name>|<count> <count a second>
//
// A class that was counted once has a record at every later report, followed by one with id 0, "OverAll",
// that sums them up.
//
// Limits    maxExceptionRows classes, traced when a text has more; a line of 32,767 bytes.
// Errors    A text never fails: a line in a wrong form, or without memory, is passed over.
// Threads   Counting any; texts and Init the control thread; records the auto-sensor thread. All on the
//           current context. The map's lock is never held with a slot's mutex.
#pragma once

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_guard.h"

namespace vx {

// Holds the lock of the current context's exception map (getExcepMonHashMapLock, releaseExcepMonHashMapLock).
class VXExceptionMapLock {
public:
    VXExceptionMapLock() : guard_(vxCurrent()->exceptionMonitor.mapMutex) {}

private:
    VXGuard guard_;
};

// At each start of a run: prefix, array, map, all counters to their start values; turns the monitor on. What
// a slot stands for (entry, used flag) survives.
void VXExceptionMonitorInit();
void createVectorPrefixException();
// Takes a terminated text and takes it apart in place; null is passed over.
void parseExceptionMonFile(char* text);
// Counts one exception of a class. False when it was not counted.
bool updateCounterAndDurationForException(vxTD* slot, const char* className);
// Makes the slot of an id exist; null without memory. Map lock held.
VXExceptionMonitorDataCounters* checkAndIncrementAggrExceptionDataArray(std::int32_t targetSize);
// Adds an interval's counters to the sum, and makes them fresh again.
void updateExceptionDataCountersForAggregate(VXExceptionMonitorDataCounters& sum,
                                             VXExceptionMonitorDataCounters& part);
// Start values of one slot's counters; the slot's mutex held.
void initVXExceptionMonitorDataCounters(VXExceptionMonitorDataCounters& slot);
// Writes what the interval has brought, and begins the next one. False while the monitor is off: its counters
// go on, and the first report behind that carries them.
bool generateAndDumpExceptionMonitoringRecord(char* buffer, std::int32_t* length);
// One 63 record of counters that the caller owns.
void dump63RecordForEveryMethod(char* buffer, std::int32_t* length,
                                const VXExceptionMonitorDataCounters& counters, std::int64_t id,
                                const char* name);

}  // namespace vx
