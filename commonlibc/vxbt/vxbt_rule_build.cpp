#include "commonlibc/vxbt/vxbt_rule_build.h"

#include <cstring>
#include <new>
#include <utility>

#include "commonlibc/VXMetadataReplay.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/vxbt/vxbt_automaton.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxbt/vxbt_state_machine.h"
#include "commonlibc/vxbt/vxbt_tags.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr const char* kSetName = "VXBTRuleSet";
constexpr const char* kDeclarationName = "BT declaration";
constexpr int kBtRecord = 7;

void freeMachine(vxlb_state_machine& machine, const vxlb_state_machine* kept) {
    if (!kept || kept->states != machine.states) vxlb_state_machine_free(&machine);
}

}  // namespace

void vxFreeRuleSet(VXBTRuleSet* set, const VXBTRuleSet* kept) {
    if (!set) return;
    freeMachine(set->urlMachine, kept ? &kept->urlMachine : nullptr);
    freeMachine(set->headerMachine, kept ? &kept->headerMachine : nullptr);
    if (!kept || kept->customMachine.rows != set->customMachine.rows)
        vxlb_free_automaton(&set->customMachine);
    vxFreeTags(set->tags, kept ? &kept->tags : nullptr);
    VXLB_FREE(set, kSetName, -1);
}

VXRuleBuild::VXRuleBuild(Base base) : base_(vxCurrent()->bt.ruleSet.load(std::memory_order_relaxed)) {
    void* block = VXLB_MALLOC_AND_MEMSET(sizeof(VXBTRuleSet), kSetName, -1);
    newNames_ = create_hashmap(nullptr);
    if (!block || !newNames_) {
        VXLB_FREE(block, kSetName, -1);
        failed_ = true;
        return;
    }
    set = base_ ? new (block) VXBTRuleSet(*base_) : new (block) VXBTRuleSet{};
    if (base == Base::kInForce) return;
    vxlb_build_lexicon(&set->customRule);
    dropCustomMachine();
}

VXRuleBuild::~VXRuleBuild() {
    vxFreeRuleSet(set, base_);
    VXLB_FREE(globalRule_, "VXBTGlobalRule", -1);
    while (first_) {
        VXBtDeclaration* next = first_->next;
        if (first_->isNew) VXLB_FREE(first_->object, "BTObject", -1);
        VXLB_FREE(first_, kDeclarationName, -1);
        first_ = next;
    }
    destroy_hashmap(newNames_);
}

void VXRuleBuild::dropUrlMachine() {
    freeMachine(set->urlMachine, base_ ? &base_->urlMachine : nullptr);
    set->urlMachine = {};
}

void VXRuleBuild::dropHeaderMachine() {
    freeMachine(set->headerMachine, base_ ? &base_->headerMachine : nullptr);
    set->headerMachine = {};
}

void VXRuleBuild::dropCustomMachine() {
    if (!base_ || base_->customMachine.rows != set->customMachine.rows)
        vxlb_free_automaton(&set->customMachine);
    set->customMachine = {};
}

void VXRuleBuild::takeGlobalRule(VXBTGlobalRule* rule) {
    VXLB_FREE(std::exchange(globalRule_, rule), "VXBTGlobalRule", -1);
}

bool VXRuleBuild::declare(const char* name, std::int32_t id, std::int32_t selfId, std::int32_t parentId) {
    VXBTState_t& bt = vxCurrent()->bt;
    BTObject* object = nullptr;
    {
        const VXGuard lock(bt.btMapMutex);
        object = find_bt_obj_declared(name);
        if (id >= kBtIdOthers && !vxEnsureBtSlot(id)) {  // the swap itself takes no memory for slots
            fail();
            return true;
        }
    }
    bool isNew = false;
    if (!object) {
        object = static_cast<BTObject*>(search_hashmap(name, newNames_));
        if (!object) {
            if (vxlb_map_count(bt.configMap) + vxlb_map_count(newNames_) >= kMaxDeclaredBts) return false;
            object = make_new_bt_obj(name, id, bt.allSlowThreshold.load(), bt.allVerySlowThreshold.load());
            isNew = true;
        }
    }
    auto* declaration = static_cast<VXBtDeclaration*>(
        object ? VXLB_MALLOC(sizeof(VXBtDeclaration), kDeclarationName, -1) : nullptr);
    if (!declaration) {
        if (isNew) VXLB_FREE(object, "BTObject", -1);
        fail();
        return true;
    }
    *declaration = {object, isNew, id, selfId, parentId, nullptr};
    if (isNew) modify_hashmap(object->btName, object, newNames_);
    (last_ ? last_->next : first_) = declaration;
    last_ = declaration;
    return true;
}

// The collector forgets the names that it knows and learns those that follow.
void VXRuleBuild::tellRunTimeChange() const {
    if (!vxCurrent()->Server.runtimeChange.load(std::memory_order_relaxed)) return;
    if (patternLines == 0 && globalLines == 0) return;
    reset_BTObjMap(patternLines > 0 ? 1 : 0);
    dump11Record(kBtRecord);
}

// Lookups hold the decode lock: before it none sees anything of the new rules, behind it none of the old.
void VXRuleBuild::swapIn(VXBTRuleSet*& oldSet, VXBTGlobalRule*& oldRule) {
    VXBTState_t& bt = vxCurrent()->bt;
    const VXGuard decode(vxCurrent()->decoder.decodeMutex);
    const VXGuard map(bt.btMapMutex);
    tellRunTimeChange();
    bt.applicableRule.store(applicable, std::memory_order_relaxed);
    oldSet = bt.ruleSet.exchange(std::exchange(set, nullptr), std::memory_order_acq_rel);
    if (globalRule_)
        oldRule = bt.global_rule.exchange(std::exchange(globalRule_, nullptr), std::memory_order_acq_rel);
    for (VXBtDeclaration* at = first_; at; at = at->next) {
        declareBt(at->object, at->isNew,
                  {at->id, bt.allSlowThreshold.load(std::memory_order_relaxed),
                   bt.allVerySlowThreshold.load(std::memory_order_relaxed), at->selfId, at->parentId});
        at->isNew = false;
        at->object->isStale.store(0, std::memory_order_relaxed);
        if (at->id >= kBtIdOthers) checkAndIncrementAggrBTDataArray(at->object);
    }
}

bool VXRuleBuild::commit() {
    if (!good()) {
        VX_TRACE(1, kBtMon, kError, "No memory for the rules, those in force stay");
        return false;
    }
    VXBTRuleSet* oldSet = nullptr;
    VXBTGlobalRule* oldRule = nullptr;
    swapIn(oldSet, oldRule);
    base_ = nullptr;
    vxFreeRuleSet(oldSet, vxCurrent()->bt.ruleSet.load(std::memory_order_relaxed));
    if (oldRule) {
        VX_TRACE(2, kBtMon, kInfo, "Freeing global_rule");
        VXLB_FREE(oldRule, "VXBTGlobalRule", -1);
    }
    if (patternLines > 0 && vxCurrent()->Server.runtimeChange.load(std::memory_order_relaxed))
        collectAndSendOnlyCached7Records(0, 1);
    return true;
}

}  // namespace vx
