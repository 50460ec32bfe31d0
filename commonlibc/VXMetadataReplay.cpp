#include "commonlibc/VXMetadataReplay.h"

#include <cstring>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXMethodManager.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

// Addresses noted under a table's lock.
template <class T>
class Noted {
public:
    explicit Noted(std::size_t room)
        : items_(room ? static_cast<T**>(VXLB_MALLOC(room * sizeof(T*), "metadata replay", -1)) : nullptr),
          room_(items_ ? room : 0) {}
    ~Noted() { VXLB_FREE(items_, "metadata replay", -1); }
    Noted(const Noted&) = delete;
    Noted& operator=(const Noted&) = delete;

    // False when there is no more room.
    bool add(T* item) {
        if (count_ < room_) items_[count_++] = item;
        return count_ < room_;
    }
    T** begin() const { return items_; }
    T** end() const { return items_ + count_; }

private:
    T** items_;
    std::size_t room_;
    std::size_t count_ = 0;
};

// A record may be filed under a second key: it counts under its own name only.
bool noteMethod(const char* key, void* value, void* noted) {
    auto* method = static_cast<mPP*>(value);
    return key != method->methodName || static_cast<Noted<mPP>*>(noted)->add(method);
}

bool noteBt(const char*, void* value, void* noted) {
    return static_cast<Noted<BTObject>*>(noted)->add(static_cast<BTObject*>(value));
}

struct ReplayRow {
    int recordNumber;
    void (*collect)(int first, int second);
};
// In the order of the wire: 5, 6, 7, 22, 26, 32 to 36, 112. A number without a row has no content.
constexpr ReplayRow kReplayRows[] = {
    {5, collectAndSendOnlyCached5Records},
    {7, collectAndSendOnlyCached7Records},
};

}  // namespace

void collectAndSendOnlyCached5Records(int, int) {
    VXMethodState_t& state = vxCurrent()->method;
    VXGuard lock(state.mapMutex);
    const methodHashMapNode_t* table = state.methodHashMapNode.load(std::memory_order_acquire);
    if (!table) return;
    Noted<mPP> methods(vxlb_map_count(table->map));
    vxlb_map_each(table->map, noteMethod, &methods);
    lock.unlock();

    for (const mPP* method : methods)
        if (method->usedFlag.load(std::memory_order_relaxed) == 1) dumpMetataFor5Record(method);
}

void collectAndSendOnlyCached7Records(int, int) {
    VXBTState_t& bt = vxCurrent()->bt;
    VXGuard lock(bt.btMapMutex);
    Noted<BTObject> objects(vxlb_map_count(bt.managerMap));
    vxlb_map_each(bt.managerMap, noteBt, &objects);
    lock.unlock();

    for (BTObject* object : objects) {
        const std::int32_t id = object->btId.load(std::memory_order_relaxed);
        if (id < kBtIdOthers || object->isStale.load(std::memory_order_relaxed)) continue;
        object->metaDataDumped.store(1, std::memory_order_relaxed);
        dumpBtMetaData(object->btName, id);
    }
}

void dump11Record(int recordNumber) {
    char record[32];
    VXWriter out(record, sizeof(record));
    out.text("11,").number(recordNumber).endLine();
    dumpData(record, static_cast<std::int64_t>(out.length()));
}

void replayMetaData() {
    for (const ReplayRow& row : kReplayRows) row.collect(0, 1);
}

}  // namespace vx
