#include "commonlibc/vxbt/vxbt_custom_criteria.h"

#include <strings.h>

#include <cstring>

#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr std::size_t kCriteriaSize = 1024;  // of a whole field: a rule line is not longer
constexpr std::size_t kKeyLength = 6;        // of "input1"
constexpr int kMaxParts = 10, kMaxGroupParts = 64;
constexpr const char* kReverse = "ActivateReverseCondition";
constexpr const char* kExistence = "checkForExistance";
constexpr const char* kMethodNames[] = {"GET", "POST", "PUT", "DELETE"};

struct OperatorRow {
    const char* word;
    int value;
};
constexpr OperatorRow kOperators[] = {
    {"EQUALS", 4},        {"startswith", 1}, {"endswith", 2}, {"contains", 3},
    {"matchesRegExp", 5}, {"notEmpty", 6},   {"inList", 7},
};

bool beginsWith(const char* text, const char* word) {
    return strncasecmp(text, word, std::strlen(word)) == 0;
}

// What stands between the last "[" and the last "]", in place; null without them.
char* insideBrackets(char* text) {
    char* open = std::strrchr(text, '[');
    char* close = std::strrchr(text, ']');
    if (!open || !close || close < open) return nullptr;
    *close = '\0';
    return open + 1;
}

struct Setting {
    int number;  // of "input1" to "input9"; 0: another key
    char* value;
};

// Takes "inputN=value" apart in place; false without a key or a value.
bool readSetting(char* text, Setting& out) {
    vxlb_remove_whitespaces(text);
    char* equals = std::strchr(text, '=');
    if (!equals || equals == text || !equals[1]) return false;
    *equals = '\0';
    const bool isInput = static_cast<std::size_t>(equals - text) >= kKeyLength && beginsWith(text, "input");
    const char digit = isInput ? text[kKeyLength - 1] : '0';
    out = {digit >= '1' && digit <= '9' ? digit - '0' : 0, equals + 1};
    return true;
}

std::uint8_t operatorOf(const char* word) {
    const int value = vxbt_match_operator(word);
    return value < 0 ? kMatchUnknown : static_cast<std::uint8_t>(value);
}

struct UriCriteria {
    std::uint8_t matchOperator = kMatchUnknown;
    const char* text = "";
    bool reverse = false;
};

bool takeUriSetting(const Setting& setting, UriCriteria& out) {
    switch (setting.number) {
        case 1:
            out.matchOperator = operatorOf(setting.value);
            return true;
        case 2:
            out.text = setting.value;
            return true;
        case 3:
            out.reverse = std::strcmp(setting.value, kReverse) == 0;
            return true;
        default:
            return false;
    }
}

// False when nothing more is to be read: that the parameter is there is enough.
bool takeParameterSetting(const Setting& setting, objURIParam& out) {
    switch (setting.number) {
        case 1:
            out.checkForExistance = beginsWith(setting.value, kExistence);
            if (out.checkForExistance) out.matchOperator = 0;
            break;
        case 2:
            vxlb_copy_text(out.name, sizeof(out.name), setting.value);
            break;
        case 3:
            out.matchOperator = operatorOf(setting.value);
            break;
        case 4:
            vxlb_copy_text(out.value, sizeof(out.value), setting.value);
            break;
        default:
            break;
    }
    return !out.checkForExistance;
}

}  // namespace

int vxbt_match_operator(const char* word) {
    for (const OperatorRow& row : kOperators)
        if (word && beginsWith(word, row.word)) return row.value;
    return -1;
}

int updateUriMatchCriteria(VXBTCustomeRule* rule, const char* text) {
    if (!text) {
        VX_TRACE(1, kBtMon, kError, "Input string found NULL");
        return -1;
    }
    char copy[kCriteriaSize];
    vxlb_copy_text(copy, sizeof(copy), text);
    char* inside = insideBrackets(copy);
    if (!inside) return -1;

    char* parts[kMaxParts];
    const int count = vxlb_split_keep_empty(inside, parts, "&&", kMaxParts);
    UriCriteria read;
    for (int i = 0; i < count; ++i) {
        Setting setting{};
        if (!readSetting(parts[i], setting) || !takeUriSetting(setting, read)) return -1;
    }
    rule->uriOperator = read.matchOperator;
    vxlb_copy_text(rule->uriText, sizeof(rule->uriText), read.text);
    rule->uriReverse = read.reverse;
    VX_TRACE(2, kBtMon, kInfo, "matchString=%s; substring=%s", text, rule->uriText);
    return 0;
}

int updateParameterListForMatchCriteria(objURIParam* parameter, const char* text) {
    if (!text) return -1;
    char copy[kCriteriaSize];
    vxlb_copy_text(copy, sizeof(copy), text);
    char* groups[kMaxParts];
    const int count = vxlb_get_tokens_with_multi_delimiter(copy, groups, ",", kMaxParts);
    if (count == 0) return -1;

    objURIParam read{};
    for (int k = 0; k < count; ++k) {
        char* inside = insideBrackets(groups[k]);
        if (!inside) return -1;
        char* parts[kMaxGroupParts];
        const int partCount = vxlb_split_keep_empty(inside, parts, "&&", kMaxGroupParts);
        VX_TRACE(2, kBtMon, kInfo, "num_param=%d; num_tokens=%d", count, partCount);
        if (k >= partCount) continue;
        Setting setting{};
        if (!readSetting(parts[k], setting)) return -1;
        if (!takeParameterSetting(setting, read)) break;
    }
    *parameter = read;
    return 0;
}

int getHTTPMethodValue(const char* text) {
    if (!text) {
        VX_TRACE(1, kBtMon, kError, "Method passed is NULL");
        return kHttpMethodUnknown;
    }
    for (int value = 0; const char* name : kMethodNames) {
        if (strcasecmp(text, name) == 0) return value;
        ++value;
    }
    VX_TRACE(1, kBtMon, kError, "Invalid method name is passed");
    return kHttpMethodUnknown;
}

}  // namespace vx
