#include "commonlibc/bt/VXBTRecords.h"

#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/VXMonitorReport.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr int kBtRecord = 74;
constexpr const char* kAllName = "AllTransactions";
constexpr std::size_t kFiguresMax = 40 * 28;  // the longest number and its blank
constexpr double kCpuUnit = 1000000.0;
constexpr double kUnsetMinCpu = 0.5;

bool anyBtExists(VXBTState_t& bt) {
    const VXGuard guard(bt.btMapMutex);
    return bt.total_bt_count != 0;
}

// Average, least, greatest and count of a category.
void putCategory(VXWriter& out, const VXFigure& figure) {
    out.real(vxRatio(figure.total, figure.count)).put(' ');
    out.real(checkAndGetIntMinValue(figure.min, kMinDurationStart)).put(' ');
    out.number(figure.max).put(' ').number(vxInt32(figure.count));
}

// The same of an extra figure, whose least value is a whole number.
void putGroup(VXWriter& out, const VXFigure& figure) {
    out.put(' ').real(vxRatio(figure.total, figure.count)).put(' ');
    out.number(figure.min == kMinDurationStart ? static_cast<std::int64_t>(kUnsetMin) : figure.min);
    out.put(' ').number(figure.max).put(' ').number(vxInt32(figure.count));
}

void putCpu(VXWriter& out, const VXFigure& cpu) {
    out.real(vxRatio(cpu.total, cpu.count) / kCpuUnit).put(' ');
    out.real(cpu.min == kMinCpuStart ? kUnsetMinCpu : static_cast<double>(cpu.min) / kCpuUnit).put(' ');
    out.real(static_cast<double>(cpu.max) / kCpuUnit);
}

double slowPercent(const VXBTCounters& counters) {
    const std::int64_t count = counters.duration.count;
    if (count == 0) return 0;
    const double slow =
        static_cast<double>(counters.slow.count) + static_cast<double>(counters.verySlow.count);
    return slow * 100 / static_cast<double>(count);
}

void putFigures(VXWriter& out, const VXBTCounters& counters, std::int32_t seconds) {
    out.real(vxRatio(counters.duration.count, seconds)).put(' ');
    putCategory(out, counters.duration);
    out.text(" 0.0 ").real(vxRatio(counters.error.count, seconds));
    for (const VXFigure* figure : {&counters.normal, &counters.slow, &counters.verySlow, &counters.error})
        putCategory(out.put(' '), *figure);
    out.put(' ').real(slowPercent(counters)).put(' ');
    putCpu(out, counters.cpu);
    out.put(' ').number(vxInt32(counters.duration.count));
    for (const VXFigure* figure : {&counters.groupA, &counters.groupB, &counters.groupC})
        putGroup(out, *figure);
}

void putTag(VXWriter& out, const char* tag) {
    const std::size_t used = out.length() + kFiguresMax + 2;  // "|" and line feed
    out.recordText(tag, used < kMonitorRecordMax ? kMonitorRecordMax - used : 0).put('|');
}

// Takes a slot's counters, which begin anew; what it stands for stays. False: it was never counted.
bool takeCounters(VXBTMonitorDataCounters& slot, apr_thread_mutex_t* mutex, VXBTCounters& taken) {
    const VXGuard guard(mutex);
    if (!slot.isDirty) return false;
    taken = slot.counters;
    initVXBTMonitorDataCounters(slot.counters);
    slot.counters.tagString = taken.tagString;
    slot.counters.tagSeq = taken.tagSeq;
    if (slot.tagSent) taken.tagString = nullptr;
    if (taken.tagString) slot.tagSent = 1;
    return true;
}

using Slot = VXBTMonitorDataCounters;
using SlotMutex = apr_thread_mutex_t* Slot::*;

// One report of all BTs, and their sum.
class Report {
public:
    Report(char* buffer, std::int32_t* length, VXBTCounters& overall)
        : buffer_(buffer), length_(length), overall_(overall) {}

    // Each slot of an array that was ever counted; `mutex` is the one that guards its counters.
    void putEach(const VXAggregateArray<Slot>& array, SlotMutex mutex) {
        const std::int64_t size = array.size.load(std::memory_order_acquire);
        for (std::int64_t index = 1; index < size; ++index)
            if (Slot* slot = vxAggSlot(array, index)) put(*slot, slot->*mutex, index);
    }
    void putOverall() {
        overall_.tagSeq = -1;
        dump74RecordForEveryBT(buffer_, length_, overall_, 0, kAllName);
        initVXBTMonitorDataCounters(overall_);
    }

private:
    void put(Slot& slot, apr_thread_mutex_t* mutex, std::int64_t id) {
        const BTObject* object = slot.btObj.load(std::memory_order_acquire);
        VXBTCounters taken;
        if (!object || !*object->btName || !takeCounters(slot, mutex, taken)) return;
        dump74RecordForEveryBT(buffer_, length_, taken, id, object->btName);
        taken.tagString = nullptr;  // the line of all has none
        updateBTDataCountersForAggregate(overall_, taken);
    }

    char* buffer_;
    std::int32_t* length_;
    VXBTCounters& overall_;
};

}  // namespace

bool generateAndDumpBTMonitoringRecord(char* buffer, std::int32_t* length) {
    vxApplication& app = *vxCurrent();
    if (!anyBtExists(app.bt)) {
        VX_TRACE(2, kBtMon, kInfo,
                 "Returning without dumping any monitoring record, as no business transactions discovered "
                 "yet.");
        return false;
    }
    Slot* const overall = vxAggSlot(app.bt.aggDataArr, 0);
    if (!overall) {
        VX_TRACE(1, kBtMon, kError, "overallData is empty");
        return false;
    }
    ++app.bt.currentReportingCount;
    Report report(buffer, length, overall->counters);
    report.putEach(app.bt.aggDataArr, &Slot::mutex);
    if (vx_word_get(app.VXSys.tagsEnabled)) report.putEach(app.bt.aggTagArr, &Slot::tagMutex);
    report.putOverall();
    return true;
}

void dump74RecordForEveryBT(char* buffer, std::int32_t* length, const VXBTCounters& counters, std::int64_t id,
                            const char* name) {
    const vxApplication& app = *vxCurrent();
    const VXBTState_t& bt = app.bt;
    const bool withTags = vx_word_get(app.VXSys.tagsEnabled) != 0;
    VXWriter out = vxBeginRecord(buffer, *length);
    vxPutHead(out, kBtRecord, bt.vectorPrefixID, withTags ? counters.tagSeq + 1 : id, bt.vectorPrefix, name);
    if (withTags) putTag(out, counters.tagString);
    putFigures(out, counters, vx_word_get(app.VXSys.vxMonitorIntervalInSec));
    vxEndRecord(out, buffer, length);
}

std::int64_t vxUnreportedOfBts() {
    const VXBTState_t& bt = vxCurrent()->bt;
    std::int64_t count = 0;
    const auto addEach = [&count](const VXAggregateArray<Slot>& array, SlotMutex mutex) {
        vxAggEach(array, 1, [&](const Slot& slot) {
            const VXGuard guard(slot.*mutex);
            count = vxSum(count, slot.counters.duration.count);
        });
    };
    addEach(bt.aggDataArr, &Slot::mutex);
    addEach(bt.aggTagArr, &Slot::tagMutex);
    return count;
}

}  // namespace vx
