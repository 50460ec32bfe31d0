#include "commonlibc/vxbt/vxbt_rule_reading.h"

#include <algorithm>
#include <set>

#include "commonlibc/VXSettingReport.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxbt/vxbt_config.h"
#include "commonlibc/vxbt/vxbt_custom_rule.h"
#include "commonlibc/vxbt/vxbt_rule_execute.h"
#include "commonlibc/vxbt/vxbt_rule_parser.h"
#include "commonlibc/vxbt/vxbt_rule_words.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

// Makes a context current for a while.
class Current {
public:
    explicit Current(vxApplication* app) : before_(vxCurrent()) { vxSetCurrent(app); }
    ~Current() { vxSetCurrent(before_); }
    Current(const Current&) = delete;
    Current& operator=(const Current&) = delete;

private:
    vxApplication* const before_;
};

void keepLine(const VXRuleLine& line, void* lines) {
    static_cast<std::vector<VXReadLine>*>(lines)->push_back(
        {line.number, line.type, line.text, line.fault ? line.fault : "", ""});
}

std::string valueWords(const VXReadLine& line) {
    const std::size_t bar = line.text.find('|');
    const std::string value = bar == std::string::npos ? "0" : vxPrintable(line.text.substr(bar + 1));
    return line.type == kLineSkipCount ? "skip count " + value + ", which is only traced"
                                       : "the pattern table begins with room for " + value + " states";
}

std::string globalWords() {
    const VXBTGlobalRule* rule = vxCurrent()->bt.global_rule.load();
    return rule ? vxGlobalWords(*rule) : "";
}

VXRulesDeciding decidingKind() {
    const VXBTState_t& bt = vxCurrent()->bt;
    const std::int32_t applicable = bt.applicableRule.load();
    if (applicable == kPatternRule) return VXRulesDeciding::kPatterns;
    const VXBTRuleSet* set = bt.ruleSet.load();
    if (set && set->customMachine.total_states > 0) return VXRulesDeciding::kCustoms;
    return applicable == kGlobalRule ? VXRulesDeciding::kGlobal : VXRulesDeciding::kDefault;
}

}  // namespace

VXRuleReading::VXRuleReading() : app_(vxNewApplication()) {
    if (!app_ || apr_pool_create(&app_->pool, nullptr) != APR_SUCCESS) return;
    const Current current(app_);
    vxMakeContextMutexes(*app_);
    vxMakeBtStore();
    ready_ = true;
}

VXRuleReading::~VXRuleReading() {
    const Current current(app_);
    if (ready_) vxFreeBtStore();
    if (app_ && app_->pool) {
        freeRetiredTexts(app_->retired);
        apr_pool_destroy(app_->pool);
    }
    if (app_) vxFreeApplication(app_);
}

bool VXRuleReading::read(const std::string& text) {
    if (text.size() > kMaxRuleText) return false;
    const Current current(app_);
    lines_.clear();
    patterns_ = std::make_unique<VXPatternReach>();
    customs_ = std::make_unique<VXCustomReach>();
    globalLine_ = 0;
    const auto base = hasText_ ? VXRuleBuild::Base::kInForce : VXRuleBuild::Base::kStart;
    vxbt_read_rule_file(text.c_str(), VXRuleSource::kText, base, keepLine, &lines_);
    if (!hasText_ && app_->bt.applicableRule.load() == kNoRule) vxApplyDefaultRule();
    hasText_ = true;
    std::sort(lines_.begin(), lines_.end(),
              [](const VXReadLine& a, const VXReadLine& b) { return a.number < b.number; });
    deciding_ = decidingKind();
    notePassedOver();
    for (VXReadLine& line : lines_) line.meaning = meaningOf(line);
    takeWarnings();
    return true;
}

// Lines of kinds that have no say, since another kind goes before them.
void VXRuleReading::notePassedOver() {
    for (VXReadLine& line : lines_) {
        if (!line.fault.empty()) continue;
        if (line.type == kLineCustom && deciding_ == VXRulesDeciding::kPatterns)
            line.fault = "pattern rules go before custom rules";
        if (line.type == kLineGlobal && deciding_ == VXRulesDeciding::kCustoms)
            line.fault = "custom rules go before the global rule";
    }
}

bool VXRuleReading::customsOf(const VXReadLine& line, VXBTCustomeRule& alone) const {
    const Current current(app_);
    char text[kRuleLineSize];
    vxlb_copy_text(text, sizeof(text), line.text.c_str());
    VXRuleBuild build(VXRuleBuild::Base::kStart);
    if (!build.good() || parse_custom_rule(build, text)) return false;
    alone = build.set->customRule;
    return true;
}

std::string VXRuleReading::meaningOf(const VXReadLine& line) {
    char text[kRuleLineSize];
    char* tags = nullptr;
    VXPatternLine rule;
    switch (line.type) {
        case kLinePattern:
            vxlb_copy_text(text, sizeof(text), line.text.c_str());
            if (vxSplitPatternLine(text, rule, tags)) return "";
            patterns_->add(line.number, rule);
            return vxPatternWords(rule);
        case kLineCustom: {
            const auto alone = std::make_unique<VXBTCustomeRule>();
            if (!line.fault.empty() || !customsOf(line, *alone)) return "";
            customs_->add(line.number, *alone);
            return vxCustomWords(*alone);
        }
        case kLineGlobal:
            if (!line.fault.empty()) return "";
            globalLine_ = line.number;
            return globalWords();
        case kLineSkipCount:
        case kLineMaxStates:
            return valueWords(line);
        default:
            return "";
    }
}

void VXRuleReading::takeWarnings() {
    warnings_ = deciding_ == VXRulesDeciding::kPatterns ? patterns_->warnings() : customs_->warnings();
    std::set<int> told;
    for (const VXReadLine& line : lines_)
        if (!line.fault.empty()) told.insert(line.number);
    std::erase_if(warnings_, [&told](const VXRuleWarning& at) { return told.count(at.line) > 0; });
}

std::string VXRuleReading::decidingWords() const {
    const Current current(app_);
    switch (deciding_) {
        case VXRulesDeciding::kPatterns:
            return "Pattern rules decide; what none of them takes is \"Others\".";
        case VXRulesDeciding::kCustoms:
            return "Custom rules decide; what none of them takes is \"others\".";
        case VXRulesDeciding::kGlobal:
            return "The global rule decides.";
        default:
            return "The file has no rule that counts: the default rule decides (" + globalWords() + ").";
    }
}

std::size_t VXRuleReading::faults() const {
    return static_cast<std::size_t>(std::count_if(
        lines_.begin(), lines_.end(), [](const VXReadLine& line) { return !line.fault.empty(); }));
}

VXRuleReading::Answer VXRuleReading::classify(const VXRuleRequest& request, const char* header) {
    const Current current(app_);
    std::string pairs = header ? header : "";
    const BTObject* bt =
        get_obj_from_bt_name(request.url.c_str(), request.query.c_str(), header ? pairs.data() : nullptr,
                             app_->bt.btMapMutex, request.method.empty() ? nullptr : request.method.c_str());
    return bt ? Answer{bt->btName, bt->btId.load()} : Answer{};
}

int VXRuleReading::lineOf(const VXRuleRequest& request) const {
    switch (deciding_) {
        case VXRulesDeciding::kPatterns:
            return patterns_->lineOf(request);
        case VXRulesDeciding::kCustoms:
            return customs_->lineOf(request.url);
        default:
            return globalLine_;
    }
}

const char* vxRuleKindWords(std::int32_t type) {
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

}  // namespace vx
