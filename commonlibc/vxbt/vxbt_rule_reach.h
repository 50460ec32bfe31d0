// Which rules requests can reach: finds rules that never match, and rules that others always go before.
//
// Requests are made from each rule (its "*" filled in, its end continued where it may go on) and matched by
// the service's own machines twice: by one that holds this rule alone, and by one that holds all of them,
// each under an id of its own.
//
//     alone no request matches              the rule never matches
//     alone some do, but among all none     another rule goes before it
//
// Limits    Some dozen requests a rule: a rule that only other requests reach may be warned of; one that is
//           not warned of is reached.
// Errors    Without memory fewer warnings.
// Threads   One; no state but its own. For the check of rule files, not for the service.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "commonlibc/vxbt/vxbt_pattern_rule.h"
#include "commonlibc/vxbt/vxbt_rule_probe.h"

namespace vx {

struct VXRuleWarning {
    int line;  // of the rule
    std::string text;
};

class VXPatternReach {
public:
    // An accepted line.
    void add(int line, const VXPatternLine& rule);
    // The line whose rule takes a request, whatever its headers; 0: none does.
    int lineOf(const VXRuleRequest& request) const;
    // In order of lines.
    std::vector<VXRuleWarning> warnings() const;

private:
    struct Rule {
        int line;
        std::string name, url, query, method;
        bool hasHeader;
        std::int32_t id, matchType, mode;
        std::string pattern;
    };
    const Rule* winner(const VXRuleRequest& request) const;
    std::string warningOf(const Rule& rule) const;
    void noteClash(const Rule& rule);

    std::vector<Rule> rules_;
    std::map<std::int32_t, Rule> byId_;   // the last line of each
    std::map<std::string, Rule> byName_;  // likewise
    std::vector<VXRuleWarning> clashes_;
    VXProbeMachine all_;  // ids: places in rules_, from kFirstId
};

class VXCustomReach {
public:
    VXCustomReach();

    // An accepted line: the custom rules that it makes when it stands alone.
    void add(int line, const VXBTCustomeRule& alone);
    int lineOf(const std::string& url) const;
    std::vector<VXRuleWarning> warnings() const;

private:
    std::string warningOf(int line) const;

    std::vector<int> lines_;  // by keyword
    VXBTCustomeRule rules_{};
};

}  // namespace vx
