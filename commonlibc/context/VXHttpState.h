// HTTP headers of an instance: what is captured, the names and their ids, and what is kept for the agents.
//
// Guards    headerMutex: the table of names. Decode lock: the lists of names (replaced under it, read under
//           it) and valueAsId. Numbers of the settings and switches: vx_word_get/set.
// Lifetime  As the instance. Rows stay; a list lives until it is replaced.
#pragma once

#include <apr_thread_mutex.h>

#include <atomic>
#include <cstdint>

#include "commonlibc/vxlb_text.h"

namespace vx {

struct VXMap;

inline constexpr std::uint8_t kHeaderUnused = 0, kHeaderTold = 1, kHeaderUntold = 2;

// A header's name, or a value that is written as an id, and what stands for it in records.
struct VXHttpHeader {
    char* name;  // the map's key, in the map's pool
    std::int32_t id;
    std::uint8_t valueAsId;          // its values get ids, too
    std::atomic<std::uint8_t> told;  // kHeader...: whether the collector knows the id
    VXHttpHeader* next;              // the row made after this one
};

// Names as a setting gives them, sorted without regard to case; one heap block. Zero-filled is empty.
struct VXHttpNameList {
    char** names;
    std::int32_t count;
};

// What is captured of requests, or of responses.
struct VXHttpReqRespCaptureSettings_t {
    std::int32_t captureLevel;        // 3 writes the record, below 3 none
    std::uint8_t hdrMode;             // 0 every header, 1 those of the list
    std::uint8_t hdrValueLengthMode;  // not 0: a value is cut at hdrValueMaxLength
    std::int32_t hdrValueMaxLength;   // bytes
    VXHttpNameList list;
};

// Which headers may carry a trace context; 1 is on.
struct VXTraceSettings_t {
    std::int32_t traceparent, tracestate, b3;
};

struct VXHttpState_t {
    apr_thread_mutex_t* headerMutex;
    VXMap* headers;  // VXHttpHeader by name; null: no header has been asked for
    VXHttpHeader *firstHeader, *lastHeader;
    std::int32_t nextHeaderId;
    std::uint8_t headersTraced;
    VXHttpReqRespCaptureSettings_t request, response;
    VXHttpNameList valuesAsId;  // names of the headers whose values get ids
    VXTraceSettings_t trace;
};

// Session cookies as the agents are to set them; the proxy only keeps them.
struct VXSessionState_t {
    VXSharedText vxCookieName, cookieDomainName;
    std::int32_t headerInResponse, mpos;  // through vx_word_get/set
};

}  // namespace vx
