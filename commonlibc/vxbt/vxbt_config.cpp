#include "commonlibc/vxbt/vxbt_config.h"

#include <utility>

#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxbt/vxbt_global_rule.h"
#include "commonlibc/vxbt/vxbt_rule_parser.h"
#include "commonlibc/vxbt/vxbt_thresholds.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::size_t kPathSize = 1024;
constexpr std::int32_t kDefaultMaxBtCount = 256;
constexpr std::int32_t kDefaultSlowMs = 3000, kDefaultVerySlowMs = 5000;
constexpr const char* kDefaultTags[] = {"Host=localhost", "OS=Linux", "application=Common", "Technology=Php"};

void addDefaultTags(VXBTState_t& bt) {
    VXGuard guard(bt.tagSequenceMutex);
    for (const char* tag : kDefaultTags) vxTagSequence(bt.tagSequenceMap, tag);
}

// What is made once in the life of an instance.
void makeStore(vxApplication& app) {
    VXBTState_t& bt = app.bt;
    {
        VXGuard guard(bt.btMapMutex);
        if (vx_word_get(bt.max_bt_count) == 0) vx_word_set(bt.max_bt_count, kDefaultMaxBtCount);
        if (bt.total_bt_count == 0) bt.total_bt_count = kBtIdOthers;
        if (!bt.managerMap) bt.managerMap = create_hashmap(app.pool);
        if (!bt.configMap) bt.configMap = create_hashmap(app.pool);
        if (!bt.settingsMade) {
            bt.allSlowThreshold.store(kDefaultSlowMs, std::memory_order_relaxed);
            bt.allVerySlowThreshold.store(kDefaultVerySlowMs, std::memory_order_relaxed);
            bt.settingsMade = 1;
        }
    }
    {
        VXGuard guard(bt.tagSequenceMutex);
        if (!bt.tagSequenceMap) bt.tagSequenceMap = create_hashmap(app.pool);
    }
    addDefaultTags(bt);
    VXGuard guard(bt.btTagMutex);
    if (!bt.btTagMap) bt.btTagMap = create_hashmap(app.pool);
}

void configPath(char (&path)[kPathSize], const char* fileName) {
    char folder[kPathSize];
    vx_path_join(folder, sizeof(folder), getVXHome(), "config");
    vx_path_join(path, sizeof(path), folder, fileName);
}

bool freeDeclared(const char*, void* object, void*) {
    VXLB_FREE(object, "BTObject", -1);
    return true;
}

// Objects of the manager map alone, then those of the config map, which may be in both.
void freeObjects(VXBTState_t& bt) {
    for (BTObject* object = bt.firstManaged; object;) {
        BTObject* next = object->nextManaged;
        if (find_bt_obj_declared(object->btName) != object) VXLB_FREE(object, "BTObject", -1);
        object = next;
    }
    vxlb_map_each(bt.configMap, freeDeclared, nullptr);
    bt.firstManaged = bt.lastManaged = nullptr;
    bt.managerMap = bt.configMap = nullptr;
}

}  // namespace

void vxFreeBtStore() {
    VXBTState_t& bt = vxCurrent()->bt;
    freeObjects(bt);
    VXLB_FREE(bt.global_rule.exchange(nullptr), "VXBTGlobalRule", -1);
    vxFreeRuleSet(bt.ruleSet.exchange(nullptr), nullptr);
    destroy_hashmap(std::exchange(bt.thresholds, nullptr));
    freeTagStructures();
    vxAggFree(bt.aggDataArr);
    vxAggEach(bt.aggTagArr, 0,
              [](VXBTMonitorDataCounters& slot) { VXLB_FREE(slot.counters.tagString, "text copy", -1); });
    vxAggFree(bt.aggTagArr);
}

void vxMakeBtStore() {
    makeStore(*vxCurrent());
    VXBTMonitorInit();
}

void vxApplyDefaultRule() {
    char rule[kRuleLineSize];
    vxlb_copy_text(rule, sizeof(rule), kDefaultGlobalRule);
    VX_TRACE(1, kBtMon, kInfo, "Setting defult BT rule = %s", rule);
    parse_global_rule(rule);
}

void VXBTConfigModelInit() {
    vxApplication& app = *vxCurrent();
    char ruleFile[kPathSize];
    char thresholdFile[kPathSize];

    vxMakeBtStore();
    configPath(ruleFile, "BTRuleFile.txt");
    configPath(thresholdFile, "BTThresholdFile.txt");
    vxbt_read_threshold_file(thresholdFile, VXRuleSource::kPath);  // in place before rules make objects
    vxbt_read_rule_file(ruleFile, VXRuleSource::kPath, VXRuleBuild::Base::kStart);
    if (app.bt.applicableRule.load(std::memory_order_relaxed) == kNoRule) vxApplyDefaultRule();
    VX_TRACE(1, kBtMon, kInfo, "max_bt_count = %d, total_bt_count = %d, BTRuleFile = %s",
             vx_word_get(app.bt.max_bt_count), app.bt.total_bt_count, ruleFile);
}

}  // namespace vx
