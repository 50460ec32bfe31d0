// What a transaction's neighbours are called: calling tiers and header names.
//
// Guards    Callers: the decode lock. Headers: `headerMutex`.
// Lifetime  As the instance; both tables have a ceiling.
#pragma once

#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <cstdint>

namespace vx {

struct VXMap;

// A header's name and what stands for it in records.
struct VXHttpHeader {
    char* name;  // the map's key
    std::int32_t id;
    std::uint8_t valueAsId;
};

struct VXTierState_t {
    VXMap* callers;  // by the chain's key; made with the first caller
    std::uint32_t callerCount;
    std::uint8_t callersTraced;  // the full table was traced in this run
};

struct VXHttpState_t {
    apr_thread_mutex_t* headerMutex;
    VXMap* headers;  // VXHttpHeader by name; null: no header has been asked for
    std::int32_t nextHeaderId;
    std::uint8_t headersTraced;
};

}  // namespace vx
