// The exception monitor of an instance: the classes that are counted, and their counters.
//
// Guards    mapMutex (getExcepMonHashMapLock): the map, the members of an entry but its display name, and the
//           growth of the array. A slot's counters: its own mutex, never taken while mapMutex is held.
// Lifetime  Entries are never freed while the instance lives; ids never change.
#pragma once

#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <atomic>
#include <cstdint>

#include "commonlibc/context/VXBTState.h"
#include "commonlibc/vxlb_text.h"

namespace vx {

struct VXExceptionEntry {
    std::int32_t id;         // from 1 on
    std::uint32_t delivery;  // of the text that named it last
    std::atomic<const char*> displayName;
    VXExceptionEntry* next;  // in the order of their making
    const char* className;   // the map's key; behind this structure
};

// Exceptions of one class in one interval.
struct VXExceptionMonitorDataCounters {
    std::int64_t count, entryCount;
    std::atomic<VXExceptionEntry*> exceptionEntry;
    std::uint8_t isDirty;  // counted, or reported once
    apr_thread_mutex_t* mutex;
};

struct VXExceptionMonitorState_t {
    apr_pool_t* pool;  // the slots' mutexes; mapMutex
    apr_thread_mutex_t* mapMutex;
    VXMap* map;  // by class name
    VXExceptionEntry* firstEntry;
    VXExceptionEntry* lastEntry;
    std::int32_t entryCount;  // ids given out
    std::uint32_t delivery;   // of the text in force: entries with an older one are not counted
    VXAggregateArray<VXExceptionMonitorDataCounters> exceptionArr;  // slot 0: overall; auto-sensor thread
    std::atomic<std::int32_t> isExceptionMonitorOn;
    char exceptionPrefix[1024], exceptionPrefixID[64];  // made by the control thread at Start
};

}  // namespace vx
