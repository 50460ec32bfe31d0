#include "commonlibc/vxbt/vxbt_rule_check.h"

#include <apr_general.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include "commonlibc/VXSettingReport.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxbt/vxbt_config.h"
#include "commonlibc/vxbt/vxbt_custom_rule.h"
#include "commonlibc/vxbt/vxbt_rule_execute.h"
#include "commonlibc/vxbt/vxbt_rule_parser.h"
#include "commonlibc/vxbt/vxbt_rule_reach.h"
#include "commonlibc/vxbt/vxbt_rule_words.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

struct Line {
    int number;
    std::int32_t type;
    std::string text, fault;
};

// Which rules name the BTs.
enum class Deciding { kPatterns, kCustoms, kGlobal, kDefault };

// What the reading of a file has told.
struct Findings {
    std::vector<Line> lines;
    std::vector<VXRuleWarning> warnings;
    VXPatternReach patterns;
    VXCustomReach customs;
    Deciding deciding = Deciding::kDefault;
    int globalLine = 0;
};

// A context for one check: business transactions as after a start, no rule read yet.
class Ground {
public:
    Ground() {
        apr_initialize();
        app = vxNewApplication();
        if (!app || apr_pool_create(&app->pool, nullptr) != APR_SUCCESS) return;
        vxSetCurrent(app);
        vxMakeContextMutexes(*app);
        vxMakeBtStore();
        ready = true;
    }
    ~Ground() {
        if (ready) vxFreeBtStore();
        vxSetCurrent(nullptr);
        if (app && app->pool) {
            freeRetiredTexts(app->retired);
            apr_pool_destroy(app->pool);
        }
        if (app) vxFreeApplication(app);
        apr_terminate();
    }
    Ground(const Ground&) = delete;
    Ground& operator=(const Ground&) = delete;

    vxApplication* app = nullptr;
    bool ready = false;
};

void keepLine(const VXRuleLine& line, void* findings) {
    static_cast<Findings*>(findings)->lines.push_back(
        {line.number, line.type, line.text, line.fault ? line.fault : ""});
}

std::string patternMeaning(Findings& found, const Line& line) {
    char text[kRuleLineSize];
    char* tags = nullptr;
    VXPatternLine rule;
    vxlb_copy_text(text, sizeof(text), line.text.c_str());
    if (vxSplitPatternLine(text, rule, tags)) return "";
    found.patterns.add(line.number, rule);
    return vxPatternWords(rule);
}

std::string customMeaning(Findings& found, const Line& line) {
    char text[kRuleLineSize];
    vxlb_copy_text(text, sizeof(text), line.text.c_str());
    VXRuleBuild alone(VXRuleBuild::Base::kStart);
    if (!alone.good() || parse_custom_rule(alone, text)) return "";
    found.customs.add(line.number, alone.set->customRule);
    return vxCustomWords(alone.set->customRule);
}

std::string globalMeaning(Findings& found, const Line& line) {
    found.globalLine = line.number;
    const VXBTGlobalRule* rule = vxCurrent()->bt.global_rule.load();
    return rule ? vxGlobalWords(*rule) : "";
}

std::string valueMeaning(const Line& line) {
    const std::size_t bar = line.text.find('|');
    const std::string value = bar == std::string::npos ? "0" : vxPrintable(line.text.substr(bar + 1));
    return line.type == kLineSkipCount ? "skip count " + value + ", which is only traced"
                                       : "the pattern table begins with room for " + value + " states";
}

std::string meaningOf(Findings& found, const Line& line) {
    switch (line.type) {
        case kLinePattern:
            return patternMeaning(found, line);
        case kLineCustom:
            return line.fault.empty() ? customMeaning(found, line) : "";
        case kLineGlobal:
            return line.fault.empty() ? globalMeaning(found, line) : "";
        case kLineSkipCount:
        case kLineMaxStates:
            return valueMeaning(line);
        default:
            return "";
    }
}

const char* kindOf(std::int32_t type) {
    switch (type) {
        case kLineGlobal:
            return "global rule";
        case kLineCustom:
            return "custom rule";
        case kLineSkipCount:
        case kLineMaxStates:
            return "setting";
        case kLinePattern:
            return "pattern rule";
        default:
            return "line";
    }
}

std::string placeText(int number) {
    char text[16];
    std::snprintf(text, sizeof(text), "%6d  ", number);
    return text;
}

std::string lineReport(Findings& found, const Line& line) {
    if (line.type == 0 && line.fault.empty()) return placeText(line.number) + "comment\n";
    const std::string meaning = meaningOf(found, line);
    std::string out = placeText(line.number) + kindOf(line.type);
    if (!meaning.empty()) out += ": " + meaning;
    if (!line.fault.empty()) out += "\n        ! " + line.fault + ": '" + vxPrintable(line.text) + "'";
    return out + "\n";
}

Deciding decidingKind() {
    const VXBTState_t& bt = vxCurrent()->bt;
    const std::int32_t applicable = bt.applicableRule.load();
    if (applicable == kPatternRule) return Deciding::kPatterns;
    const VXBTRuleSet* set = bt.ruleSet.load();
    if (set && set->customMachine.total_states > 0) return Deciding::kCustoms;
    return applicable == kGlobalRule ? Deciding::kGlobal : Deciding::kDefault;
}

// Lines of kinds that have no say, since another kind goes before them.
void noteKindsPassedOver(Findings& found) {
    for (Line& line : found.lines) {
        if (!line.fault.empty()) continue;
        if (line.type == kLineCustom && found.deciding == Deciding::kPatterns)
            line.fault = "pattern rules go before custom rules";
        if (line.type == kLineGlobal && found.deciding == Deciding::kCustoms)
            line.fault = "custom rules go before the global rule";
    }
}

// Of lines whose fault is not told already.
void takeWarnings(Findings& found) {
    found.warnings =
        found.deciding == Deciding::kPatterns ? found.patterns.warnings() : found.customs.warnings();
    std::set<int> told;
    for (const Line& line : found.lines)
        if (!line.fault.empty()) told.insert(line.number);
    std::erase_if(found.warnings, [&told](const VXRuleWarning& at) { return told.count(at.line) > 0; });
}

std::string warningsReport(const Findings& found) {
    if (found.warnings.empty()) return "";
    std::string out = "\nWarnings:\n";
    for (const VXRuleWarning& warning : found.warnings)
        out += "  line " + std::to_string(warning.line) + ": " + vxPrintable(warning.text) + "\n";
    return out;
}

std::string decidingReport(Deciding deciding) {
    switch (deciding) {
        case Deciding::kPatterns:
            return "\nPattern rules decide; what none of them takes is \"Others\".\n";
        case Deciding::kCustoms:
            return "\nCustom rules decide; what none of them takes is \"others\".\n";
        case Deciding::kGlobal:
            return "\nThe global rule decides.\n";
        default:
            return "\nThe file has no rule that counts: the default rule decides (" +
                   vxGlobalWords(*vxCurrent()->bt.global_rule.load()) + ").\n";
    }
}

int decidingLine(const Findings& found, const VXRuleRequest& request) {
    switch (found.deciding) {
        case Deciding::kPatterns:
            return found.patterns.lineOf(request);
        case Deciding::kCustoms:
            return found.customs.lineOf(request.url);
        default:
            return found.globalLine;
    }
}

std::string requestReport(const Findings& found, const VXCheckedRequest& given) {
    if (!given.url) return "";
    const VXUrlParts parts = vxSplitUrl(given.url);
    const VXRuleRequest request{std::string(parts.path), given.query ? given.query : std::string(parts.query),
                                given.method ? given.method : std::string(parts.method)};
    std::string header = given.header ? given.header : "";
    const BTObject* bt = get_obj_from_bt_name(
        request.url.c_str(), request.query.c_str(), given.header ? header.data() : nullptr,
        vxCurrent()->bt.btMapMutex, request.method.empty() ? nullptr : request.method.c_str());
    std::string out = "\nRequest: " + (request.method.empty() ? "" : request.method + " ") + request.url +
                      (request.query.empty() ? "" : "?" + request.query) +
                      (given.header ? std::string(" [") + given.header + "]" : "") + "\n";
    out += bt ? "BT: \"" + vxPrintable(bt->btName) + "\" (id " + std::to_string(bt->btId.load())
              : "BT: none (excluded";
    const int line = decidingLine(found, request);
    return out + (line > 0 ? ", line " + std::to_string(line) : "") + ")\n";
}

bool canBeRead(const char* file) {
    char* text = nullptr;
    if (getLineFromFile(file, &text) != 0) return false;
    VXLB_FREE(text, "rule text", -1);
    return true;
}

struct ArgumentRow {
    const char* name;
    const char* VXCheckedRequest::*member;
};
constexpr ArgumentRow kArguments[] = {{"--url", &VXCheckedRequest::url},
                                      {"--method", &VXCheckedRequest::method},
                                      {"--query", &VXCheckedRequest::query},
                                      {"--header", &VXCheckedRequest::header}};

// What is wrong with the arguments behind the file; empty: nothing.
std::string takeArguments(int count, char** arguments, VXCheckedRequest& request) {
    for (int i = 1; i < count; i += 2) {
        const auto* row =
            std::find_if(std::begin(kArguments), std::end(kArguments),
                         [&](const ArgumentRow& at) { return std::strcmp(at.name, arguments[i]) == 0; });
        if (row == std::end(kArguments)) return std::string("unknown option '") + arguments[i] + "'";
        if (i + 1 >= count) return std::string("no value behind '") + arguments[i] + "'";
        request.*row->member = arguments[i + 1];
    }
    const bool asks = request.method || request.query || request.header;
    return asks && !request.url ? "--method, --query and --header need --url" : "";
}

}  // namespace

int vxCheckRules(const char* file, const VXCheckedRequest& request, std::string* report) {
    const Ground ground;
    if (!ground.ready) {
        *report = "out of memory\n";
        return kRulesAtFault;
    }
    if (!canBeRead(file)) {
        *report = vxPrintable(file) + ": cannot be read, is no file, or is longer than 1 MB\n";
        return kRulesAtFault;
    }
    const auto found = std::make_unique<Findings>();
    vxbt_read_rule_file(file, VXRuleSource::kPath, VXRuleBuild::Base::kStart, keepLine, found.get());
    if (ground.app->bt.applicableRule.load() == kNoRule) vxApplyDefaultRule();
    std::sort(found->lines.begin(), found->lines.end(),
              [](const Line& a, const Line& b) { return a.number < b.number; });

    found->deciding = decidingKind();
    noteKindsPassedOver(*found);
    *report = vxPrintable(file) + "\n\n";
    for (const Line& line : found->lines) *report += lineReport(*found, line);
    takeWarnings(*found);
    *report += decidingReport(found->deciding) + warningsReport(*found) + requestReport(*found, request);
    const auto faults = std::count_if(found->lines.begin(), found->lines.end(),
                                      [](const Line& line) { return !line.fault.empty(); });
    const bool inOrder = faults == 0 && found->warnings.empty();
    *report += inOrder ? "\nEvery line has an effect.\n"
                       : "\n" + std::to_string(faults) + " line(s) without effect, or not all of it (!), " +
                             std::to_string(found->warnings.size()) + " warning(s).\n";
    return inOrder ? kRulesInOrder : kRulesAtFault;
}

int vxCheckRulesCommand(const char* program, int count, char** arguments) {
    VXCheckedRequest request{};
    const std::string fault =
        count < 1 ? "--check-rules needs a file" : takeArguments(count, arguments, request);
    if (!fault.empty()) {
        std::fprintf(stderr, "%s: %s (--help tells the options)\n", program, fault.c_str());
        return kRulesAtFault;
    }
    std::string report;
    const int code = vxCheckRules(arguments[0], request, &report);
    std::fputs(report.c_str(), stdout);
    return code;
}

}  // namespace vx
