#include "commonlibc/vxbt/vxbt_rule_explain.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "commonlibc/VXSettingReport.h"
#include "commonlibc/vxbt/vxbt_header_stage.h"
#include "commonlibc/vxbt/vxbt_rule_parser.h"
#include "commonlibc/vxbt/vxbt_rule_probe.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr std::int32_t kProbeId = 2;
constexpr std::int32_t kModeUrl = 0, kModeQuery = 1, kModeMethod = 2, kModeBoth = 3;

// A pattern line with the text that it points into.
struct Pattern {
    int number = 0;  // 0: no line that the machines know
    char text[kRuleLineSize];
    VXPatternLine rule;

    explicit Pattern(const VXReadLine& line) {
        char* tags = nullptr;
        vxlb_copy_text(text, sizeof(text), line.text.c_str());
        if (line.type == kLinePattern && !vxSplitPatternLine(text, rule, tags)) number = line.number;
    }
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    bool asksQuery() const { return rule.mode == kModeQuery || rule.mode == kModeBoth; }
    bool asksMethod() const { return rule.mode == kModeMethod || rule.mode == kModeBoth; }
};

struct Asked {
    VXRuleReading& reading;
    const VXRuleRequest& request;
    const char* header;  // may be null
    VXRuleReading::Answer answer;
    int winner;                    // number of the line that URL, query and method lead to; 0: none
    const VXReadLine* winnerLine;  // null: none
};

std::string quoted(const std::string& text) {
    return "\"" + vxPrintable(text) + "\"";
}

std::string lineWords(int line) {
    return "line " + std::to_string(line);
}

const VXReadLine* lineAt(const VXRuleReading& reading, int number) {
    const auto at = std::find_if(reading.lines().begin(), reading.lines().end(),
                                 [number](const VXReadLine& line) { return line.number == number; });
    return at == reading.lines().end() ? nullptr : &*at;
}

// Whether a rule of these parts, alone in a machine, takes the request.
bool takes(const std::string& pattern, const char* method, std::int32_t matchType, std::int32_t mode,
           const VXRuleRequest& request) {
    if (pattern.empty()) return false;
    VXProbeMachine alone;
    alone.add(pattern, method, kProbeId, matchType, mode);
    return alone.search(request) == kProbeId;
}

bool takesWhole(const Pattern& line, const VXRuleRequest& request) {
    return takes(line.rule.pattern, line.rule.method, line.rule.matchType, line.rule.mode, request);
}

// Where the URL leaves the pattern.
std::string urlReason(const Pattern& line, const VXRuleRequest& request) {
    const std::string url = line.rule.url;
    const VXRuleRequest bare{request.url, "", ""};
    if (takes(url, "", 1, kModeUrl, bare))
        return "the URL goes on behind " + quoted(url) + ", and the rule is exact";
    std::size_t fits = 0;  // what fits is a prefix, which halving finds
    for (std::size_t fails = url.size(); fits + 1 < fails;) {
        const std::size_t middle = (fits + fails) / 2;
        (takes(url.substr(0, middle), "", 1, kModeUrl, bare) ? fits : fails) = middle;
    }
    if (fits == 0) return "the URL does not begin as " + quoted(url) + " does";
    return "the URL fits " + quoted(url) + " only as far as " + quoted(url.substr(0, fits));
}

std::string partsReason(const Pattern& line, const VXRuleRequest& request) {
    const std::string query = line.rule.query, method = line.rule.method;
    const char* exactOnly = "the URL needed its \"*\": then only partial rules ask for query and method";
    VXRuleRequest fitting = request;
    if (line.asksQuery()) {
        fitting.query = query;
        if (line.asksMethod()) fitting.method = method;
        if (!takesWhole(line, fitting))
            return line.rule.matchType == 1 ? urlReason(line, request) : exactOnly;
        fitting.query = request.query;
        if (request.query.empty()) return "the request has no query, the rule asks for " + quoted(query);
        if (!takesWhole(line, fitting))
            return "no parameter of the query " +
                   std::string(line.rule.matchType == 1 ? "begins with " : "is ") + quoted(query);
    }
    if (!line.asksMethod()) return "URL and query do not come together as the rule asks";
    fitting.method = method;
    if (!takesWhole(line, fitting)) return exactOnly;
    return (request.method.empty() ? "the request has no method"
                                   : "the method is " + vxPrintable(request.method)) +
           ", the rule asks for " + vxPrintable(method);
}

std::string failReason(const Pattern& line, const VXRuleRequest& request) {
    const bool urlFits = takes(line.rule.url, "", line.rule.matchType, kModeUrl, {request.url, "", ""});
    return urlFits && line.rule.mode != kModeUrl ? partsReason(line, request) : urlReason(line, request);
}

// Why `winner` goes before a line that would take the request, too.
std::string outdoneReason(const Pattern& line, const Pattern& winner) {
    const std::string other = lineWords(winner.number);
    const VXPatternLine &mine = line.rule, &its = winner.rule;
    if (!std::strcmp(mine.pattern, its.pattern) && !std::strcmp(mine.method, its.method) &&
        mine.matchType == its.matchType)
        return other + " has the same pattern and stands behind it";
    const bool asksMore =
        (winner.asksQuery() && !line.asksQuery()) || (winner.asksMethod() && !line.asksMethod());
    if (asksMore) return other + " asks for more of the request";
    if (mine.matchType == 1 && its.matchType != 1) return other + " is exact";
    if (std::strlen(its.url) > std::strlen(mine.url)) return other + " fits more of the URL";
    return other + " goes before it";
}

bool hasHeader(const Pattern& line, const char* header) {
    if (!header) return false;
    VXProbeMachine alone;
    std::string pairs = header;
    vxlb_state_machine_add_header(&alone, line.rule.header, std::strlen(line.rule.header), line.rule.id,
                                  line.rule.matchType);
    return getBTHeader(&alone, pairs.data(), pairs.size(), line.rule.id) == line.rule.id;
}

// Several lines may ask for one id with different headers: the last one leads to the id, any of them names
// it.
int namingLine(const Asked& asked) {
    if (!asked.winnerLine) return 0;
    const Pattern winner(*asked.winnerLine);
    if (!*winner.rule.header || !asked.winnerLine->fault.empty()) return asked.winner;
    if (asked.answer.id != winner.rule.id) return 0;
    if (hasHeader(winner, asked.header)) return asked.winner;
    for (const VXReadLine& line : asked.reading.lines()) {
        const Pattern other(line);
        if (other.number && other.rule.id == winner.rule.id && *other.rule.header &&
            hasHeader(other, asked.header) && takesWhole(other, asked.request))
            return line.number;
    }
    return asked.winner;
}

VXLineReason patternReason(const Asked& asked, const VXReadLine& line, int naming) {
    const Pattern pattern(line);
    if (!pattern.number) return {VXLineVerdict::kMute, line.fault};
    if (line.number == naming)
        return {VXLineVerdict::kNames, pattern.rule.id == kBtIdExcluded
                                           ? "takes the request, which is excluded"
                                           : "takes the request"};
    if (!takesWhole(pattern, asked.request))
        return {VXLineVerdict::kFails, failReason(pattern, asked.request)};
    const bool asksHeader = *pattern.rule.header && line.fault.empty();
    if (asksHeader && !hasHeader(pattern, asked.header))
        return {VXLineVerdict::kFails,
                "the request does not have the header " + quoted(pattern.rule.header) +
                    (naming == 0 && line.number == asked.winner ? ", so that it is \"Others\"" : "")};
    if (!asked.winnerLine || asked.winner == line.number)
        return {VXLineVerdict::kFails, "takes it, but names no BT"};
    return {VXLineVerdict::kOutdone, outdoneReason(pattern, Pattern(*asked.winnerLine))};
}

// What keeps one keyword from counting; empty: it counts.
std::string keywordFault(const VXBTCustomeRule& rule, std::int32_t index, const std::string& url) {
    const VXBTLexiconEntry& entry = rule.lexicon[index];
    const std::string word = quoted(entry.keyword);
    if (entry.constraint < kMatchStartsWith || entry.constraint > kMatchEquals)
        return "its keyword " + word + " has no operator that a URL can meet";
    std::size_t at = url.find(entry.keyword);
    if (at == std::string::npos) return word + " is not in the URL";
    for (; at != std::string::npos; at = url.find(entry.keyword, at + 1))
        if (check_for_match_constraint(rule, index, static_cast<std::int32_t>(at),
                                       static_cast<std::int32_t>(url.size())))
            return entry.priority < 0 ? "a priority below 0 never wins" : "";
    switch (entry.constraint) {
        case kMatchStartsWith:
            return word + " is in the URL, but does not begin it";
        case kMatchEndsWith:
            return word + " is in the URL, but does not end it";
        case kMatchContains:
            return word + " stands only at the very beginning of the URL, where it does not count";
        default:
            return word + " is not the whole URL";
    }
}

VXLineReason customReason(const Asked& asked, const VXReadLine& line) {
    const auto alone = std::make_unique<VXBTCustomeRule>();
    if (!line.fault.empty() || !asked.reading.customsOf(line, *alone))
        return {VXLineVerdict::kMute, line.fault};
    if (line.number == asked.winner) return {VXLineVerdict::kNames, "its keyword is the best in the URL"};
    std::string faults;
    for (std::int32_t i = 0; i < alone->lexiconCount; ++i) {
        const std::string fault = keywordFault(*alone, i, asked.request.url);
        if (fault.empty()) {
            const auto winner = std::make_unique<VXBTCustomeRule>();
            const bool higher = asked.winnerLine && asked.reading.customsOf(*asked.winnerLine, *winner) &&
                                winner->priority > alone->priority;
            return {VXLineVerdict::kOutdone,
                    lineWords(asked.winner) +
                        (higher ? " has a higher priority" : " has the same priority and comes later")};
        }
        faults += (faults.empty() ? "" : "; ") + fault;
    }
    return {VXLineVerdict::kFails, faults};
}

VXLineReason reasonOf(const Asked& asked, const VXReadLine& line, int naming) {
    switch (line.type) {
        case kLinePattern:
            return patternReason(asked, line, naming);
        case kLineCustom:
            return customReason(asked, line);
        case kLineGlobal:
            if (!line.fault.empty()) return {VXLineVerdict::kMute, line.fault};
            return {VXLineVerdict::kNames, line.meaning};
        case kLineSkipCount:
        case kLineMaxStates:
            return {VXLineVerdict::kMute, "a setting"};
        default:
            return {VXLineVerdict::kMute, line.fault.empty() ? "a comment" : line.fault};
    }
}

std::string whyOf(const Asked& asked, int naming) {
    const std::string given =
        asked.answer.bt.empty() ? "excludes the request" : "names it " + quoted(asked.answer.bt);
    if (naming > 0) return lineWords(naming) + " " + given;
    if (asked.winner > 0)
        return lineWords(asked.winner) +
               " takes URL, query and method, but asks for a header that is not there: it is " +
               quoted(asked.answer.bt);
    switch (asked.reading.deciding()) {
        case VXRulesDeciding::kPatterns:
            return "no pattern rule takes it: it is " + quoted(asked.answer.bt);
        case VXRulesDeciding::kCustoms:
            return "no custom rule takes it: it is " + quoted(asked.answer.bt);
        default:
            return "the default rule " + given;
    }
}

}  // namespace

VXExplanation vxExplainRequest(VXRuleReading& reading, const VXRuleRequest& request, const char* header) {
    const int winner = reading.lineOf(request);
    const Asked asked{
        reading, request, header, reading.classify(request, header), winner, lineAt(reading, winner)};
    const int naming = reading.deciding() == VXRulesDeciding::kPatterns ? namingLine(asked) : asked.winner;
    VXExplanation out{asked.answer, naming, whyOf(asked, naming), {}};
    for (const VXReadLine& line : reading.lines()) out.lines.push_back(reasonOf(asked, line, naming));
    return out;
}

}  // namespace vx
