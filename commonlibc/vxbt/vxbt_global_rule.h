// The global rule: how names are built from the URL where no pattern decides.
//
// A line has fields separated by "|":
//
//     1|mode|name|description|order|count|dynamic part|its argument|tags
//     1|2|Default|Segments-Of-URI|FromFirst|2|Request-Header|CustomeHeader|-
//
//     mode           1 the whole URL, 2 its segments; with a dynamic part these become 3 and 4
//     order, count   "FromFirst" or "FromLast", and how many segments ("-": none given)
//     dynamic part   "Request-Method", "Request-Parameter-Value", "Request-Header",
//                    "Request-URI-Segments-Numbers" (numbers with "%2C" between), "-" or empty for none
//
// Errors    A line with fewer than 9 fields stands for the default rule.
// Threads   The thread that takes configuration (control thread), current context; the decode lock must
//           not be held.
#pragma once

#include "commonlibc/vxbt/vxbt_rule_build.h"
#include "commonlibc/vxbt/vxbt_rule_text.h"

namespace vx {

inline constexpr const char* kDefaultGlobalRule =
    "1|2|Default|Segments-Of-URI-With-Dynamic-Part-Of-Request|FromFirst|2|Request-Header|CustomeHeader|-";

// Puts the global rule of `line` into a build. `line` has kRuleLineSize bytes, is changed, and may be
// overwritten by the default rule. Null, or what an operator should know: the default rule stands in.
const char* parse_global_rule(VXRuleBuild& build, char* line);
// The same rule, at once in force; what rule applies stays. Always 0.
int parse_global_rule(char* line);

}  // namespace vx
