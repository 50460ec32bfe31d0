// Business transactions of an instance: the objects, the maps that hold them, their aggregate counters.
//
// Guards    btMapMutex (nested): both maps, total_bt_count and the growth of the aggregate array. A slot's
//           counters: its own mutex. A published BTObject is read without a lock.
// Lifetime  Objects and aggregate slots are never freed while the instance lives; slots never move.
#pragma once

#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "commonlibc/context/VXRuleSet.h"

namespace vx {

struct VXDigest;  // vxlb_tdigest.h
struct VXMap;

inline constexpr std::int32_t kBtIdOthers = 1;
inline constexpr std::int32_t kBtIdExcluded = -2;
inline constexpr std::int32_t kCategoryNormal = 10, kCategorySlow = 11, kCategoryVerySlow = 12,
                              kCategoryError = 13, kCategoryExcluded = -99;
inline constexpr std::size_t kBtNameSize = 257;

struct BTObject {
    char btName[kBtNameSize];                   // the key of the maps: the object's own copy
    std::atomic<std::uint32_t> metaDataDumped;  // the 7 record is out on this connection
    std::atomic<std::int32_t> btId;             // 0 until assigned
    std::atomic<std::int64_t> ddStartTime, ddEndTime, ddDuration;  // seconds, 0 if not armed
    std::atomic<std::uint8_t> ddActive;                            // diagnostics are armed
    std::atomic<std::uint32_t> isStale;
    std::atomic<std::int32_t> slowThreshold, verySlowThreshold;  // ms
    std::atomic<std::uint32_t>
        ownThresholds;              // 1: from a line of its own, the pair for all leaves them alone
    std::int32_t selfId, parentId;  // -1: none
    BTObject* nextManaged;          // list of what the manager map has held
};

// Values of rule_mode, include_uri_in_name_order and seg_type.
inline constexpr std::int32_t kRuleUrl = 1, kRuleSegments = 2, kRuleUrlDynamic = 3, kRuleSegmentsDynamic = 4;
inline constexpr std::int32_t kOrderNone = 0, kOrderFromFirst = 1, kOrderFromLast = 2;
inline constexpr std::int32_t kSegNone = 0, kSegNumbers = 3, kSegMethod = 4, kSegParameter = 5,
                              kSegHeader = 6;
// Values of applicableRule.
inline constexpr std::int32_t kNoRule = 0, kGlobalRule = 1, kPatternRule = 7;

// The one global rule; replaced whole.
struct VXBTGlobalRule {
    std::int32_t rule_mode;  // 1 URL, 2 segments, 3 URL and dynamic part, 4 segments and dynamic part
    char paramName[257], paramPrefix[259];
    std::int32_t prefixLength;
    char paramInfix[260];
    std::int32_t infixLength;
    char headerName[257];
    std::int32_t include_uri_in_name_order;    // 0, 1 FromFirst, 2 FromLast
    std::int32_t include_uri_in_name_segment;  // count
    std::int32_t seg_type;                     // 0 none, 3 segments, 4 method, 5 parameter, 6 header
    std::int32_t uriSegList[32];
    std::int32_t uri_seg_no_list_length;
};

// Count, sum, least and greatest of one figure.
struct VXFigure {
    std::int64_t count, total, min, max;
};

// Counters of one BT over one interval; also used on a stack for one flowpath.
struct VXBTCounters {
    VXFigure duration;  // ms; count is the number of flowpaths
    VXFigure cpu;
    VXFigure normal, slow, verySlow, error;  // by category, ms
    VXFigure groupA, groupB, groupC;         // the flowpath's extra figures
    char* tagString;
    std::int32_t tagSeq;  // -1: none
};

struct VXBTMonitorDataCounters {
    VXBTCounters counters;  // guarded by mutex
    std::atomic<BTObject*> btObj;
    std::uint8_t isDirty, flag, digestUpdated, tagSent;
    VXDigest* digest;  // made with the first value; null until then
    apr_thread_mutex_t* mutex;
    apr_thread_mutex_t* tagMutex;
};

struct VXBTTag;  // one tag of a rule's list

// A tag of a flowpath: BTagSeqArray of the slot is a list of these.
struct VXTagNode {
    std::int32_t sequence;  // of the tag, in tagSequenceMap
    const char* text;
    VXTagNode* next;
};

// A value of the two tag maps: its place in the order of first sight. Key and value are one block.
struct VXTagSequence {
    std::int32_t sequence;
    std::int32_t second;  // 0
    VXTagSequence* next;  // only while a map is being cleared
    const char* key;      // behind this structure
};

// An aggregate array: fixed blocks of slots that stay in place; `size` grows by the reporting formula.
inline constexpr std::int32_t kAggBlockSlots = 128;
inline constexpr std::int32_t kAggBlocks = 2048;  // room for 262,144 slots
template <class Slot>
struct VXAggregateArray {
    std::atomic<Slot*> blocks[kAggBlocks];  // published by release stores, each of kAggBlockSlots slots
    std::atomic<std::int32_t> size;         // slots, as grown and reported
};

struct VXBTState_t {
    apr_pool_t* pool;             // the slots' mutexes; btMapMutex
    std::int32_t max_bt_count;    // atomic_ref: vx_word_get/set
    std::int32_t total_bt_count;  // last id handed out; btMapMutex
    VXMap* managerMap;
    VXMap* configMap;
    BTObject* firstManaged;  // every object that the manager map has held, in that order; btMapMutex
    BTObject* lastManaged;
    apr_thread_mutex_t* btMapMutex;
    std::atomic<VXBTGlobalRule*> global_rule;  // swapped under the decode lock
    std::atomic<VXBTRuleSet*> ruleSet;         // null: none yet; swapped under the decode lock
    std::atomic<std::int32_t> applicableRule;  // 0 none, 1 global, 7 pattern
    std::atomic<std::int32_t> allSlowThreshold, allVerySlowThreshold;  // ms; changed under the decode lock
    VXMap* thresholds;  // by BT name, of the threshold text in force; values are its own; btMapMutex
    std::atomic<std::int32_t> ddState;     // 1: a BT that is met is armed
    std::atomic<std::int64_t> ddDuration;  // seconds; for how long
    // Tags: maps to VXTagSequence, each under its mutex.
    VXMap* tagSequenceMap;
    VXMap* btTagMap;  // by BT id in decimal
    apr_thread_mutex_t* tagSequenceMutex;
    apr_thread_mutex_t* btTagMutex;
    // Monitor.
    VXAggregateArray<VXBTMonitorDataCounters> aggDataArr;  // slot 0: overall; auto-sensor thread only
    VXAggregateArray<VXBTMonitorDataCounters> aggTagArr;   // by BT id: flowpaths with tags; tagMutex
    std::atomic<std::int32_t> isBTMonitorOn;
    std::int32_t maxBTCount, btMonitorErrorLevel, doNotDiscardFP;  // vx_word_get/set
    std::int32_t currentReportingCount;
    char vectorPrefix[1024], vectorPrefixID[64];  // made by the control thread at Start
    apr_thread_mutex_t* monitorMutex;             // ResetMonitorData
    std::uint8_t settingsMade;                    // defaults are in place
};

}  // namespace vx
