#include "commonlibc/bt/VXBTMonitor.h"

#include <algorithm>
#include <cstdlib>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXDigestMonitor.h"
#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::int32_t kMaxBtCount = 256;
constexpr std::int32_t kMaxArraySize = 65536;  // that a keyword asks for
constexpr std::int32_t kCategoryGeneralOnly = 15;

struct FigureRow {
    VXFigure VXBTCounters::*figure;
    std::int64_t minStart;
};
constexpr FigureRow kFigureRows[] = {
    {&VXBTCounters::duration, kMinDurationStart}, {&VXBTCounters::cpu, kMinCpuStart},
    {&VXBTCounters::normal, kMinDurationStart},   {&VXBTCounters::slow, kMinDurationStart},
    {&VXBTCounters::verySlow, kMinDurationStart}, {&VXBTCounters::error, kMinDurationStart},
    {&VXBTCounters::groupA, kMinDurationStart},   {&VXBTCounters::groupB, kMinDurationStart},
    {&VXBTCounters::groupC, kMinDurationStart},
};

void addValue(VXFigure& figure, std::int64_t value) {
    figure.count += 1;
    figure.total = vxSum(figure.total, value);
    figure.min = std::min(figure.min, value);
    figure.max = std::max(figure.max, value);
}

// The third group counts every flowpath but measures only those that have a value.
void addPositiveValue(VXFigure& figure, std::int64_t value) {
    if (value > 0) {
        addValue(figure, value);
    } else {
        figure.count += 1;
    }
}

VXFigure* figureOfCategory(VXBTCounters& counters, std::int32_t category) {
    switch (category) {
        case kCategoryNormal:
            return &counters.normal;
        case kCategorySlow:
            return &counters.slow;
        case kCategoryVerySlow:
            return &counters.verySlow;
        case kCategoryError:
            return &counters.error;
        default:
            return nullptr;
    }
}

// How a new slot is made ready; btMapMutex held.
auto slotMaker(vxApplication& app) {
    return [pool = vxOwnPool(app.bt.pool, app.pool)](VXBTMonitorDataCounters& slot) {
        initVXBTMonitorDataCounters(slot.counters);
        return vxlb_make_mutex(slot.mutex, pool) && vxlb_make_mutex(slot.tagMutex, pool);
    };
}

// The number of a key of the BT-tag map. -1: it has none, and cannot or shall not get one.
std::int32_t tagSequence(VXBTState_t& bt, const char* key, bool add) {
    const VXGuard guard(bt.btTagMutex);
    const auto* sequence = add ? vxTagSequence(bt.btTagMap, key)
                               : static_cast<const VXTagSequence*>(search_hashmap(key, bt.btTagMap));
    return sequence ? sequence->sequence : -1;
}

constexpr std::size_t kTagKeySize = 32;

// A BT's own number, that of its flowpaths without tags. The slot keeps what the map told it once in a run.
std::int32_t ownSequence(VXBTState_t& bt, const VXBTMonitorDataCounters& slot, std::int32_t btId) {
    if (slot.counters.tagSeq >= 0) return slot.counters.tagSeq;
    char key[kTagKeySize];
    VXWriter(key, sizeof(key)).number(btId).terminate();
    return tagSequence(bt, key, true);
}

// The slot that counts a BT's flowpaths with tags.
VXBTMonitorDataCounters* tagSlot(vxApplication& app, std::int32_t btId) {
    if (VXBTMonitorDataCounters* known = vxAggSlot(app.bt.aggTagArr, btId)) return known;
    const VXGuard guard(app.bt.btMapMutex);
    return vxAggEnsureSlot(app.bt.aggTagArr, btId, slotMaker(app));
}

VXBTCounters countersOf(const vxTD& slot) {
    VXBTCounters counters;
    initVXBTMonitorDataCounters(counters);
    updateBTDataCounters(counters, {slot.tlCategory, slot.fpDuration, slot.fpCPUTime, {0, 0, 0}});
    return counters;
}

bool countTag(vxApplication& app, const vxTD& slot, std::int32_t btId, const VXTagNode& tag) {
    char key[kTagKeySize];
    VXWriter(key, sizeof(key)).number(btId).put('-').number(tag.sequence).terminate();
    const std::int32_t sequence = tagSequence(app.bt, key, false);
    VXBTMonitorDataCounters* target = sequence < 0 ? nullptr : tagSlot(app, btId);
    if (!target) return false;
    VXBTCounters counters = countersOf(slot);
    counters.tagString = const_cast<char*>(tag.text);  // copied by the merge
    counters.tagSeq = sequence;
    target->btObj.store(slot.tlBTObj, std::memory_order_release);

    const VXGuard guard(target->tagMutex);
    updateBTDataCountersForAggregate(target->counters, counters);
    target->isDirty = 1;
    return true;
}

// True when a tag has counted the flowpath: its BT's own slot then does not.
bool countTags(vxApplication& app, const vxTD& slot, std::int32_t btId) {
    bool counted = false;
    const VXGuard tags(slot.tagMutex);
    for (const VXTagNode* tag = slot.BTagSeqArray; tag; tag = tag->next)
        counted |= countTag(app, slot, btId, *tag);
    return counted;
}

bool updatePropertiesOfBT(vxApplication& app, const vxTD& slot, std::int32_t btId) {
    VXBTMonitorDataCounters* target = vxAggSlot(app.bt.aggDataArr, btId);
    if (!target) return false;
    const bool counted = vx_word_get(app.VXSys.tagsEnabled) && countTags(app, slot, btId);
    VXBTCounters counters;
    if (counted) {
        initVXBTMonitorDataCounters(counters);
    } else {
        counters = countersOf(slot);
    }

    const VXGuard guard(target->mutex);
    const std::int32_t sequence = ownSequence(app.bt, *target, btId);
    if (sequence < 0) return counted;
    counters.tagSeq = sequence;
    updateBTDataCountersForAggregate(target->counters, counters);
    vxDigestDuration(app.digest.bt, target->digest, target->digestUpdated, slot.fpDuration);
    target->isDirty = 1;
    if (!target->btObj.load(std::memory_order_relaxed))
        target->btObj.store(slot.tlBTObj, std::memory_order_release);
    return true;
}

}  // namespace

void createVectorPrefix() {
    vxApplication& app = *vxCurrent();
    vxMakeVectorPrefix(app, app.bt.vectorPrefix, sizeof(app.bt.vectorPrefix), app.bt.vectorPrefixID,
                       sizeof(app.bt.vectorPrefixID));
}

void VXBTMonitorInit() {
    vxApplication& app = *vxCurrent();
    VXBTState_t& bt = app.bt;
    createVectorPrefix();
    {
        VXGuard guard(bt.btMapMutex);
        vxAggStart(bt.aggDataArr, slotMaker(app));
    }
    const auto clear = [](VXBTMonitorDataCounters& slot) {
        const VXGuard guard(slot.mutex), tagGuard(slot.tagMutex);
        VXLB_FREE(slot.counters.tagString, "text copy", -1);
        initVXBTMonitorDataCounters(slot.counters);
    };
    vxAggEach(bt.aggDataArr, 0, clear);
    vxAggEach(bt.aggTagArr, 0, clear);
    vx_word_set(bt.maxBTCount, kMaxBtCount);
    bt.isBTMonitorOn.store(1, std::memory_order_relaxed);
    bt.currentReportingCount = 0;

    VX_TRACE(
        1, kBtMon, kInfo,
        "currentReportingCount = %d, monitorIntervalInSecs = %d, btMonitorTraceLevel = %d, "
        "btMonitorErrorLevel = %d, aggDataArraySize = %d, sendReSetEventOnAggDataConn = 0,maxBTCount = %d, "
        "isBTMonitorOn = %d",
        bt.currentReportingCount, vx_word_get(app.VXSys.vxMonitorIntervalInSec),
        vx_word_get(app.VXSys.enableBTMonitorTrace), vx_word_get(bt.btMonitorErrorLevel),
        bt.aggDataArr.size.load(), vx_word_get(bt.maxBTCount), bt.isBTMonitorOn.load());
}

std::int32_t findCategoryOfBT(const BTObject& bt, std::int64_t durationMs, std::int32_t status,
                              std::uint8_t* captured) {
    const vxApplication& app = *vxCurrent();
    if (isErrorStatus(app, status)) return kCategoryError;
    if (durationMs < bt.slowThreshold.load(std::memory_order_relaxed)) {
        const bool forSlownessOnly = vx_word_get(app.VXSys.bciInstrSessionPct) == 0 &&
                                     vx_word_get(app.VXSys.captureMethodForAllFP) == 1;
        if (forSlownessOnly && captured) *captured = 0;
        return kCategoryNormal;
    }
    return durationMs < bt.verySlowThreshold.load(std::memory_order_relaxed) ? kCategorySlow
                                                                             : kCategoryVerySlow;
}

bool updateCounterAndDurationForBT(vxTD* slot) {
    vxApplication& app = *vxCurrent();
    if (!slot || !slot->tlBTObj || slot->tlCategory == kCategoryExcluded) return false;
    const std::int32_t btId = slot->tlBTObj->btId.load(std::memory_order_relaxed);
    if (btId < 0) return false;
    const std::int32_t isOn = app.bt.isBTMonitorOn.load(std::memory_order_relaxed);
    if (!isOn) {
        VX_TRACE(2, kBtMon, kInfo,
                 "Returning from BT monitoring counters as monitor is %d, btID %d, countOfUnknownError %d",
                 isOn, btId, 0);
        return false;
    }
    return updatePropertiesOfBT(app, *slot, btId);
}

void initVXBTMonitorDataCounters(VXBTCounters& counters) {
    for (const FigureRow& row : kFigureRows) counters.*row.figure = {0, 0, row.minStart, 0};
    counters.tagString = nullptr;
    counters.tagSeq = -1;
}

void updateBTDataCounters(VXBTCounters& counters, const VXFlowpathFigures& figures) {
    VXFigure* ofCategory = figureOfCategory(counters, figures.category);
    if (!ofCategory && figures.category != kCategoryGeneralOnly) return;
    addValue(counters.duration, figures.duration);
    addValue(counters.cpu, figures.cpu);
    addValue(counters.groupA, figures.extra[0]);
    addValue(counters.groupB, figures.extra[1]);
    addPositiveValue(counters.groupC, figures.extra[2]);
    if (ofCategory) addValue(*ofCategory, figures.duration);
}

void updateBTDataCountersForAggregate(VXBTCounters& target, VXBTCounters& source) {
    for (const FigureRow& row : kFigureRows) {
        VXFigure& sum = target.*row.figure;
        const VXFigure& part = source.*row.figure;
        sum.count = vxSum(sum.count, part.count);
        sum.total = vxSum(sum.total, part.total);
        sum.min = std::min(sum.min, part.min);
        sum.max = std::max(sum.max, part.max);
    }
    if (!target.tagString && source.tagString) target.tagString = vxlb_strdup(source.tagString);
    target.tagSeq = source.tagSeq;
    initVXBTMonitorDataCounters(source);
}

void checkAndIncrementAggrBTDataArray(BTObject* object) {
    if (!object) return;
    vxApplication& app = *vxCurrent();
    const std::int32_t btId = object->btId.load(std::memory_order_relaxed);
    if (btId < 1) return;  // slot 0 is the overall line

    VX_TRACE(3, kBtMon, kInfo, "handleSizeBTArr Started ...BTID %d", btId);
    if (VXBTMonitorDataCounters* slot = vxAggEnsureSlot(app.bt.aggDataArr, btId, slotMaker(app));
        slot && slot->btObj.load(std::memory_order_relaxed) != object) {
        const VXGuard guard(slot->mutex);
        slot->isDirty = slot->counters.duration.count != 0;  // what was counted is reported by any name
        slot->flag = slot->digestUpdated = slot->tagSent = 0;
        if (slot->digest) vxDigestClear(*slot->digest);  // percentiles are of one BT
        slot->btObj.store(object, std::memory_order_release);
    }
    VX_TRACE(3, kBtMon, kInfo, "handleSizeBTArr completed ...BTID %d", btId);
}

bool vxEnsureBtSlot(std::int32_t btId) {
    vxApplication& app = *vxCurrent();
    return vxAggEnsureSlot(app.bt.aggDataArr, btId, slotMaker(app)) != nullptr;
}

void parseBTMonitorKeyword(const char* value) {
    vxCurrent()->bt.isBTMonitorOn.store(vxbt_int(value) < 1 ? 0 : 1, std::memory_order_relaxed);
}

void parseBTMonitorErrorLevel(const char* value) {
    const std::int32_t level = vxbt_int(value);
    if (level >= 0) vx_word_set(vxCurrent()->bt.btMonitorErrorLevel, level);
}

void parseBTAggDataArraySize(const char* value) {
    VXBTState_t& bt = vxCurrent()->bt;
    const std::int32_t wanted = std::min(vxbt_int(value), kMaxArraySize);
    VXGuard guard(bt.btMapMutex);
    const std::int32_t size = bt.aggDataArr.size.load(std::memory_order_relaxed);
    if (wanted > size) {
        bt.aggDataArr.size.store(wanted, std::memory_order_release);  // blocks come with the ids
        return;
    }
    VX_TRACE(1, kBtMon, kWarning,
             "parseBTAggDataArraySize - Could not decrease size of array, as targeted size is less or equal "
             "than current size.Where current size : %d,  specified size : %d",
             size, wanted);
}

void parseDoNotDiscardVal(const char* value) {
    if (vxbt_int(value) >= 1) vx_word_set(vxCurrent()->bt.doNotDiscardFP, 1);
}

}  // namespace vx
