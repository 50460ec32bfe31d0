// Exceptions of an instance: what is captured of them, and the names that ids stand for.
//
// Guards    A table: its mutex. The filter: the decode lock, swapped whole. Settings: shared words, written
//           by the control thread.
// Lifetime  As the instance: rows are never freed, ids never change; maxExceptionRows bounds each table.
#pragma once

#include <apr_thread_mutex.h>

#include <atomic>
#include <cstdint>

namespace vx {

struct VXMap;

// The tables, in the order of their metadata records (32 to 36).
enum class ExceptionName : std::uint8_t { kClass, kThrowingClass, kThrowingMethod, kMessage, kCause, kCount };
inline constexpr int kExceptionTables = static_cast<int>(ExceptionName::kCount);

// A name and what stands for it in 38 records. The name's copy stands behind the structure.
struct exceptionProperties {
    const char* name;           // the map's key
    exceptionProperties* next;  // in the order of their making
    std::int32_t id;
    ExceptionName kind;
    std::atomic<std::uint8_t> told;  // its metadata record is out
};

struct VXExceptionTable_t {
    apr_thread_mutex_t* mutex;
    VXMap* map;  // made with the first name
    exceptionProperties* first;
    exceptionProperties* last;
    std::int32_t count;          // rows; ids run from 1 to it
    std::uint8_t ceilingTraced;  // the full table was traced in this run
};

struct VXExceptionFilter;  // the class names that are ignored

struct VXExceptionState_t {
    VXExceptionTable_t tables[kExceptionTables];
    VXExceptionFilter* filter;                          // null: filtering is off
    std::atomic<std::int32_t> exceptionCaptureMode{1};  // 0 off, 1 and 2 on
    std::atomic<std::int32_t> stackTraceCaptureMode{1};
    std::atomic<std::int32_t> exceptionType{1};          // for the agents: 0, 1 or 3
    std::atomic<std::int32_t> stackTraceMaxDepth{9999};  // for the agents: frames
    std::atomic<std::int32_t> exceptionCauseCaptureMode{1};
    std::atomic<std::int32_t> backendErrorDetectionMode{0};
};

}  // namespace vx
