// Pattern rules: one line for each, with a URL pattern that names a BT or excludes the request.
//
//     7|name|id|match|pattern|exclude|mode|query|method|header|-|-|selfId|parentId|...|tags
//     7|Cart|5|1|/shop/cart|0
//
//     match          0 exact, 1 the pattern begins the URL
//     pattern        "*" stands for any text
//     exclude        not 0: requests that match are no transactions
//     mode           0 URL, 1 and query, 2 and method, 3 and both; read from 8 fields on
//     header         a pair "name=value" that the request must have; "-" or "NA": none; read from 10 on
//     selfId         kept for the rule set, like parentId; "-": none
//
// The first accepted line of a text begins new machines; header pairs count only if that line has one.
//
// Limits    Names and patterns of 255 characters; ids up to 65,535.
// Errors    As told by parse_pattern_rule.
// Threads   As the build.
#pragma once

#include "commonlibc/vxbt/vxbt_rule_build.h"

namespace vx {

// A pattern line taken apart.
struct VXPatternLine {
    char name[256];
    char pattern[256];   // what the URL machine gets, made of url and query
    const char* url;     // in the line
    const char* query;   // likewise; empty where the mode asks for none
    const char* method;  // likewise
    const char* header;  // likewise; empty: none
    std::int32_t id;     // kBtIdExcluded for an exclusion
    std::int32_t matchType, mode, excludeMode;
    std::int32_t selfId, parentId;
};

// Takes a line apart (it is changed). Null, or why it is refused.
const char* vxSplitPatternLine(char* line, VXPatternLine& pattern, char*& tags);
// Adds a line to a build; an accepted one raises patternLines. Null, or why the line has no effect or not
// all of it.
const char* parse_pattern_rule(VXRuleBuild& build, char* line);

}  // namespace vx
