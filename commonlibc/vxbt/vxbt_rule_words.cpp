#include "commonlibc/vxbt/vxbt_rule_words.h"

#include "commonlibc/VXSettingReport.h"
#include "commonlibc/vxbt/vxbt_automaton.h"

namespace vx {

namespace {

std::string quoted(const std::string& text) {
    return "\"" + vxPrintable(text) + "\"";
}

std::string constraintWords(std::uint8_t constraint) {
    switch (constraint) {
        case kMatchStartsWith:
            return "URL begins with ";
        case kMatchEndsWith:
            return "URL ends with ";
        case kMatchContains:
            return "URL has behind its first character ";
        case kMatchEquals:
            return "URL is ";
        default:
            return "without an operator that a URL can meet: ";
    }
}

std::string baseWords(const VXBTGlobalRule& rule) {
    if (rule.rule_mode == kRuleUrl ||
        (rule.rule_mode == kRuleUrlDynamic && rule.seg_type != kSegNumbers && rule.seg_type != kSegNone))
        return "the URL";
    const std::string count = std::to_string(rule.include_uri_in_name_segment);
    if (rule.include_uri_in_name_segment < 1) return "the URL";
    if (rule.include_uri_in_name_order == kOrderFromFirst)
        return "the first " + count + " segments of the URL";
    if (rule.include_uri_in_name_order == kOrderFromLast) return "the last " + count + " segments of the URL";
    return "the URL";
}

std::string numbersOf(const VXBTGlobalRule& rule) {
    std::string out;
    for (std::int32_t i = 0; i < rule.uri_seg_no_list_length; ++i)
        out += (i ? ", " : "") + std::to_string(rule.uriSegList[i]);
    return out;
}

std::string dynamicWords(const VXBTGlobalRule& rule) {
    switch (rule.seg_type) {
        case kSegNumbers:
            return ", then its segments " + numbersOf(rule);
        case kSegMethod:
            return ", then \".\" and the method";
        case kSegParameter:
            return ", then \".\" and the value of parameter " + quoted(rule.paramName);
        case kSegHeader:
            return ", then \".\" and the value of header " + quoted(rule.headerName);
        default:
            return "";
    }
}

}  // namespace

std::string vxPatternWords(const VXPatternLine& rule) {
    std::string out = "URL " + quoted(rule.url);
    if (rule.matchType == 1) out += *rule.query ? " and what follows it" : " and what goes on from it";
    if (*rule.query) out += ", a parameter " + quoted(rule.query);
    if (*rule.method) out += ", method " + quoted(rule.method);
    if (*rule.header) out += ", header " + quoted(rule.header);
    if (rule.id == kBtIdExcluded) return out + " -> excluded";
    return out + " -> BT " + quoted(rule.name) + ", id " + std::to_string(rule.id);
}

std::string vxCustomWords(const VXBTCustomeRule& alone) {
    std::string out;
    for (std::int32_t i = 0; i < alone.lexiconCount; ++i) {
        const VXBTLexiconEntry& entry = alone.lexicon[i];
        out += (i ? ", or " : "") + constraintWords(entry.constraint) + quoted(entry.keyword);
    }
    if (alone.lexiconCount == 0) return out;
    return out + " -> BT " + quoted(alone.lexicon[0].btName) + ", priority " +
           std::to_string(alone.lexicon[0].priority);
}

std::string vxGlobalWords(const VXBTGlobalRule& rule) {
    const bool named = rule.rule_mode >= kRuleUrl && rule.rule_mode <= kRuleSegmentsDynamic;
    const bool dynamic = rule.rule_mode == kRuleUrlDynamic || rule.rule_mode == kRuleSegmentsDynamic;
    if (!named || (dynamic && rule.seg_type == kSegNone))
        return "no name can be made: every request is excluded";
    return "name: " + baseWords(rule) + (dynamic ? dynamicWords(rule) : "");
}

}  // namespace vx
