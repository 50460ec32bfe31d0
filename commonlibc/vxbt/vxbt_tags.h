// Tags of rules: the last field of a rule line.
//
//     key%20type%20field&key%20type%20field        type 0: a constant, else resolved when it is needed
//
// Tags of a pattern rule stand in the list of its BT id, those of the global rule in a list of their own. A
// list keeps the order of the text.
//
// Limits    Keys and constants of 254 characters, 1,024 tags in a field, kMaxTags in all lists.
// Errors    An entry without type or field, or with a key of the global list, is passed over.
// Threads   The thread that takes configuration; lists in force are only read.
#pragma once

#include "commonlibc/context/VXRuleSet.h"

namespace vx {

inline constexpr std::int32_t kMaxTags = 65536;

// All functions work on the lists of a build; `kept` are those in force, which share what was not replaced.
// False: no memory.
bool parse_tags(VXBTTags& tags, const VXBTTags* kept, char* text, std::int32_t id);
// Empties the list of an id before its tags are read anew. No effect where the id has none.
bool clearTagsOfBt(VXBTTags& tags, const VXBTTags* kept, std::int32_t id);
bool parse_global_tags(VXBTTags& tags, const VXBTTags* kept, char* text);
void clearGlobalTags(VXBTTags& tags, const VXBTTags* kept);
// Puts an entry at the end of the list of an id; the array of lists grows until it holds it.
bool insert_tag_per_bt(VXBTTags& tags, const VXBTTags* kept, std::int32_t id, BTTagArray* entry);
bool TagExistInGlobalList(const VXBTTags& tags, const char* key);
// True when the BT of an id, or all of them, have a tag of that kind (its type). A null set has none.
bool vxHasTagOfKind(const VXBTRuleSet* set, std::int32_t id, std::int32_t kind);
// Frees the lists that are not those of `kept` (may be null).
void vxFreeTags(VXBTTags& tags, const VXBTTags* kept);

}  // namespace vx
