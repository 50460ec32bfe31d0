// One transaction in flight (a slot), the busy list of an instance, and the pool that slots come from.
//
// Free slots belong to no instance: one stack serves all, so that an instance whose agents have gone keeps
// nothing from the others, and all instances together never hold more slots than maxSlots.
//
// Writer    The thread that decodes the flowpath's messages, under the instance's decode lock. The walk
//           over idle transactions reads the atomic members without it.
// Guards    poolMutex: the instance's busy list, its count and links. VXSlotPool.mutex: the free stack, its
//           counts and links; taken inside poolMutex. blobMutex: sequenceBlob and its length. tagMutex: tags.
// Lifetime  Slots come in blocks of 64 that are never freed: interior pointers stay valid. A slot that was
//           given back may turn up in another instance: outside poolMutex a busy slot of this instance is
//           one that the decode lock keeps busy.
// Memory    A slot begins at a page, and all that an ordinary transaction writes stands in that first page:
//           fields, URL, open methods, the first 2,000 bytes of the blob. What lies behind stays unmapped
//           until a transaction needs it; neither pool nor reset touches it before.
//
//     page 0: [fields][texts][openMethod..][blob ..  page 1-4: .. blob][correlationHeader][methodEntryCount]
#pragma once

#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "commonlibc/context/VXBTState.h"
#include "commonlibc/context/VXMethodState.h"

namespace vx {

inline constexpr std::int32_t kSlotsPerPool = 64;
inline constexpr std::int32_t kSequenceBlobSize = 16384;
inline constexpr std::int32_t kSequenceBlobDumpAt = 13312;
inline constexpr std::uint32_t kCountedMethods = 8192;  // method ids whose open entries are counted
inline constexpr std::uint32_t kCountsPerPage = 1024;   // counters per bit of methodEntryDirty
inline constexpr std::uint32_t kOpenMethodPlaces = 64;  // a power of 2
inline constexpr std::uint32_t kOpenMethodLimit = 48;   // places filled; then methodEntryCount serves
inline constexpr std::size_t kSlotAlignment = 4096;     // a page
inline constexpr std::size_t kUrlSize = 512;
inline constexpr const char* kUnknownUrl = "UnknownUrl";

struct alignas(kSlotAlignment) VXPerThreadData_t {
    std::uint8_t tlIsFPCaptured;  // method data goes into the blob
    std::uint8_t tlIsFPExcluded;  // no BT matched
    std::uint8_t tlForcedFP;      // records carry F behind the instance
    std::uint8_t fpHeaderDumped;  // the 2 record is out
    std::int8_t tlCategory;       // BT category; -99 excluded
    std::atomic<std::uint8_t> fpEnded;
    std::atomic<std::uint8_t> queuedForReset;
    std::uint8_t endReason;  // 7 at the end of a test, else 0
    std::uint8_t traceFlag;
    std::atomic<std::uint8_t> inUse;
    std::uint8_t methodTableHeld;   // this slot counts in the method table's flowpathCount
    std::uint8_t methodEntryDirty;  // bit i: page i of methodEntryCount holds a count
    std::atomic<std::uint16_t> workerId;
    std::uint16_t openMethodsUsed;  // filled places of openMethodKey
    std::int32_t statusCode;        // 200 after reset; -99 to be discarded by the receiver
    std::int32_t entryPointCount;
    std::int32_t sequenceBlobLen;  // 0 to kSequenceBlobSize
    std::int32_t nonServiceMethodCount;
    std::int32_t httpCallOutDepth;
    std::int32_t sessionCaptured, sessionCategory, totalFpcount, cookieTierId, cookieServerId, cookieAppId;
    std::int32_t traceState;
    std::int32_t debugDataLen;
    std::int32_t exceptionCount;
    std::atomic<std::int64_t> flowpathInstance;  // 0 when the slot is free
    std::int64_t tlsIdx;                         // set once
    std::int64_t seqNo;
    std::int64_t testRunId;
    std::int64_t startTimeRel;  // ms in the instance's base
    std::int64_t tlThreadId;    // serial number of the slot, set once
    std::int64_t threadId;      // of the request in the agent
    std::int64_t fpCPUTime;
    std::int64_t fpDuration;  // ms
    std::int64_t prevFlowpath, prevTierTime;
    std::int64_t calloutSeq;  // 0: none
    std::int64_t parentFP, sessionFP;
    std::int64_t kwSessionId, kwPageId;
    std::int64_t sessionStartTime;               // ms in the instance's base
    std::int64_t startArgument;                  // -1 after reset
    std::int64_t startTimeUs;                    // Unix microseconds
    std::int64_t startSteadyMs;                  // startTimeUs in steady ms
    std::atomic<std::int64_t> lastActivityTime;  // steady ms; 0: just taken
    // Of this stay on a busy list, 0 on the free stack. Growing along a list, and never used again: whoever
    // holds poolMutex or the decode lock of an instance and meets a serial that he saw on its list knows
    // that the slot is there still.
    std::atomic<std::uint64_t> busySerial;
    char* prevTierSeq;
    char* tierCalloutHeader;
    char* excepMessage;
    char* excepClassName;
    char* throwingCName;
    char* throwingMName;
    char* exceptionBackendName;
    char* exceptionStackTrace;
    char* OTL_traceID;
    char* OTL_parentID;
    char* OTL_tracestate;
    methodHashMapNode_t* tlMethodTable;
    BTObject* tlBTObj;  // null until a rule has matched
    VXTagNode* tagArray;
    VXTagNode* BTagSeqArray;
    VXPerThreadData_t *free_next, *free_prev, *busy_next, *busy_prev;
    apr_thread_mutex_t* blobMutex;
    apr_thread_mutex_t* tagMutex;
    struct {
        std::int32_t DBCallDepth;
        std::int64_t queryId;
        char* DBQueryParam;
    } tlSQLObj;
    char flowpathInstanceStr[32];
    std::int64_t shownThread;        // the thread whose text stands in shownThreadText
    std::uint8_t shownThreadLength;  // 0: none
    char shownThreadText[23];
    char filedKey[64];  // own copy of the key under which fpi_tls_map holds this slot; empty: not filed
    char debugData[128];
    char calloutKey[32];
    char tlURl[kUrlSize];
    char uRLParameters[kUrlSize];
    // Open entries of the first methods that the transaction met: method id + 1 (0: a free place), count.
    std::uint16_t openMethodKey[kOpenMethodPlaces];
    std::int32_t openMethodCount[kOpenMethodPlaces];
    char sequenceBlob[kSequenceBlobSize];
    char correlationHeader[1024];
    std::int32_t methodEntryCount[kCountedMethods];  // open entries of the methods beyond those, by id
};
using vxTD = VXPerThreadData_t;

struct VXMap;
struct VXSlotBlock;  // 64 slots in one piece

// The free slots of the process.
struct VXSlotPool_t {
    std::mutex mutex;    // a leaf
    vxTD* gFreeTLSHead;  // a stack
    std::int32_t gFreeTLSCnt;
    std::int32_t taken;        // slots in flight in all instances; at most maxSlots
    std::int32_t g_tlsidx;     // next index, never reused
    std::uint64_t lastSerial;  // of the latest slot taken
    apr_pool_t* pool;          // the slots' mutexes
    VXSlotBlock* blocks;       // all of them, newest first
};
extern VXSlotPool_t VXSlotPool;

struct VXFlowpathState_t {
    vxTD *gBusyTLSHead, *gBusyTLSTail;  // oldest first
    std::int32_t gBusyTLSCnt;
    apr_thread_mutex_t* poolMutex;
    VXMap* fpi_tls_map;                        // text of the flowpath (filedKey) to slot; decode lock
    std::atomic<std::int64_t> resetCounter;    // slots reset for their age
    std::atomic<std::uint64_t> startsRefused;  // startFP found no slot, since process start
    std::uint8_t ceilingTraced;                // maxSlots was met in this run; poolMutex
    std::int32_t idleWalks;                    // walks over idle transactions since the last report of them
};

}  // namespace vx
