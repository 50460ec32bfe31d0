#include "commonlibc/VXMetadataReplay.h"

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXMethodManager.h"
#include "commonlibc/exception/VXExceptionNames.h"
#include "commonlibc/http/VXHttpHeaderMap.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr int kPortion = 256;  // records looked at per turn of a table's lock
constexpr std::int64_t kPauseUs = 50;

// What is to be told. Methods, BTs and exceptions' names are never freed and never change.
template <class T>
struct Noted {
    T* object;
    std::int64_t id;
};

// The id of a method in use, 0 of any other.
std::int64_t idToTell(const mPP& method) {
    if (method.usedFlag.load(std::memory_order_relaxed) == 0) return 0;
    return method.methodId.load(std::memory_order_relaxed);
}

// What there was no room for is told with its next use.
void tell(const Noted<mPP>& noted) {
    const bool told = dumpMetataFor5Record(noted.object->methodName, static_cast<std::uint32_t>(noted.id));
    noted.object->usedFlag.store(told ? kMethodUsed : kMethodUntold, std::memory_order_relaxed);
}

// The id of a BT that the manager map holds and no rule has left behind, 0 of any other; it counts as told.
std::int64_t idToTell(BTObject& object) {
    const std::int32_t id = object.btId.load(std::memory_order_relaxed);
    if (id < kBtIdOthers || object.isStale.load(std::memory_order_relaxed)) return 0;
    if (find_bt_obj_in_manager_map(object.btName) != &object) return 0;
    object.metaDataDumped.store(1, std::memory_order_relaxed);
    return id;
}

void tell(const Noted<BTObject>& noted) {
    if (!dumpBtMetaData(noted.object->btName, static_cast<std::int32_t>(noted.id)))
        noted.object->metaDataDumped.store(0, std::memory_order_relaxed);
}

std::int64_t idToTell(const exceptionProperties& row) {
    return row.id;
}

void tell(const Noted<exceptionProperties>& noted) {
    exceptionProperties& row = *noted.object;
    row.told.store(dumpExceptionMetaRecord(row.kind, row.id, row.name), std::memory_order_relaxed);
}

// The id of a header's name that records have used, 0 of any other.
std::int64_t idToTell(const VXHttpHeader& header) {
    return header.told.load(std::memory_order_relaxed) == kHeaderUnused ? 0 : header.id;
}

void tell(const Noted<VXHttpHeader>& noted) {
    const bool told = dumpHttpHeaderName(noted.object->name, noted.object->id);
    noted.object->told.store(told ? kHeaderTold : kHeaderUntold, std::memory_order_relaxed);
}

// Tells a list of records portion by portion, each noted under the table's lock and written without it. The
// list only grows, and at its end: the place where a portion ended stays good, and what is added meanwhile
// is met there.
template <class T>
void tellAll(apr_thread_mutex_t* mutex, T* const& first, T* T::*next) {
    const T* last = nullptr;
    for (bool more = true; more;) {
        Noted<T> noted[kPortion];
        int count = 0;
        {
            VXGuard lock(mutex);
            T* at = last ? last->*next : first;
            for (int seen = 0; at && seen < kPortion; ++seen, at = at->*next) {
                if (const std::int64_t id = idToTell(*at)) noted[count++] = {at, id};
                last = at;
            }
            more = at != nullptr;
        }
        for (int i = 0; i < count; ++i) tell(noted[i]);
        if (more) vxlb_sleep_us(kPauseUs);  // lets in who waits for the lock
    }
}

}  // namespace

void collectAndSendOnlyCached5Records(int, int) {
    VXMethodState_t& state = vxCurrent()->method;
    tellAll(state.mapMutex, state.firstMethod, &mPP::next);
}

void collectAndSendOnlyCached6Records(int, int) {
    VXHttpState_t& http = vxCurrent()->http;
    tellAll(http.headerMutex, http.firstHeader, &VXHttpHeader::next);
}

void collectAndSendOnlyCached7Records(int, int) {
    VXBTState_t& bt = vxCurrent()->bt;
    tellAll(bt.btMapMutex, bt.firstManaged, &BTObject::nextManaged);
}

void collectAndSendExceptionNames(ExceptionName kind) {
    VXExceptionTable_t& table = vxCurrent()->exceptions.tables[static_cast<int>(kind)];
    tellAll(table.mutex, table.first, &exceptionProperties::next);
}

void dump11Record(int recordNumber) {
    char record[32];
    VXWriter out(record, sizeof(record));
    out.text("11,").number(recordNumber).endLine();
    dumpData(record, static_cast<std::int64_t>(out.length()));
}

void replayMetaData() {
    for (const VXReplayRow& row : kReplayRows) row.collect(0, 1);
}

}  // namespace vx
