#include "commonlibc/mm/VXExceptionMonitor.h"

#include <apr_strings.h>
#include <strings.h>

#include <cstring>
#include <new>

#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/VXMonitorReport.h"
#include "commonlibc/VXParsingLines.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr const char* kNoText = "NA";
constexpr const char* kOverallName = "OverAll";
constexpr int kExceptionRecord = 63;
constexpr int kPortion = 64;  // lines per turn of the lock
constexpr std::int64_t kPauseUs = 50;

struct ExceptionLine {
    const char *className, *displayName;
};

// How a new slot is made ready; map lock held.
auto slotMaker(vxApplication& app) {
    return [pool = vxOwnPool(app.exceptionMonitor.pool, app.pool)](VXExceptionMonitorDataCounters& slot) {
        initVXExceptionMonitorDataCounters(slot);
        return vxlb_make_mutex(slot.mutex, pool);
    };
}

// The id of a class that the text in force names; 0 for any other.
std::int32_t idOfClass(const VXExceptionMonitorState_t& state, const char* className) {
    VXExceptionMapLock lock;
    const auto* entry = static_cast<const VXExceptionEntry*>(search_hashmap(className, state.map));
    return entry && entry->delivery >= state.delivery ? entry->id : 0;
}

void updatePropertiesOfException(VXExceptionMonitorDataCounters& slot) {
    VXGuard guard(slot.mutex);
    slot.count += 1;
    slot.entryCount += 1;
    slot.isDirty = 1;
}

bool splitLine(char* text, ExceptionLine& line) {
    char* field[3];
    const int count = vxlb_split_keep_empty(text, field, "|", 3);
    if (count < 1 || *field[0] == '\0') return false;
    line = {field[0], field[0]};
    if (count > 1 && *field[1]) {
        line.displayName = field[1];
        return true;
    }
    VX_TRACE(1, kExcpMon, kInfo,
             "Thre is no Display Name present so assigning Class Name [exceptionMethodName = %s] as Display "
             "Name",
             line.className);
    return true;
}

// A new entry of the map, one block of the map's pool; null beyond the ceiling or without memory. Map lock
// held.
VXExceptionEntry* addEntry(VXExceptionMonitorState_t& state, const char* className) {
    if (!state.map || state.entryCount >= VXProxy.ceilings.maxExceptionRows) return nullptr;
    VXExceptionMonitorDataCounters* slot = checkAndIncrementAggrExceptionDataArray(state.entryCount + 1);
    const std::size_t keySize = std::strlen(className) + 1;
    void* block = slot ? apr_palloc(state.map->pool, sizeof(VXExceptionEntry) + keySize) : nullptr;
    if (!block) return nullptr;
    auto* entry = new (block) VXExceptionEntry{};
    char* key = reinterpret_cast<char*>(entry + 1);
    std::memcpy(key, className, keySize);
    entry->className = key;
    entry->id = ++state.entryCount;
    slot->exceptionEntry.store(entry, std::memory_order_release);
    modify_hashmap(entry->className, entry, state.map);
    (state.lastEntry ? state.lastEntry->next : state.firstEntry) = entry;
    state.lastEntry = entry;
    return entry;
}

// Names a class in the delivery that is being read. False when there was no room for it. Map lock held.
bool applyLine(VXExceptionMonitorState_t& state, const ExceptionLine& line) {
    auto* entry = static_cast<VXExceptionEntry*>(search_hashmap(line.className, state.map));
    if (!entry) entry = addEntry(state, line.className);
    if (!entry) return false;
    const char* former = entry->displayName.load(std::memory_order_relaxed);
    if (!former || std::strcmp(former, line.displayName) != 0)
        entry->displayName.store(apr_pstrdup(state.map->pool, line.displayName), std::memory_order_release);
    entry->delivery = state.delivery + 1;
    return true;
}

// Reads the lines of a text into the delivery behind the one in force, so that a class which both name is
// counted all the time; the lock is not held while lines are taken apart and traced. How many found no room.
int applyLines(VXExceptionMonitorState_t& state, char* text) {
    VXTextLines lines(text);
    ExceptionLine portion[kPortion];
    int refused = 0;
    for (char* line = lines.next(); line;) {
        int count = 0;
        for (; line && count < kPortion; line = lines.next())
            if (splitLine(line, portion[count])) ++count;
        {
            VXExceptionMapLock lock;
            for (int i = 0; i < count; ++i)
                if (!applyLine(state, portion[i])) ++refused;
        }
        if (line) vxlb_sleep_us(kPauseUs);  // lets in who waits for the lock
    }
    return refused;
}

// "NA", whatever line end stands behind it.
bool saysNoText(const char* text) {
    const std::size_t length = std::strlen(kNoText);
    return strncasecmp(text, kNoText, length) == 0 &&
           text[length + std::strspn(text + length, "\r\n")] == '\0';
}

bool takeOfSlot(VXExceptionMonitorDataCounters& slot, VXExceptionMonitorDataCounters& taken) {
    using Slot = VXExceptionMonitorDataCounters;
    return vxTakeFigures(slot, taken, {&Slot::count, &Slot::entryCount}, initVXExceptionMonitorDataCounters);
}

}  // namespace

void createVectorPrefixException() {
    vxApplication& app = *vxCurrent();
    VXExceptionMonitorState_t& state = app.exceptionMonitor;
    vxMakeVectorPrefix(app, state.exceptionPrefix, sizeof(state.exceptionPrefix), state.exceptionPrefixID,
                       sizeof(state.exceptionPrefixID));
}

void VXExceptionMonitorInit() {
    vxApplication& app = *vxCurrent();
    VXExceptionMonitorState_t& state = app.exceptionMonitor;
    createVectorPrefixException();
    {
        VXExceptionMapLock lock;
        if (!state.map) state.map = create_hashmap(app.pool);
        vxAggStart(state.exceptionArr, slotMaker(app));
        ++state.delivery;
    }
    vxAggEach(state.exceptionArr, 0, [](VXExceptionMonitorDataCounters& slot) {
        VXGuard guard(slot.mutex);
        initVXExceptionMonitorDataCounters(slot);
    });
    state.isExceptionMonitorOn.store(1, relaxed);

    VX_TRACE(1, kExcpMon, kInfo,
             "monitorIntervalInSecs = %d, aggExceptionArraySize = %d, isMethodMonitorOn = %d",
             vx_word_get(app.VXSys.vxMonitorIntervalInSec), state.exceptionArr.size.load(),
             state.isExceptionMonitorOn.load());
}

void parseExceptionMonFile(char* text) {
    if (!text) return;
    VXExceptionMonitorState_t& state = vxCurrent()->exceptionMonitor;
    if (saysNoText(text)) {
        VX_TRACE(1, kExcpMon, kInfo, "buffer is = %s, Hence Setting ExceptionMon keyword False", text);
        state.isExceptionMonitorOn.store(0, relaxed);
        return;
    }
    const int refused = applyLines(state, text);
    {
        VXExceptionMapLock lock;
        ++state.delivery;
    }
    state.isExceptionMonitorOn.store(1, relaxed);
    if (refused)
        VX_TRACE(1, kExcpMon, kError,
                 "maxExceptionRows = %d exception classes are monitored, %d others are left out",
                 VXProxy.ceilings.maxExceptionRows, refused);
}

bool updateCounterAndDurationForException(vxTD*, const char* className) {
    if (!className) return false;
    VXExceptionMonitorState_t& state = vxCurrent()->exceptionMonitor;
    const std::int32_t id = idOfClass(state, className);
    if (id < 1) {
        VX_TRACE(2, kExcpMon, kInfo, "exceptionClassName not found in the map %p",
                 static_cast<const void*>(state.map));
        return false;
    }
    if (!state.isExceptionMonitorOn.load(relaxed)) return false;
    VXExceptionMonitorDataCounters* slot = vxAggSlot(state.exceptionArr, id);
    if (!slot) return false;
    updatePropertiesOfException(*slot);
    return true;
}

VXExceptionMonitorDataCounters* checkAndIncrementAggrExceptionDataArray(std::int32_t targetSize) {
    VX_TRACE(2, kExcpMon, kInfo, "checkAndIncrementAggrExceptionDataArray started with targeted size : %d",
             targetSize);
    vxApplication& app = *vxCurrent();
    return vxAggEnsureSlot(app.exceptionMonitor.exceptionArr, targetSize, slotMaker(app));
}

void updateExceptionDataCountersForAggregate(VXExceptionMonitorDataCounters& sum,
                                             VXExceptionMonitorDataCounters& part) {
    sum.count = vxSum(sum.count, part.count);
    sum.entryCount = vxSum(sum.entryCount, part.entryCount);
    initVXExceptionMonitorDataCounters(part);
}

void initVXExceptionMonitorDataCounters(VXExceptionMonitorDataCounters& slot) {
    slot.count = slot.entryCount = 0;
}

void dump63RecordForEveryMethod(char* buffer, std::int32_t* length,
                                const VXExceptionMonitorDataCounters& counters, std::int64_t id,
                                const char* name) {
    const vxApplication& app = *vxCurrent();
    const VXExceptionMonitorState_t& state = app.exceptionMonitor;
    VXWriter out = vxBeginRecord(buffer, *length);
    vxPutHead(out, kExceptionRecord, state.exceptionPrefixID, id, state.exceptionPrefix, name);
    out.number(vxInt32(counters.entryCount)).put(' ');
    out.real(vxRatio(counters.count, vx_word_get(app.VXSys.vxMonitorIntervalInSec))).put(' ');
    vxEndRecord(out, buffer, length);
}

bool generateAndDumpExceptionMonitoringRecord(char* buffer, std::int32_t* length) {
    VXExceptionMonitorState_t& state = vxCurrent()->exceptionMonitor;
    VXExceptionMonitorDataCounters* overall = vxAggSlot(state.exceptionArr, 0);
    if (!overall || !state.isExceptionMonitorOn.load(relaxed)) return false;
    vxAggEach(state.exceptionArr, 1, [&](VXExceptionMonitorDataCounters& slot) {
        VXExceptionMonitorDataCounters taken{};
        const VXExceptionEntry* entry = slot.exceptionEntry.load(std::memory_order_acquire);
        if (!entry || !takeOfSlot(slot, taken)) return;
        dump63RecordForEveryMethod(buffer, length, taken, entry->id,
                                   entry->displayName.load(std::memory_order_acquire));
        updateExceptionDataCountersForAggregate(*overall, taken);
    });
    dump63RecordForEveryMethod(buffer, length, *overall, 0, kOverallName);
    initVXExceptionMonitorDataCounters(*overall);
    return true;
}

}  // namespace vx
