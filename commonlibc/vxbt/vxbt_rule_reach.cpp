#include "commonlibc/vxbt/vxbt_rule_reach.h"

#include <algorithm>
#include <array>
#include <memory>
#include <set>

#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxbt/vxbt_rule_execute.h"

namespace vx {

namespace {

constexpr std::int32_t kFirstId = 2;  // 1 is also the answer of a machine that cannot be used
constexpr std::array kFills = {"x", "", "/x", "x9/y"};
constexpr std::array kTails = {"", "x", "/x"};
constexpr const char* kNeverMatches = "no request can match it";

// The text with `fill` in place of each run of "*".
std::string filled(const std::string& text, const char* fill) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '*') {
            out += text[i];
        } else if (i == 0 || text[i - 1] != '*') {
            out += fill;
        }
    }
    return out;
}

// Calls visit(request) for requests that a rule might be meant for, until it answers false.
template <class Visit>
void eachRequest(const std::string& url, const std::string& query, const std::string& method, bool goesOn,
                 Visit visit) {
    for (const char* fill : kFills)
        for (const char* urlTail : kTails)
            for (const char* queryTail : kTails) {
                const bool urlEnds = !goesOn && query.empty();
                if ((urlEnds && *urlTail) || ((query.empty() || !goesOn) && *queryTail)) continue;
                const std::string path = filled(url, fill) + urlTail;
                const std::string parameters = query.empty() ? "" : filled(query, fill) + queryTail;
                // a request is cut where its path ends
                if (!visit({std::string(vxSplitUrl(path).path), parameters, method})) return;
            }
}

std::string lineText(int line) {
    return "line " + std::to_string(line);
}

// Texts that a keyword might be meant for.
std::vector<std::string> textsOf(const VXBTLexiconEntry& entry) {
    const std::string word = entry.keyword;
    switch (entry.constraint) {
        case kMatchStartsWith:
            return {word, word + "/x"};
        case kMatchEndsWith:
            return {word, "/x" + word};
        case kMatchContains:
            return {"/x" + word, "/x" + word + "/x"};
        default:
            return {word};
    }
}

// The keyword that names the BT of a URL, -1: none.
std::int32_t keywordOf(const vxlbTrie& machine, const VXBTCustomeRule& rules, const std::string& url) {
    const std::string path(vxSplitUrl(url).path);
    const char* name = search_match_machine(path.c_str(), &machine, &rules);
    for (std::int32_t i = 0; name && i < rules.lexiconCount; ++i)
        if (rules.lexicon[i].btName == name) return i;
    return -1;
}

void addKeyword(VXBTCustomeRule& rules, const VXBTLexiconEntry& entry) {
    add_to_lexicon(&rules, entry.keyword, entry.priority, entry.btName, entry.constraint);
}

bool matchesAlone(const VXBTLexiconEntry& entry) {
    const auto alone = std::make_unique<VXBTCustomeRule>();
    vxlb_build_lexicon(alone.get());
    addKeyword(*alone, entry);
    const VXProbeAutomaton machine(*alone);
    const std::vector<std::string> texts = textsOf(entry);
    return std::any_of(texts.begin(), texts.end(),
                       [&](const std::string& text) { return keywordOf(machine, *alone, text) >= 0; });
}

}  // namespace

void VXPatternReach::add(int line, const VXPatternLine& rule) {
    rules_.push_back({line, rule.name, rule.url, rule.query, rule.method, *rule.header != '\0', rule.id,
                      rule.matchType, rule.mode, rule.pattern});
    // Id 0 takes a place and gives nothing: it empties what an earlier line has put there.
    const auto place = static_cast<std::int32_t>(rules_.size()) - 1 + kFirstId;
    const Rule& added = rules_.back();
    noteClash(added);
    all_.add(added.pattern, added.method, added.id == 0 ? 0 : place, added.matchType, added.mode);
}

const VXPatternReach::Rule* VXPatternReach::winner(const VXRuleRequest& request) const {
    const std::int32_t id = all_.search(request);
    const std::int32_t place = id - kFirstId;
    return place >= 0 && place < static_cast<std::int32_t>(rules_.size())
               ? &rules_[static_cast<std::size_t>(place)]
               : nullptr;
}

int VXPatternReach::lineOf(const VXRuleRequest& request) const {
    const Rule* rule = winner(request);
    return rule ? rule->line : 0;
}

// Empty: the rule is reached.
std::string VXPatternReach::warningOf(const Rule& rule) const {
    if (rule.id < kBtIdOthers && rule.id != kBtIdExcluded)
        return "id " + std::to_string(rule.id) + " names no BT, " +
               (rule.id == 0 ? "it never matches" : "what it takes is \"Others\"");
    VXProbeMachine alone;
    alone.add(rule.pattern, rule.method, rule.id, rule.matchType, rule.mode);
    bool matches = false, reached = false;
    const Rule* before = nullptr;
    eachRequest(rule.url, rule.query, rule.method, rule.matchType == 1, [&](const VXRuleRequest& request) {
        if (request.url.empty() || alone.search(request) != rule.id) return true;
        matches = true;
        const Rule* taken = winner(request);
        reached = taken == &rule || (taken && taken->id == rule.id && taken->hasHeader && rule.hasHeader);
        if (!before) before = taken;
        return !reached;
    });
    if (!matches) return kNeverMatches;
    if (reached) return "";
    return (before ? lineText(before->line) + " always goes before it" : "other lines leave it no request");
}

// One id for two names, or two ids for one name.
void VXPatternReach::noteClash(const Rule& rule) {
    if (rule.id == kBtIdOthers && rule.name != kOthersName)
        clashes_.push_back(
            {rule.line, "has the id of \"Others\": what no rule takes counts as '" + rule.name + "', too"});
    if (rule.id < kFirstId) return;
    const auto sameId = byId_.find(rule.id);
    if (sameId != byId_.end() && sameId->second.name != rule.name)
        clashes_.push_back({rule.line, "has id " + std::to_string(rule.id) + " like " +
                                           lineText(sameId->second.line) + ", whose BT is '" +
                                           sameId->second.name + "': both count as '" + rule.name + "'"});
    const auto sameName = byName_.find(rule.name);
    if (sameName != byName_.end() && sameName->second.id != rule.id)
        clashes_.push_back(
            {rule.line, "BT '" + rule.name + "' has another id in " + lineText(sameName->second.line)});
    byId_.insert_or_assign(rule.id, rule);
    byName_.insert_or_assign(rule.name, rule);
}

std::vector<VXRuleWarning> VXPatternReach::warnings() const {
    std::vector<VXRuleWarning> out;
    for (const Rule& rule : rules_) {
        const std::string text = warningOf(rule);
        if (!text.empty()) out.push_back({rule.line, text});
    }
    out.insert(out.end(), clashes_.begin(), clashes_.end());
    std::stable_sort(out.begin(), out.end(),
                     [](const VXRuleWarning& a, const VXRuleWarning& b) { return a.line < b.line; });
    return out;
}

VXCustomReach::VXCustomReach() {
    vxlb_build_lexicon(&rules_);
}

void VXCustomReach::add(int line, const VXBTCustomeRule& alone) {
    for (std::int32_t i = 0; i < alone.lexiconCount; ++i) {
        addKeyword(rules_, alone.lexicon[i]);
        lines_.resize(static_cast<std::size_t>(rules_.lexiconCount), line);
    }
}

int VXCustomReach::lineOf(const std::string& url) const {
    const std::int32_t keyword = keywordOf(VXProbeAutomaton(rules_), rules_, url);
    return keyword < 0 ? 0 : lines_[static_cast<std::size_t>(keyword)];
}

// Empty: one of the line's keywords is reached.
std::string VXCustomReach::warningOf(int line) const {
    const VXProbeAutomaton all(rules_);
    bool matches = false;
    int before = 0;
    for (std::int32_t i = 0; i < rules_.lexiconCount; ++i) {
        const VXBTLexiconEntry& entry = rules_.lexicon[i];
        if (lines_[static_cast<std::size_t>(i)] != line || !matchesAlone(entry)) continue;
        matches = true;
        for (const std::string& text : textsOf(entry)) {
            const std::int32_t keyword = keywordOf(all, rules_, text);
            const int taken = keyword < 0 ? 0 : lines_[static_cast<std::size_t>(keyword)];
            if (taken == line) return "";
            if (!before) before = taken;
        }
    }
    return matches ? lineText(before) + " always goes before it" : kNeverMatches;
}

std::vector<VXRuleWarning> VXCustomReach::warnings() const {
    std::vector<VXRuleWarning> out;
    for (const int line : std::set<int>(lines_.begin(), lines_.end())) {
        const std::string text = warningOf(line);
        if (!text.empty()) out.push_back({line, text});
    }
    return out;
}

}  // namespace vx
