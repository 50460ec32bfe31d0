// Match criteria of custom rules: what stands in the criteria field of a rule line.
//
//     method        GET
//     URI           [input1=startswith&&input2=/shop&&input3=ActivateReverseCondition]
//     parameter     [input2=coupon],[x&&input1=checkForExistance]
//                   [input2=coupon],[x&&input3=contains],[x&&x&&input4=ten]
//
// Of the k-th group of a parameter form only the k-th setting counts. Keys go by their first six characters;
// keys and operator words without regard to case; blanks have no meaning. Behind checkForExistance nothing is
// read, so that the name has to stand before it.
//
// Limits    10 settings or groups, 64 settings in a group; texts are cut at 255 characters.
// Errors    -1: no criteria, and what was to be filled is as before.
// Threads   Any; no state.
#pragma once

#include <cstdint>

#include "commonlibc/context/VXRuleSet.h"

namespace vx {

inline constexpr int kHttpMethodUnknown = 255;
inline constexpr std::uint8_t kMatchUnknown = 255;  // a word that is no operator: never matches

// EQUALS 4, startswith 1, endswith 2, contains 3, matchesRegExp 5, notEmpty 6, inList 7; a text that begins
// with none of these words (case ignored): -1.
int vxbt_match_operator(const char* word);
// The URI form into uriOperator, uriText and uriReverse of the rule. 0 or -1.
int updateUriMatchCriteria(VXBTCustomeRule* rule, const char* text);
// The parameter form. 0 or -1.
int updateParameterListForMatchCriteria(objURIParam* parameter, const char* text);
// GET 0, POST 1, PUT 2, DELETE 3 (case ignored), else 255.
int getHTTPMethodValue(const char* text);

}  // namespace vx
