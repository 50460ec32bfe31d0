// A rule text on its way into force: everything that lookups read is built aside and swapped in at once.
//
//     in force    ruleSet -> A    global_rule -> a    applicableRule    BTs, ids, aggregate slots
//     aside       set     -> B    globalRule  -> b    applicable        declarations
//     commit      ruleSet -> B    global_rule -> b    applicableRule    BTs, ids, aggregate slots; A and a
//     freed
//
// The new set begins as a copy of the one in force and shares with it what the text does not replace.
//
// Limits    kMaxDeclaredBts BTs of rules in the life of an instance; memory follows the text's length.
// Errors    A build that fails (no memory) is never committed: what is in force stays, whole.
// Threads   The thread that takes configuration (control thread), current context. commit() takes the decode
//           lock, which must not be held, for the swap alone.
#pragma once

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_hashMapMethod.h"

namespace vx {

inline constexpr std::int32_t kMaxRuleId = 65535;
inline constexpr std::uint32_t kMaxDeclaredBts = 65536;

// What a line declares of a BT.
struct VXBtDeclaration {
    BTObject* object;  // of the config map, or made for it
    bool isNew;        // not in the config map yet: owned by the build until it is committed
    std::int32_t id, selfId, parentId;
    VXBtDeclaration* next;
};

class VXRuleBuild {
public:
    enum class Base { kInForce, kStart };  // a start forgets the custom rules

    explicit VXRuleBuild(Base base = Base::kInForce);
    ~VXRuleBuild();
    VXRuleBuild(const VXRuleBuild&) = delete;
    VXRuleBuild& operator=(const VXRuleBuild&) = delete;

    bool good() const noexcept { return set != nullptr && !failed_; }
    void fail() noexcept { failed_ = true; }
    // Declares a BT with an id of 0 or more (at most kMaxRuleId). False: refused, too many.
    bool declare(const char* name, std::int32_t id, std::int32_t selfId, std::int32_t parentId);
    // Empties the machine of the copy without touching the one in force.
    void dropUrlMachine();
    void dropHeaderMachine();
    void dropCustomMachine();
    // Replaces the global rule that this build brings.
    void takeGlobalRule(VXBTGlobalRule* rule);
    // The tag lists that the set still shares; null: none.
    const VXBTTags* tagsInForce() const noexcept { return base_ ? &base_->tags : nullptr; }
    // Brings all into force and frees what was replaced. False: the build had failed, nothing changed.
    bool commit();

    VXBTRuleSet* set = nullptr;
    std::int32_t applicable = kNoRule;
    std::int32_t patternLines = 0, customLines = 0, globalLines = 0;  // accepted ones

private:
    void swapIn(VXBTRuleSet*& oldSet, VXBTGlobalRule*& oldRule);
    void tellRunTimeChange() const;

    const VXBTRuleSet* base_;
    VXBTGlobalRule* globalRule_ = nullptr;
    VXBtDeclaration* first_ = nullptr;
    VXBtDeclaration* last_ = nullptr;
    VXMap* newNames_ = nullptr;  // names that are not in the config map yet, to their declaration
    bool failed_ = false;
};

// Frees a set with everything that it does not share with `kept` (may be null).
void vxFreeRuleSet(VXBTRuleSet* set, const VXBTRuleSet* kept);

}  // namespace vx
