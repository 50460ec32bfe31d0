#include "commonlibc/vxlb_hashMapMethod.h"

#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hash.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr int kStartSlots = 16;  // what an APR table begins with
constexpr apr_ssize_t kUint16Length = sizeof(std::uint16_t);

// APR keeps the first key pointer when an entry is replaced; that key's owner may be gone, so the entry is
// made anew (APR reuses its memory).
void setEntry(const void* key, apr_ssize_t length, void* value, VXMap& map) {
    const VXGuard guard(map.mutex);
    apr_hash_set(map.hash, key, length, nullptr);
    if (value) apr_hash_set(map.hash, key, length, value);
}

}  // namespace

VXMap* create_hashmap(apr_pool_t* parent) {
    VX_TRACE(4, kControlThread, kInfo, "Method called,  num of slots = %d\n", kStartSlots);
    vxlb_hash_init();
    VXPool pool(parent);
    if (!pool.get()) return nullptr;
    auto* map = static_cast<VXMap*>(apr_pcalloc(pool.get(), sizeof(VXMap)));
    if (!map || !vxlb_make_mutex(map->mutex, pool.get())) return nullptr;
    map->hash = apr_hash_make_custom(pool.get(), vxlb_hash);
    if (!map->hash) return nullptr;
    map->pool = pool.release();
    return map;
}

void destroy_hashmap(VXMap* map) {
    if (map) apr_pool_destroy(map->pool);
}

void modify_hashmap(const char* key, void* value, VXMap* map) {
    if (map && key) setEntry(key, APR_HASH_KEY_STRING, value, *map);
}

void* search_hashmap_len(const char* key, std::int64_t length, const VXMap* map) {
    return map && key && length >= 0 ? apr_hash_get(map->hash, key, static_cast<apr_ssize_t>(length))
                                     : nullptr;
}

void* search_hashmap(const char* key, const VXMap* map) {
    return map && key ? apr_hash_get(map->hash, key, APR_HASH_KEY_STRING) : nullptr;
}

void iterate_hashtable_and_free_hashmap(VXMap* map) {
    if (!map) return;
    const VXGuard guard(map->mutex);
    apr_hash_clear(map->hash);
}

void modify_uint16_hashmap(const std::uint16_t* key, void* value, VXMap* map) {
    if (map && key) setEntry(key, kUint16Length, value, *map);
}

void* search_uint16_hashmap(const std::uint16_t* key, const VXMap* map) {
    return map && key ? apr_hash_get(map->hash, key, kUint16Length) : nullptr;
}

unsigned vxlb_map_count(const VXMap* map) {
    if (!map) return 0;
    const VXGuard guard(map->mutex);
    return apr_hash_count(map->hash);
}

void vxlb_map_each(VXMap* map, bool (*visit)(const char* key, void* value, void* argument), void* argument) {
    if (!map) return;
    const VXGuard guard(map->mutex);
    for (apr_hash_index_t* at = apr_hash_first(nullptr, map->hash); at; at = apr_hash_next(at)) {
        const auto* key = static_cast<const char*>(apr_hash_this_key(at));
        if (!visit(key, apr_hash_this_val(at), argument)) return;
    }
}

}  // namespace vx
