// What rules mean, in words, for the check of rule files.
//
// Threads   Any; no state.
#pragma once

#include <string>

#include "commonlibc/vxbt/vxbt_pattern_rule.h"

namespace vx {

// "URL "/shop" and what follows it -> BT "Shop", id 2"
std::string vxPatternWords(const VXPatternLine& rule);
// The keywords of a custom rule line, from the rules that it makes alone.
std::string vxCustomWords(const VXBTCustomeRule& alone);
// How names are built.
std::string vxGlobalWords(const VXBTGlobalRule& rule);

}  // namespace vx
