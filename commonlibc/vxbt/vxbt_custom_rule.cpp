#include "commonlibc/vxbt/vxbt_custom_rule.h"

#include <cstring>

#include "commonlibc/vxbt/vxbt_automaton.h"
#include "commonlibc/vxbt/vxbt_custom_criteria.h"
#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr int kMaxFields = 16, kFields = 9;
enum Field { kMode = 1, kRuleName, kBtName, kFlag = 5, kPriority, kCriteria };
constexpr std::int32_t kModeMethod = 1, kModeUri = 2, kModeParameter = 3;
constexpr std::size_t kMethodKeywordSize = 64;
constexpr std::uint8_t kNoOperator = 0;
constexpr const char* kFull = "no room for its keywords, a stop and start empties the lexicon";
constexpr const char* kBadKeyword = "a keyword is empty or holds a byte outside 32 to 126";
constexpr const char* kNoCriteria = "the match criteria cannot be read";

struct CustomLine {
    std::int32_t mode, priority;
    const char* btName;
    const char* criteria;
};

const char* criteriaNotFound(const char* criteria) {
    VX_TRACE(1, kBtMon, kWarning, "Match criteria not found returning in field[7] = %s", criteria);
    return kNoCriteria;
}

const char* addKeyword(VXBTCustomeRule& rule, const CustomLine& line, const char* keyword,
                       std::uint8_t matchOperator) {
    const bool room = rule.lexiconCount < kLexiconEntries;
    if (add_to_lexicon(&rule, keyword, line.priority, line.btName, matchOperator) == 0) return nullptr;
    if (!room) return kFull;
    VX_TRACE(1, kBtMon, kWarning, "Custom rule for '%s' is refused: %s", line.btName, kBadKeyword);
    return kBadKeyword;
}

const char* takeMethod(VXBTCustomeRule& rule, const CustomLine& line) {
    const std::int32_t method = getHTTPMethodValue(line.criteria);
    if (method == kHttpMethodUnknown) return criteriaNotFound(line.criteria);
    char keyword[kMethodKeywordSize];
    vxlb_copy_text(keyword, sizeof(keyword), line.criteria);
    const char* fault = addKeyword(rule, line, keyword, kNoOperator);
    if (!fault) rule.methodValue = method;
    return fault;
}

const char* takeUri(VXBTCustomeRule& rule, const CustomLine& line) {
    if (updateUriMatchCriteria(&rule, line.criteria) != 0) return criteriaNotFound(line.criteria);
    const char* fault = addKeyword(rule, line, rule.uriText, static_cast<std::uint8_t>(rule.uriOperator));
    if (!fault) ++rule.uriRuleCount;
    return fault;
}

// Each accepted line brings a keyword, so that the parameters have room as long as the lexicon has.
const char* takeParameter(VXBTCustomeRule& rule, const CustomLine& line) {
    objURIParam parameter{};
    if (updateParameterListForMatchCriteria(&parameter, line.criteria) != 0)
        return criteriaNotFound(line.criteria);
    const std::uint8_t ofName = parameter.checkForExistance ? kNoOperator : parameter.matchOperator;
    const char* fault = addKeyword(rule, line, parameter.name, ofName);
    if (!fault && *parameter.value) fault = addKeyword(rule, line, parameter.value, parameter.matchOperator);
    if (!fault) rule.parameters[rule.parameterCount++] = parameter;
    return fault;
}

const char* takeCriteria(VXBTCustomeRule& rule, const CustomLine& line) {
    switch (line.mode) {
        case kModeMethod:
            return takeMethod(rule, line);
        case kModeUri:
            return takeUri(rule, line);
        case kModeParameter:
            return takeParameter(rule, line);
        default:
            VX_TRACE(1, kBtMon, kWarning, "Invalid rule mode given in field 1 = %d", line.mode);
            return "the mode is none of 1 to 3";
    }
}

}  // namespace

const char* parse_custom_rule(VXRuleBuild& build, char* text) {
    char* fields[kMaxFields];
    const int count = vxlb_split_keep_empty(text, fields, "|", kMaxFields);
    if (count != kFields) {
        VX_TRACE(1, kControlThread, kWarning,
                 "Number of fields in BTRule File for custom rule is != 9, Hence applying Default rule");
        return "not 9 fields";
    }
    const CustomLine line{vxbt_int(fields[kMode]), vxbt_int(fields[kPriority]), fields[kBtName],
                          fields[kCriteria]};
    if (!*line.criteria || std::strcmp(line.criteria, "-") == 0) return criteriaNotFound(line.criteria);
    VXBTCustomeRule& rule = build.set->customRule;
    const std::int32_t keywords = rule.lexiconCount, lengths = rule.keywordLengthSum;
    if (const char* fault = takeCriteria(rule, line)) {
        rule.lexiconCount = keywords;
        rule.keywordLengthSum = lengths;
        return fault;
    }

    rule.mode = line.mode;
    rule.priority = line.priority;
    vxlb_copy_text(rule.ruleName, sizeof(rule.ruleName), fields[kRuleName]);
    vxlb_copy_text(rule.btName, sizeof(rule.btName), fields[kBtName]);
    rule.flag = std::strcmp(fields[kFlag], "1") == 0 ? 1 : 0;
    ++build.customLines;
    return nullptr;
}

}  // namespace vx
