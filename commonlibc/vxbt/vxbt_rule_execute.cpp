#include "commonlibc/vxbt/vxbt_rule_execute.h"

#include <algorithm>
#include <cstring>

#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/vxbt/vxbt_automaton.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxbt/vxbt_header_stage.h"
#include "commonlibc/vxbt/vxbt_state_machine.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::size_t kParamValueSize = 257;
constexpr std::size_t kSegmentedUrlSize = 256;
constexpr int kMaxUrlTokens = 32;
constexpr const char* kNoCustomRule = "others";  // another BT than the one with a capital

const VXBTGlobalRule* globalRule() {
    return vxCurrent()->bt.global_rule.load(std::memory_order_acquire);
}

const VXBTRuleSet* ruleSet() {
    return vxCurrent()->bt.ruleSet.load(std::memory_order_acquire);
}

// Custom rules are asked once they have a machine.
bool hasCustomRules(const VXBTRuleSet* set) {
    return set && set->customRule.mode != 0 && set->customMachine.total_states > 0;
}

bool isEmpty(const char* text) {
    return !text || !*text;
}

char* joinName(const char* base, const char* dynamicPart, char* out) {
    const std::size_t size = dynamicPart ? kBtNameBufferSize : kBtNameSize;
    VXWriter name(out, size);
    name.text(base);
    if (dynamicPart) name.put('.').text(dynamicPart);
    name.terminate();
    return out;
}

// What stands behind the dot, null where the request does not have it.
const char* dynamicPartOf(const VXBTGlobalRule& rule, const char* query, const char* method,
                          const char* headerPart, char* paramValue) {
    switch (rule.seg_type) {
        case kSegMethod:
            return isEmpty(method) ? nullptr : method;
        case kSegParameter:
            return get_param_value(query, paramValue);
        default:
            return headerPart;
    }
}

bool hasDottedPart(const VXBTGlobalRule& rule) {
    return rule.seg_type == kSegMethod || rule.seg_type == kSegParameter || rule.seg_type == kSegHeader;
}

// The base and behind it the segments whose numbers (from 1) the rule lists, up to the first that is not
// there.
char* nameFromSegmentNumbers(const VXBTGlobalRule& rule, const char* base, const char* url, char* out) {
    char text[kUrlSize];
    char* tokens[kMaxUrlTokens];
    vxlb_copy_text(text, sizeof(text), url);
    const int count = vxlb_get_tokens_with_multi_delimiter(text, tokens, "/", kMaxUrlTokens);

    VXWriter name(out, kBtNameBufferSize);
    name.text(base);
    for (std::int32_t i = 0; i < rule.uri_seg_no_list_length; ++i) {
        const std::int32_t number = rule.uriSegList[i];
        if (number < 1 || number > count) break;
        name.put('/').text(tokens[number - 1]);
    }
    name.terminate();
    return out;
}

char* nameFromSegments(const VXBTGlobalRule& rule, const char* url, const char* dynamicPart, char* out) {
    char base[kBtNameBufferSize];
    get_bt_name_from_url(url, base);
    if (rule.seg_type == kSegNumbers) return nameFromSegmentNumbers(rule, base, url, out);
    if (hasDottedPart(rule)) {
        joinName(base, dynamicPart, out);
        VX_TRACE(2, kBtMon, kInfo, "BT set:%s", out);
        return out;
    }
    *out = '\0';
    return nullptr;
}

// From the slash, counted from the last character, that completes `count`; index 0 is not looked at.
const char* lastSegments(const char* url, std::int32_t count) {
    std::int32_t seen = 0;
    for (std::size_t i = std::strlen(url); i-- > 1;)
        if (url[i] == '/' && ++seen == count) return url + i;
    return url;
}

// Length of the URL up to the slash that goes beyond `count`.
std::size_t firstSegmentsLength(const char* url, std::int32_t count) {
    std::int32_t seen = 0;
    std::size_t i = 0;
    for (; url[i]; ++i)
        if (url[i] == '/' && ++seen > count) break;
    return i;
}

// Of the two machines: an id, 0 or below where they find nothing.
std::int32_t idOfPatternRule(const char* url, const char* query, char* headerValue, const char* method) {
    const VXBTRuleSet* rules = ruleSet();
    if (!rules) return kBtIdOthers;
    const auto length = static_cast<std::int64_t>(std::strlen(url));
    const std::int32_t id = vxlb_state_machine_search(&rules->urlMachine, url, length, query, method);
    if (id <= kBtIdOthers) return id;
    return getBTHeader(&rules->headerMachine, headerValue, headerValue ? std::strlen(headerValue) : 0, id);
}

BTObject* objectOfPatternRule(const char* url, const char* query, char* headerValue, const char* method) {
    std::int32_t id = idOfPatternRule(url, query, headerValue, method);
    VX_TRACE(2, kBtMon, kInfo, "Pattern rule : Got id = '%d' for complete_url = '%s'", id, url);
    if (id == kBtIdExcluded) {
        VX_TRACE(2, kBtMon, kInfo, "Pattern rule : Got id = '%d', excluding for complete_url = '%s'", id,
                 url);
        return nullptr;
    }
    if (id <= 0) {
        VX_TRACE(2, kBtMon, kError, "Pattern rule : Got id = '%d', setting to 1 for complete_url = '%s'", id,
                 url);
        id = kBtIdOthers;
    }
    const auto& array = vxCurrent()->bt.aggDataArr;
    if (const VXBTMonitorDataCounters* slot = vxAggSlot(array, id))
        return slot->btObj.load(std::memory_order_acquire);
    VX_TRACE(1, kBtMon, kError, "aggDataArraySize(%d) <= id(%d), hence no btobj found", array.size.load(),
             id);
    return nullptr;
}

// Cuts `text` before the first `mark`; what stands behind it.
std::string_view cutAt(std::string_view& text, char mark) {
    const std::size_t at = text.find(mark);
    if (at == std::string_view::npos) return {};
    const std::string_view behind = text.substr(at + 1);
    text = text.substr(0, at);
    return behind;
}

}  // namespace

VXUrlParts vxSplitUrl(std::string_view text) {
    VXUrlParts parts;
    parts.method = cutAt(text, '|');
    parts.query = cutAt(text, '?');
    parts.path = text;
    return parts;
}

BTObject* get_obj_from_bt_name(const char* url, const char* uRLParameters, char* headerValue,
                               apr_thread_mutex_t* lock, const char* httpMethod) {
    const VXBTState_t& bt = vxCurrent()->bt;
    char name[kBtNameBufferSize] = "";
    const char* headerPart = getBtBaseOnHeader(headerValue);
    if (bt.applicableRule.load(std::memory_order_relaxed) == kPatternRule)
        return objectOfPatternRule(url, uRLParameters, headerValue, httpMethod);

    if (hasCustomRules(ruleSet())) {
        vxbt_execute_custom_rule(url, name);
    } else {
        vxbt_execute_global_rule(url, uRLParameters, httpMethod, headerPart, name);
    }
    VXGuard guard(lock);
    return updateBTObject(name);
}

char* vxbt_execute_global_rule(const char* url, const char* uRLParameters, const char* httpMethod,
                               const char* headerPart, char* out) {
    const VXBTGlobalRule* rule = globalRule();
    if (!rule) {
        VX_TRACE(1, kBtMon, kWarning, "global_rule is NULL.");
        return joinName(kOthersName, nullptr, out);
    }
    char paramValue[kParamValueSize];
    const char* dynamicPart = dynamicPartOf(*rule, uRLParameters, httpMethod, headerPart, paramValue);
    switch (rule->rule_mode) {
        case kRuleUrl:
            joinName(url, nullptr, out);
            VX_TRACE(2, kBtMon, kInfo, "btName is :%s and uri is :%s", out, url);
            return out;
        case kRuleSegments:
            return get_bt_name_from_url(url, out);
        case kRuleUrlDynamic:
            if (hasDottedPart(*rule)) return joinName(url, dynamicPart, out);
            [[fallthrough]];
        case kRuleSegmentsDynamic:
            return nameFromSegments(*rule, url, dynamicPart, out);
        default:
            return nullptr;
    }
}

char* vxbt_execute_custom_rule(const char* url, char* out) {
    const VXBTRuleSet* set = ruleSet();
    const char* name = set ? search_match_machine(url, &set->customMachine, &set->customRule) : nullptr;
    vxlb_copy_text(out, kBtNameBufferSize, name ? name : kNoCustomRule);
    return out;
}

char* get_bt_name_from_url(const char* url, char* out) {
    *out = '\0';
    if (!url) {
        VX_TRACE(1, kBtMon, kError, "URL is empty");
        return out;
    }
    char text[kSegmentedUrlSize];
    vxlb_copy_text(text, sizeof(text), url);
    const VXBTGlobalRule* rule = globalRule();
    const std::int32_t order = rule ? rule->include_uri_in_name_order : kOrderNone;
    const std::int32_t count = rule ? rule->include_uri_in_name_segment : 0;
    const char* first = text;
    if (order != kOrderNone && count >= 1) {
        if (order == kOrderFromLast) {
            first = lastSegments(text, count);
        } else {
            text[firstSegmentsLength(text, count)] = '\0';
        }
    }
    vxlb_copy_text(out, kBtNameSize, first);
    return out;
}

char* get_param_value(const char* query, char* out) {
    const VXBTGlobalRule* rule = globalRule();
    if (!rule || !query) return nullptr;
    const char* pair = query;
    if (std::strncmp(query, rule->paramPrefix, static_cast<std::size_t>(rule->prefixLength)) != 0) {
        pair = std::strstr(query, rule->paramInfix);
        if (!pair) return nullptr;
        ++pair;  // behind its "&"
    }
    const char* value = std::strchr(pair, '=');
    if (!value) return nullptr;
    ++value;
    const std::size_t length = std::min(std::strcspn(value, "&"), kParamValueSize - 1);
    std::memcpy(out, value, length);
    out[length] = '\0';
    return out;
}

char* getBtBaseOnHeader(char* headerValue) {
    const VXBTGlobalRule* rule = globalRule();
    if (!headerValue || !rule || !*rule->headerName) return nullptr;
    char* pair = std::strstr(headerValue, rule->headerName);
    char* end = pair ? std::strchr(pair, '&') : nullptr;
    if (!end) return nullptr;
    *end = '\0';
    char* equals = std::strchr(pair, '=');
    if (!equals) return nullptr;
    *equals = '\0';
    return equals + 1;
}

}  // namespace vx
