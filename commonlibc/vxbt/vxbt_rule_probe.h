// Machines of the service that hold what one asks about: for checks and explanations of rules.
//
// Lifetime  Given back with the object.
// Threads   One at a time.
#pragma once

#include <string>

#include "commonlibc/vxbt/vxbt_automaton.h"
#include "commonlibc/vxbt/vxbt_state_machine.h"

namespace vx {

struct VXRuleRequest {
    std::string url, query, method;
};

struct VXProbeMachine : vxlb_state_machine {
    VXProbeMachine() : vxlb_state_machine{} { vxlb_state_machine_init(this, 0); }
    ~VXProbeMachine() { vxlb_state_machine_free(this); }
    VXProbeMachine(const VXProbeMachine&) = delete;
    VXProbeMachine& operator=(const VXProbeMachine&) = delete;

    void add(const std::string& pattern, const std::string& method, std::int32_t id, std::int32_t matchType,
             std::int32_t mode) {
        vxlb_state_machine_add(this, pattern.c_str(), pattern.size(), method.c_str(), method.size(), id,
                               matchType, mode);
    }
    std::int32_t search(const VXRuleRequest& request) const {
        return vxlb_state_machine_search(this, request.url.c_str(),
                                         static_cast<std::int64_t>(request.url.size()), request.query.c_str(),
                                         request.method.c_str());
    }
};

struct VXProbeAutomaton : vxlbTrie {
    explicit VXProbeAutomaton(const VXBTCustomeRule& rules) : vxlbTrie{} {
        vxlb_init_automaton(this, &rules);
    }
    ~VXProbeAutomaton() { vxlb_free_automaton(this); }
    VXProbeAutomaton(const VXProbeAutomaton&) = delete;
    VXProbeAutomaton& operator=(const VXProbeAutomaton&) = delete;
};

}  // namespace vx
