#include "commonlibc/vxbt/vxbt_global_rule.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxbt/vxbt_tags.h"
#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr int kMaxFields = 10, kMinFields = 9;
enum Field { kMode = 1, kOrder = 4, kCount = 5, kDynamicPart = 6, kArgument = 7 };
constexpr int kMaxSegments = std::extent_v<decltype(VXBTGlobalRule::uriSegList)>;
constexpr const char* kNone = "-";
constexpr const char* kDefaultSegments = "1%2C2";

using Fields = std::array<char*, kMaxFields>;

bool isNone(const char* text) {
    return std::strcmp(text, kNone) == 0;
}

void takeNothing(VXBTGlobalRule&, const char*) {}

void takeParameter(VXBTGlobalRule& rule, const char* argument) {
    vxlb_copy_text(rule.paramName, sizeof(rule.paramName), argument);
    rule.prefixLength = std::snprintf(rule.paramPrefix, sizeof(rule.paramPrefix), "%s=", rule.paramName);
    rule.infixLength = std::snprintf(rule.paramInfix, sizeof(rule.paramInfix), "&%s=", rule.paramName);
}

void takeHeader(VXBTGlobalRule& rule, const char* argument) {
    vxlb_copy_text(rule.headerName, sizeof(rule.headerName), argument);
}

void takeSegments(VXBTGlobalRule& rule, const char* argument) {
    char text[kRuleLineSize];
    char* numbers[kMaxSegments];
    vxlb_copy_text(text, sizeof(text), isNone(argument) ? kDefaultSegments : argument);
    const int count = vxlb_split_keep_empty(text, numbers, "%2C", kMaxSegments);
    std::transform(numbers, numbers + count, rule.uriSegList, vxbt_int);
    rule.uri_seg_no_list_length = count;
}

struct DynamicPartRow {
    const char* name;
    std::int32_t seg_type;
    void (*take)(VXBTGlobalRule& rule, const char* argument);
};
constexpr DynamicPartRow kDynamicParts[] = {
    {"Request-Method", kSegMethod, takeNothing},
    {"Request-Parameter-Value", kSegParameter, takeParameter},
    {"Request-Header", kSegHeader, takeHeader},
    {"Request-URI-Segments-Numbers", kSegNumbers, takeSegments},
};

// An unknown text leaves seg_type 0: no name under rule mode 4.
void takeDynamicPart(VXBTGlobalRule& rule, const Fields& fields) {
    const char* name = fields[kDynamicPart];
    if (!*name || isNone(name)) return;
    rule.rule_mode = rule.rule_mode == kRuleUrl ? kRuleUrlDynamic : kRuleSegmentsDynamic;
    VX_TRACE(2, kBtMon, kInfo, "rule mode is:%d", rule.rule_mode);
    for (const DynamicPartRow& row : kDynamicParts) {
        if (std::strcmp(name, row.name) != 0) continue;
        rule.seg_type = row.seg_type;
        row.take(rule, fields[kArgument]);
    }
}

std::int32_t orderOf(const char* text) {
    if (std::strstr(text, "FromFirst")) return kOrderFromFirst;
    return std::strstr(text, "FromLast") ? kOrderFromLast : kOrderNone;
}

void fillRule(VXBTGlobalRule& rule, const Fields& fields) {
    rule.rule_mode = vxbt_int(fields[kMode]);
    rule.include_uri_in_name_order = orderOf(fields[kOrder]);
    if (!isNone(fields[kCount])) rule.include_uri_in_name_segment = vxbt_int(fields[kCount]);
    takeDynamicPart(rule, fields);
}

// The list of the rule's tags is replaced, whatever else becomes of the line.
void takeTags(VXRuleBuild& build, char* tags) {
    VXBTTags& lists = build.set->tags;
    clearGlobalTags(lists, build.tagsInForce());
    if (!isNone(tags) && !parse_global_tags(lists, build.tagsInForce(), tags)) build.fail();
}

// The fields of the line, or of the default rule where they are too few: then false.
bool splitRule(VXRuleBuild& build, char* line, Fields& fields) {
    const int count = vxlb_split_keep_empty(line, fields.data(), "|", kMaxFields);
    VX_TRACE(2, kBtMon, kInfo, "num_token = %d", count);
    if (count > 0) takeTags(build, fields[static_cast<std::size_t>(count) - 1]);
    if (count >= kMinFields) return true;

    VX_TRACE(1, kControlThread, kWarning,
             "Number of fields in BTRule File for Global rule is less than 8, Hence applying Default rule");
    vxlb_copy_text(line, kRuleLineSize, kDefaultGlobalRule);
    vxlb_split_keep_empty(line, fields.data(), "|", kMaxFields);
    return false;
}

}  // namespace

const char* parse_global_rule(VXRuleBuild& build, char* line) {
    auto* rule =
        static_cast<VXBTGlobalRule*>(VXLB_MALLOC_AND_MEMSET(sizeof(VXBTGlobalRule), "VXBTGlobalRule", -1));
    if (!rule) {
        build.fail();
        return nullptr;
    }
    Fields fields{};
    const bool whole = splitRule(build, line, fields);
    fillRule(*rule, fields);
    VX_TRACE(
        2, kBtMon, kInfo,
        "include_uri_in_name_order = %d, include_uri_in_name_segment = %d,rule_mode = %d, seg_type = %d, "
        "uri_seg_no_list_length = %d",
        rule->include_uri_in_name_order, rule->include_uri_in_name_segment, rule->rule_mode, rule->seg_type,
        rule->uri_seg_no_list_length);
    build.takeGlobalRule(rule);
    return whole ? nullptr : "fewer than 9 fields, the default rule stands in";
}

int parse_global_rule(char* line) {
    VXRuleBuild build;
    if (!build.good()) return 0;
    build.applicable = vxCurrent()->bt.applicableRule.load(std::memory_order_relaxed);
    parse_global_rule(build, line);
    build.commit();
    return 0;
}

}  // namespace vx
