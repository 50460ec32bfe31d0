// BT object store: the objects of business transactions, their maps, ids and the 7 record.
//
// The manager map holds the BTs that transactions and rules can reach; the config map those that a rule text
// declared. Both are keyed by the object's own name. A new BT takes the next id whose aggregate slot is free;
// id 1 is always "Others", which takes every name beyond the ceiling max_bt_count.
//
// Limits    A name counts with its first 256 characters.
// Errors    Null where no BT can be had (an empty name, no memory).
// Lifetime  A BTObject* is good while the instance lives.
// Threads   btMapMutex guards both maps and the ids; functions take it unless "held" is said. A published
//           object is read without a lock. All on the current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

inline constexpr std::size_t kBtNameBufferSize = 512;  // what rule execution writes names into
inline constexpr const char* kOthersName = "Others";

// Find or create the BT of this name; null for an empty name or without memory. `name` is a writable
// buffer of at least 7 bytes: at the ceiling "Others" is written over it.
BTObject* updateBTObject(char* name);
BTObject* make_new_bt_obj(const char* name, std::int32_t id, std::int32_t slow, std::int32_t verySlow);
// The BT of a rule text. An id of 1 or more is declared: the object has it and is in both maps. Id 0 is kept
// in the config map alone. A negative id declares nothing: an object made for it is in no map and the
// caller's to free. btMapMutex held.
BTObject* find_bt_obj_in_config_map(const char* name, std::int32_t id, std::int32_t slow,
                                    std::int32_t verySlow, std::int32_t selfId, std::int32_t parentId);
// What a rule says of its BT.
struct VXBtTerms {
    std::int32_t id;
    std::int32_t slow, verySlow;  // for a BT without thresholds of its own, while connected
    std::int32_t selfId, parentId;
};
// The second half of find_bt_obj_in_config_map: gives an object that was found, or made for it (isNew), its
// terms and its places in the maps. btMapMutex held.
void declareBt(BTObject* object, bool isNew, const VXBtTerms& terms);
BTObject* find_bt_obj_declared(const char* name);                       // in the config map; btMapMutex held
BTObject* find_bt_obj_in_manager_map(const char* name);                 // btMapMutex held
void insert_in_hasmap(const char* name, BTObject* object, VXMap* map);  // btMapMutex held
// The 7 record. False when there was no room for it.
[[nodiscard]] bool dumpBtMetaData(const char* name, std::int32_t id);
void reset_BTObjMap(std::uint32_t staleValue);  // btMapMutex held
// Clears metaDataDumped of every BT, isStale untouched (a new data connection learns the names).
void clearBtMetaDataFlags();
void parseMaxBTCount(const char* value);
void setMaxBTCount(std::int32_t value);

}  // namespace vx
