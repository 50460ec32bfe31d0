// Rule texts: the parser of the global rule.
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
// Threads   The thread that takes configuration (control thread), current context; the decode lock must
//           not be held.
#pragma once

#include <cstddef>

namespace vx {

inline constexpr std::size_t kRuleLineSize = 1024;
inline constexpr const char* kDefaultGlobalRule =
    "1|2|Default|Segments-Of-URI-With-Dynamic-Part-Of-Request|FromFirst|2|Request-Header|CustomeHeader|-";

// Replaces the global rule of the current context by the one of `line` (may be overwritten by the default
// rule when it has fewer than 9 fields; `line` needs room for 1,024 bytes). Always 0. The old rule is
// freed once no lookup can hold it: the swap is made under the decode lock.
int parse_global_rule(char* line);

}  // namespace vx
