// Rule texts: the walk over their lines, and which kind of rule applies.
//
//     type  rule                           effect
//     1     global rule                    the first line counts, and only where no pattern line does
//     2     custom rule                    at once
//     4, 5  skip count, maximum states     at once: "4|0", "5|4096"
//     7     pattern rule                   all lines, before everything else
//     8, 11 rules on methods and bodies    not served
//     other, and "#"                       none
//
// Pattern rules go before custom rules, and these before the global rule. A text replaces the rules of the
// kinds that it has; custom rules add up.
//
// Errors    A line that cannot be used is traced and costs no other line.
// Threads   The thread that takes configuration (control thread), current context; the decode lock must
//           not be held.
#pragma once

#include "commonlibc/vxbt/vxbt_rule_build.h"
#include "commonlibc/vxbt/vxbt_rule_text.h"

namespace vx {

inline constexpr std::int32_t kLineGlobal = 1, kLineCustom = 2, kLineExclusion = 3, kLineSkipCount = 4,
                              kLineMaxStates = 5, kLinePattern = 7, kLineMethodData = 8, kLineHttpBody = 11;

// What became of a line of a rule text.
struct VXRuleLine {
    int number;         // from 1
    std::int32_t type;  // of the table above; 0 of a comment or a line that says nothing
    const char* text;   // the line as it stands
    const char* fault;  // why the line, or a part of it, has no effect; null: it has its effect
};
using VXRuleLineObserver = void (*)(const VXRuleLine& line, void* argument);

// Reads a rule text and brings it into force at once. Always 0. `observer` (may be null) is told each line
// that is not empty, not in the order of the text.
int vxbt_read_rule_file(const char* pathOrText, VXRuleSource source,
                        VXRuleBuild::Base base = VXRuleBuild::Base::kInForce,
                        VXRuleLineObserver observer = nullptr, void* argument = nullptr);

}  // namespace vx
