// Hash maps: APR hash tables with a pool and a mutex of their own.
//
// A map copies neither key nor value: both belong to the caller and must outlive the entry. Keys are C
// strings; the uint16 family takes 16-bit keys (the caller's storage too).
//
// Errors    A null map does nothing and finds nothing. create_hashmap() answers null without memory.
// Threads   modify_* takes the map's mutex; search_* takes none: where another thread may write, the
//           caller holds the lock that its unit names.
#pragma once

#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <cstdint>

namespace vx {

struct VXMap {
    apr_pool_t* pool;
    apr_thread_mutex_t* mutex;  // nested
    apr_hash_t* hash;
};

// A new map whose pool is a sub-pool of `parent` (null: a pool of its own).
VXMap* create_hashmap(apr_pool_t* parent);
// Destroys the map with its pool; values are not freed.
void destroy_hashmap(VXMap* map);
// Stores, replaces (the stored key becomes the new pointer) or, with a null value, removes.
void modify_hashmap(const char* key, void* value, VXMap* map);
// The same with a key of `length` bytes that need not be terminated.
void* search_hashmap_len(const char* key, std::int64_t length, const VXMap* map);
void* search_hashmap(const char* key, const VXMap* map);
void iterate_hashtable_and_free_hashmap(VXMap* map);  // removes every entry; values are not freed
void modify_uint16_hashmap(const std::uint16_t* key, void* value, VXMap* map);
void* search_uint16_hashmap(const std::uint16_t* key, const VXMap* map);
unsigned vxlb_map_count(const VXMap* map);
// Calls visit(key, value, argument) for each entry under the map's mutex; false from visit ends the walk.
void vxlb_map_each(VXMap* map, bool (*visit)(const char* key, void* value, void* argument), void* argument);

}  // namespace vx
