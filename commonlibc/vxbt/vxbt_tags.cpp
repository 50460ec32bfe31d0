#include "commonlibc/vxbt/vxbt_tags.h"

#include <algorithm>
#include <cstring>

#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr const char* kEntryName = "BTTagArray";
constexpr std::int32_t kStartSlots = 128;
constexpr std::size_t kTagTextMax = 254;  // of a key, and of a resolved value
constexpr int kMaxEntries = 1024, kParts = 3;
constexpr int kConstantType = 0;

void freeList(VXBTTags& tags, BTTagArray* list) {
    while (list) {
        BTTagArray* next = list->next;
        VXLB_FREE(list, kEntryName, -1);
        --tags.count;
        list = next;
    }
}

BTTagArray* listOf(const VXBTTags* tags, std::int32_t id) {
    return tags && id < tags->size ? tags->perBt[id] : nullptr;
}

bool holdsKey(const BTTagArray* list, const char* key) {
    for (; list; list = list->next)
        if (std::strcmp(list->key, key) == 0) return true;
    return false;
}

void append(BTTagArray** list, BTTagArray* entry) {
    while (*list) list = &(*list)->next;
    *list = entry;
}

// One block holds the entry and, behind it, its texts.
BTTagArray* makeEntry(VXBTTags& tags, const char* key, std::int32_t type, const char* field) {
    const std::size_t keyLength = strnlen(key, kTagTextMax);
    const std::size_t fieldLength = std::strlen(field);
    const std::size_t valueLength = std::min(fieldLength, kTagTextMax);
    const std::size_t size = sizeof(BTTagArray) + keyLength + fieldLength + valueLength + 3;
    auto* entry = static_cast<BTTagArray*>(VXLB_MALLOC_AND_MEMSET(size, kEntryName, -1));
    if (!entry) return nullptr;
    entry->key = reinterpret_cast<char*>(entry + 1);
    entry->tagField = entry->key + keyLength + 1;
    std::memcpy(entry->key, key, keyLength);
    std::memcpy(entry->tagField, field, fieldLength);
    entry->type = type;
    if (type == kConstantType) {
        entry->resolvedValue = entry->tagField + fieldLength + 1;
        std::memcpy(entry->resolvedValue, field, valueLength);
    }
    ++tags.count;
    return entry;
}

// Makes the array of lists the build's own, with room for `id`.
bool ownArray(VXBTTags& tags, const VXBTTags* kept, std::int32_t id) {
    const bool shared = kept && tags.perBt == kept->perBt;
    if (tags.perBt && !shared && id < tags.size) return true;
    std::int32_t size = std::max(tags.size, kStartSlots);
    while (size <= id) size *= 2;
    auto** array = static_cast<BTTagArray**>(
        VXLB_MALLOC_AND_MEMSET(static_cast<std::size_t>(size) * sizeof(void*), kEntryName, -1));
    if (!array) return false;
    if (tags.perBt) std::copy_n(tags.perBt, tags.size, array);
    if (!shared) VXLB_FREE(tags.perBt, kEntryName, -1);
    tags.perBt = array;
    tags.size = size;
    return true;
}

struct TagText {
    const char* key;
    std::int32_t type;
    const char* field;
};

// Calls take(tag) for each complete entry of a field whose key the global list does not hold.
template <class Take>
bool eachTag(VXBTTags& tags, char* text, Take take) {
    char* entries[kMaxEntries];
    const int count = vxlb_get_tokens_with_multi_delimiter(text, entries, "&", kMaxEntries);
    for (int i = 0; i < count; ++i) {
        char* parts[kParts];
        const int found = vxlb_split_keep_empty(entries[i], parts, "%20", kParts);
        if (found < kParts || !*parts[0] || !*parts[1] || !*parts[2]) continue;
        if (TagExistInGlobalList(tags, parts[0])) continue;
        if (tags.count >= kMaxTags) {
            VX_TRACE(1, kControlThread, kWarning, "Tag %s is one too many, passed over", parts[0]);
            continue;
        }
        if (!take(TagText{parts[0], vxbt_int(parts[1]), parts[2]})) return false;
    }
    return true;
}

bool existsInPatternList(const VXBTTags& tags, const char* key) {
    for (std::int32_t id = 0; id < tags.size; ++id) {
        if (!holdsKey(tags.perBt[id], key)) continue;
        VX_TRACE(1, kControlThread, kWarning, "Tag %s exists in the patten list for btid %d.", key, id);
        return true;
    }
    return false;
}

}  // namespace

bool TagExistInGlobalList(const VXBTTags& tags, const char* key) {
    return holdsKey(tags.global, key);
}

bool insert_tag_per_bt(VXBTTags& tags, const VXBTTags* kept, std::int32_t id, BTTagArray* entry) {
    if (!ownArray(tags, kept, id)) return false;
    append(&tags.perBt[id], entry);
    return true;
}

bool clearTagsOfBt(VXBTTags& tags, const VXBTTags* kept, std::int32_t id) {
    BTTagArray* list = listOf(&tags, id);
    if (!list) return true;
    if (!ownArray(tags, kept, id)) return false;
    tags.perBt[id] = nullptr;
    if (list != listOf(kept, id)) {
        freeList(tags, list);
    } else {
        for (; list; list = list->next) --tags.count;
    }
    return true;
}

bool parse_tags(VXBTTags& tags, const VXBTTags* kept, char* text, std::int32_t id) {
    return eachTag(tags, text, [&](const TagText& tag) {
        BTTagArray* entry = makeEntry(tags, tag.key, tag.type, tag.field);
        if (entry && insert_tag_per_bt(tags, kept, id, entry)) return true;
        freeList(tags, entry);
        return false;
    });
}

void clearGlobalTags(VXBTTags& tags, const VXBTTags* kept) {
    BTTagArray* list = tags.global;
    tags.global = nullptr;
    if (!kept || list != kept->global) {
        freeList(tags, list);
    } else {
        for (; list; list = list->next) --tags.count;
    }
}

bool parse_global_tags(VXBTTags& tags, const VXBTTags* kept, char* text) {
    if (kept && tags.global && tags.global == kept->global) clearGlobalTags(tags, kept);
    return eachTag(tags, text, [&](const TagText& tag) {
        if (existsInPatternList(tags, tag.key)) return true;
        BTTagArray* entry = makeEntry(tags, tag.key, tag.type, tag.field);
        if (entry) append(&tags.global, entry);
        return entry != nullptr;
    });
}

bool vxHasTagOfKind(const VXBTRuleSet* set, std::int32_t id, std::int32_t kind) {
    if (!set) return false;
    for (const BTTagArray* list : {listOf(&set->tags, id), static_cast<BTTagArray*>(set->tags.global)})
        for (; list; list = list->next)
            if (list->type == kind) return true;
    return false;
}

void vxFreeTags(VXBTTags& tags, const VXBTTags* kept) {
    clearGlobalTags(tags, kept);
    if (!kept || kept->perBt != tags.perBt) {
        for (std::int32_t id = 0; id < tags.size; ++id)
            if (tags.perBt[id] != listOf(kept, id)) freeList(tags, tags.perBt[id]);
        VXLB_FREE(tags.perBt, kEntryName, -1);
    }
    tags = {};
}

}  // namespace vx
