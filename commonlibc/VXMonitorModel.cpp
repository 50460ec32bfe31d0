#include "commonlibc/VXMonitorModel.h"

#include <cstdio>
#include <cstring>

#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr const char* kTagSequenceText = "tag sequence";

bool collectTagSequence(const char*, void* value, void* list) {
    auto* sequence = static_cast<VXTagSequence*>(value);
    auto** head = static_cast<VXTagSequence**>(list);
    sequence->next = *head;
    *head = sequence;
    return true;
}

// Clearing a map still compares keys, and the keys lie in the values: these are freed behind it.
void clearTagMap(VXMap* map, apr_thread_mutex_t* mutex) {
    VXTagSequence* head = nullptr;
    VXGuard guard(mutex);
    vxlb_map_each(map, collectTagSequence, &head);
    iterate_hashtable_and_free_hashmap(map);
    while (head) {
        VXTagSequence* next = head->next;
        VXLB_FREE(head, kTagSequenceText, head->sequence);
        head = next;
    }
}

}  // namespace

std::int64_t vxGrownSize(std::int64_t currentSize, std::int64_t index) {
    if (index < currentSize) return currentSize;
    const std::int64_t step = 2 * currentSize + 1;
    return (index / step + 1) * step;
}

apr_pool_t* vxOwnPool(apr_pool_t*& pool, apr_pool_t* parent) {
    if (!pool) apr_pool_create(&pool, parent);
    return pool;
}

void vxMakeVectorPrefix(const vxApplication& app, char* prefix, std::size_t prefixSize, char* prefixId,
                        std::size_t idSize) {
    const VXBCISetting_t& bci = app.VXBCISetting;
    const int separator = vx_word_get(app.VXSys.vxVectorSeparator);
    std::snprintf(prefix, prefixSize, "%s%c%s%c%s%c", bci.encodedTierName.getOr(""), separator,
                  bci.encodedServerName.getOr(""), separator, bci.encodedAppName.getOr(""), separator);
    std::snprintf(prefixId, idSize, "%d|%d|", vx_word_get(bci.tierID), vx_word_get(bci.appID));
}

VXTagSequence* vxTagSequence(VXMap* map, const char* key) {
    if (!map) return nullptr;
    if (auto* known = static_cast<VXTagSequence*>(search_hashmap(key, map))) return known;

    const std::size_t keySize = std::strlen(key) + 1;
    char* block = static_cast<char*>(VXLB_MALLOC(sizeof(VXTagSequence) + keySize, kTagSequenceText, -1));
    if (!block) return nullptr;
    char* keyCopy = block + sizeof(VXTagSequence);
    std::memcpy(keyCopy, key, keySize);
    auto* sequence =
        new (block) VXTagSequence{static_cast<std::int32_t>(vxlb_map_count(map)), 0, nullptr, keyCopy};
    modify_hashmap(keyCopy, sequence, map);
    return sequence;
}

void Free_Tag_Map() {
    VXBTState_t& bt = vxCurrent()->bt;
    clearTagMap(bt.tagSequenceMap, bt.tagSequenceMutex);
}

void Free_BT_Tag_Map() {
    VXBTState_t& bt = vxCurrent()->bt;
    clearTagMap(bt.btTagMap, bt.btTagMutex);
}

void freeTagStructures() {
    Free_Tag_Map();
    Free_BT_Tag_Map();
}

}  // namespace vx
