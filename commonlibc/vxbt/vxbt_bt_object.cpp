#include "commonlibc/vxbt/vxbt_bt_object.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/vxbt/vxbt_thresholds.h"
#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::size_t kRecordMax = 1023;
constexpr std::int32_t kUndeclaredId = -1;
constexpr std::int64_t kUsPerSecond = 1000000;

BTObject* findByName(const char* name, const VXMap* map) {
    const std::size_t length = strnlen(name, kBtNameSize - 1);
    return static_cast<BTObject*>(search_hashmap_len(name, static_cast<std::int64_t>(length), map));
}

// A name that there was no room for is told with the next transaction.
void announce(BTObject& object, std::int32_t id) {
    if (!dumpBtMetaData(object.btName, id)) object.metaDataDumped.store(0, std::memory_order_relaxed);
}

void announceOnce(BTObject& object) {
    if (object.metaDataDumped.load(std::memory_order_relaxed)) return;
    if (object.metaDataDumped.exchange(1, std::memory_order_relaxed)) return;
    announce(object, object.btId.load(std::memory_order_relaxed));
}

// While diagnostics are on, they are armed on each BT that a transaction meets.
void armDiagnostics(const VXBTState_t& bt, BTObject& object) {
    if (bt.ddState.load(std::memory_order_relaxed) != 1) return;
    const std::int64_t start = vxlb_now_us() / kUsPerSecond;
    const std::int64_t duration = bt.ddDuration.load(std::memory_order_relaxed);
    object.ddStartTime.store(start, std::memory_order_relaxed);
    object.ddDuration.store(duration, std::memory_order_relaxed);
    object.ddEndTime.store(vxSum(start, duration), std::memory_order_relaxed);
    object.ddActive.store(1, std::memory_order_relaxed);
}

// The id of a new BT: ids that a rule has given already are stepped over. "Others" at the ceiling.
std::int32_t takeBtId(VXBTState_t& bt) {
    const std::int32_t ceiling = std::min(vx_word_get(bt.max_bt_count), kAggCapacity - 1);
    std::int32_t candidate = bt.total_bt_count;
    const VXBTMonitorDataCounters* slot = nullptr;
    do {
        slot = ++candidate <= ceiling ? vxAggSlot(bt.aggDataArr, candidate) : nullptr;
    } while (slot && slot->btObj.load(std::memory_order_relaxed));

    if (candidate > ceiling) {
        VX_TRACE(3, kBtMon, kInfo, "max_bt_count '%d' reached, assiging id '%d' to Others", ceiling,
                 candidate);
        return kBtIdOthers;
    }
    bt.total_bt_count = candidate;
    return candidate;
}

BTObject* addToManagerMap(VXBTState_t& bt, const char* name, std::int32_t id) {
    BTObject* object = make_new_bt_obj(name, id, bt.allSlowThreshold.load(std::memory_order_relaxed),
                                       bt.allVerySlowThreshold.load(std::memory_order_relaxed));
    if (!object) return nullptr;
    if (findByName(name, bt.configMap)) applyOwnThresholds(bt, *object);
    insert_in_hasmap(name, object, bt.managerMap);
    VX_TRACE(2, kBtMon, kInfo, "Adding BT in manager map, name = %s, id = %d", object->btName, id);
    announceOnce(*object);
    return object;
}

// A name met for the first time. btMapMutex held.
BTObject* createBt(VXBTState_t& bt, const char* name, std::int32_t id) {
    BTObject* declared = find_bt_obj_in_config_map(name, kUndeclaredId, bt.allSlowThreshold.load(),
                                                   bt.allVerySlowThreshold.load(), -1, -1);
    if (!declared) return nullptr;
    BTObject* object = declared;
    if (!declared->metaDataDumped.load(std::memory_order_relaxed)) {
        declared->btId.store(id, std::memory_order_relaxed);
        object = addToManagerMap(bt, name, id);
        if (findByName(name, bt.configMap) != declared) VXLB_FREE(declared, "BTObject", -1);
    }
    checkAndIncrementAggrBTDataArray(object);
    return object;
}

bool isConnected(const vxApplication& app) {
    return app.Server.instrumentationStarted.load(std::memory_order_relaxed) == 1 &&
           app.data.data_thread_running.load(std::memory_order_relaxed) == 1;
}

// A rule's BT changes its id, or appears, while the collector listens: it has to learn the name again.
void announceDeclared(const vxApplication& app, BTObject& object, std::int32_t id) {
    if (app.bt.applicableRule.load(std::memory_order_relaxed) != kPatternRule) return;
    if (app.Server.runtimeChange.load(std::memory_order_relaxed)) return;
    object.metaDataDumped.store(1, std::memory_order_relaxed);
    announce(object, id);
}

void updateDeclared(vxApplication& app, BTObject& object, std::int32_t id, std::int32_t slow,
                    std::int32_t verySlow) {
    if (!object.ownThresholds.load(std::memory_order_relaxed)) {
        object.slowThreshold.store(slow, std::memory_order_relaxed);
        object.verySlowThreshold.store(verySlow, std::memory_order_relaxed);
        app.bt.allSlowThreshold.store(slow, std::memory_order_relaxed);
        app.bt.allVerySlowThreshold.store(verySlow, std::memory_order_relaxed);
    }
    if (id >= kBtIdOthers && id != object.btId.load(std::memory_order_relaxed))
        announceDeclared(app, object, id);
    VX_TRACE(2, kBtMon, kInfo, "Value update for category slw is:%d,very slw:%d", slow, verySlow);
}

template <class Visit>
void forEachBt(VXMap* map, Visit visit) {
    vxlb_map_each(
        map,
        [](const char*, void* object, void* argument) {
            (*static_cast<Visit*>(argument))(*static_cast<BTObject*>(object));
            return true;
        },
        &visit);
}

}  // namespace

BTObject* updateBTObject(char* name) {
    if (!name || !*name) return nullptr;
    VXBTState_t& bt = vxCurrent()->bt;
    VXGuard guard(bt.btMapMutex);
    if (!bt.managerMap) return nullptr;
    std::int32_t id = kBtIdOthers;
    BTObject* known = findByName(name, bt.managerMap);
    if (!known && std::strcmp(name, kOthersName) != 0) {
        id = takeBtId(bt);
        if (id == kBtIdOthers) {
            std::memcpy(name, kOthersName, std::strlen(kOthersName) + 1);
            known = findByName(name, bt.managerMap);
        }
    }
    if (!known) return createBt(bt, name, id);
    armDiagnostics(bt, *known);
    guard.unlock();
    announceOnce(*known);
    return known;
}

BTObject* make_new_bt_obj(const char* name, std::int32_t id, std::int32_t slow, std::int32_t verySlow) {
    void* block = VXLB_MALLOC_AND_MEMSET(sizeof(BTObject), "BTObject", -1);
    if (!block) return nullptr;
    auto* object = new (block) BTObject{};
    vxlb_copy_text(object->btName, sizeof(object->btName), name);
    if (id > 0) object->btId.store(id, std::memory_order_relaxed);
    object->slowThreshold.store(slow, std::memory_order_relaxed);
    object->verySlowThreshold.store(verySlow, std::memory_order_relaxed);
    object->selfId = object->parentId = -1;
    return object;
}

BTObject* find_bt_obj_declared(const char* name) {
    return findByName(name, vxCurrent()->bt.configMap);
}

BTObject* find_bt_obj_in_config_map(const char* name, std::int32_t id, std::int32_t slow,
                                    std::int32_t verySlow, std::int32_t selfId, std::int32_t parentId) {
    BTObject* object = find_bt_obj_declared(name);
    const bool isNew = object == nullptr;
    if (isNew) object = make_new_bt_obj(name, id, slow, verySlow);
    if (object) declareBt(object, isNew, {id, slow, verySlow, selfId, parentId});
    return object;
}

void declareBt(BTObject* object, bool isNew, const VXBtTerms& terms) {
    vxApplication& app = *vxCurrent();
    VXBTState_t& bt = app.bt;
    const std::int32_t id = terms.id;
    if (isNew) {
        if (id >= kBtIdOthers && isConnected(app)) announceDeclared(app, *object, id);
        if (id >= 0) insert_in_hasmap(object->btName, object, bt.configMap);
    } else if (isConnected(app)) {
        updateDeclared(app, *object, id, terms.slow, terms.verySlow);
    }
    if (id >= 0) applyOwnThresholds(bt, *object);
    if (id < kBtIdOthers) return;

    object->btId.store(id, std::memory_order_relaxed);
    VX_TRACE(2, kBtMon, kInfo, "Insert in map with updated btid:%d ", id);
    if (isNew && id > kBtIdOthers) {
        ++bt.total_bt_count;
        VX_TRACE(2, kBtMon, kInfo, "Enter in config map of config value:%d", id);
    }
    object->selfId = terms.selfId;
    object->parentId = terms.parentId;
    insert_in_hasmap(object->btName, object, bt.managerMap);
}

BTObject* find_bt_obj_in_manager_map(const char* name) {
    return findByName(name, vxCurrent()->bt.managerMap);
}

void insert_in_hasmap(const char*, BTObject* object, VXMap* map) {
    VXBTState_t& bt = vxCurrent()->bt;
    modify_hashmap(object->btName, object, map);  // the map keeps the key: the object's own name
    const bool listed = object->nextManaged || bt.lastManaged == object;
    if (map != bt.managerMap || listed) return;
    (bt.lastManaged ? bt.lastManaged->nextManaged : bt.firstManaged) = object;
    bt.lastManaged = object;
}

bool dumpBtMetaData(const char* name, std::int32_t id) {
    char record[kRecordMax];
    VXWriter out(record, sizeof(record));
    out.text("7,").number(id).put(',').recordText(name).endLine();
    return vxOfferRecord(record, static_cast<std::int64_t>(out.length()));
}

void reset_BTObjMap(std::uint32_t staleValue) {
    forEachBt(vxCurrent()->bt.managerMap, [staleValue](BTObject& object) {
        object.isStale.store(staleValue, std::memory_order_relaxed);
        object.metaDataDumped.store(0, std::memory_order_relaxed);
    });
}

void clearBtMetaDataFlags() {
    VXBTState_t& bt = vxCurrent()->bt;
    VXGuard guard(bt.btMapMutex);
    forEachBt(bt.managerMap,
              [](BTObject& object) { object.metaDataDumped.store(0, std::memory_order_relaxed); });
}

void parseMaxBTCount(const char* value) {
    VXBTState_t& bt = vxCurrent()->bt;
    const std::int32_t count = vxbt_int(value);
    if (count < 1) {
        VX_TRACE(
            1, kBtMon, kError,
            "parseMaxBTCount method - Invalid MaxBTCount specified by User. Current Value  : %d Specified "
            "BTMaxCount value %s",
            vx_word_get(bt.maxBTCount), value ? value : "(null)");
        return;
    }
    setMaxBTCount(count);
    VX_TRACE(1, kBtMon, kInfo, "parseMaxBTCount method - maxBTCount after updated - value  : %d", count);
}

void setMaxBTCount(std::int32_t value) {
    VXBTState_t& bt = vxCurrent()->bt;
    vx_word_set(bt.maxBTCount, value);
    vx_word_set(bt.max_bt_count, value);
}

}  // namespace vx
