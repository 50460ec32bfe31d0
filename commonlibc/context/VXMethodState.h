// The method table of an instance and the counters of methods and back-ends.
//
// Guards    mapMutex (nested; getMethodHashMapLock): the map, the id counter, the growth of both arrays and
//           every member of a record; the atomic ones are read without it by whoever holds the pointer.
//           A monitor slot's counters: its own mutex.
// Lifetime  Records are never freed while the instance lives; ids never change.
#pragma once

#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "commonlibc/context/VXBTState.h"
#include "commonlibc/vxlb_text.h"

namespace vx {

struct VXMap;

// Bits of isEntryPointPtr.
inline constexpr std::uint32_t kMethodEntryPoint = 1, kMethodBackend = 2, kMethodMonitored = 4,
                               kMethodCustomBackend = 8;
// Values of type.
inline constexpr std::uint8_t kTypePlain = 0, kTypeHttp = 1, kTypeDb = 2, kTypeMonitored = 5, kTypeCustom = 6,
                              kTypeMq = 13;
inline constexpr const char* kBeginRequestName = "Profiler.Zorvanek.BeginRequest";

struct methodPropProperties {
    std::atomic<std::uint8_t> type, subtype;
    std::uint8_t isSkippedByProfile, skipFlag2;  // the two bytes of the php method filter
    char* moduleName;
    char* methodName;                            // the map's key; never changes
    VXSharedText aliasMethodName;                // display name; the back-end's name for type 1; null: none
    char* calloutText;                           // behind ":" of the callout field; null: none
    std::atomic<std::uint32_t> methodId;         // UINT32_MAX (-1): not assigned
    std::atomic<std::uint32_t> isEntryPointPtr;  // flag word
    std::atomic<std::uint32_t> usedFlag;         // 1: in use and described; 2: in use, yet to be
    std::atomic<std::uint32_t> urlFlag;          // an entry item of this method carries the URL
    std::int32_t instrumentationProp, instrumentationStatus, logLevel;
    std::atomic<methodPropProperties*> customBackend;  // the second record
    char* arguments;                                   // argumentCount terminated texts, one behind another
    std::uint32_t argumentCount;
    char* returnType;
    std::uint32_t delivery;      // the last delivery of a text that classified it, or in which it was made
    methodPropProperties* next;  // in the order of their making
    char calloutKey[32];
    std::int64_t keyTime;
};
using mPP = methodPropProperties;

// Back-end counters of one interval.
struct VXBackendMonitorDataCounters {
    std::int64_t invocationCount, callCount, errorCount, totalDuration, minDuration, maxDuration;
    std::atomic<mPP*> mpp;
    std::uint8_t isDirty, digestUpdated;
    VXDigest* digest;  // made with the first value; null until then
    apr_thread_mutex_t* mutex;
};
// Method counters of one interval.
struct VXMethodMonitorDataCounters {
    std::int64_t count, entryCount, totalDuration, minDuration, maxDuration;
    std::atomic<mPP*> mPP_;
    std::uint8_t isDirty;
    apr_thread_mutex_t* mutex;
};

struct methodHashMapNode_t {
    VXMap* map;
    std::atomic<std::int32_t> flowpathCount;  // flowpaths that started on this table
    std::int64_t lastSwapTimeMs;
    std::atomic<std::uint32_t> ready;
};

struct VXMethodState_t {
    apr_pool_t* pool;  // the slots' mutexes; mapMutex
    apr_thread_mutex_t* mapMutex;
    std::atomic<methodHashMapNode_t*> methodHashMapNode;
    std::uint32_t methodIdCounter;  // next id, above every id given out; starts at 1; mapMutex
    mPP* firstMethod;               // every record, in the order of their making; mapMutex
    mPP* lastMethod;
    std::uint32_t methodCount;                // records; mapMutex
    std::uint32_t delivery;                   // number of the present delivery of a text; mapMutex
    std::atomic<mPP*> beginRequest;           // the entry of kBeginRequestName
    std::atomic<mPP*> dbSqlDb;                // the entry of "DB_SQLDB"
    std::int32_t backendCounter;              // named back-ends; mapMutex
    std::uint8_t ceilingTraced;               // the full table was traced in this run; mapMutex
    std::uint8_t keepsFiles, keepsFilesHere;  // both set: the texts that are parsed are written to the home
    VXAggregateArray<VXBackendMonitorDataCounters> backendArr;
    VXAggregateArray<VXMethodMonitorDataCounters> methodArr;
    std::atomic<std::int32_t> enableBackendMonitor, enableMethodMonitor;
    char backendPrefix[1024], backendPrefixID[64], methodPrefix[1024], methodPrefixID[64];
};

}  // namespace vx
