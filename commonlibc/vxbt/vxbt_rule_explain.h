// Why a request gets its BT: what each line of a rule text says to it.
//
// Nothing is matched here: a line's verdict comes from the service's machines, holding this line alone or
// parts of it (its URL without its query, as much of its pattern as still fits), and from the look-up's own
// answer.
//
// Threads   As the reading.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "commonlibc/vxbt/vxbt_rule_reading.h"

namespace vx {

enum class VXLineVerdict : std::uint8_t {
    kNames,    // decides, be it for an exclusion
    kOutdone,  // its condition holds, another line goes before it
    kFails,    // its condition does not hold
    kMute,     // the line has no say
};
struct VXLineReason {
    VXLineVerdict verdict;
    std::string reason;
};
struct VXExplanation {
    VXRuleReading::Answer answer;
    int line = 0;  // that decides; 0: none
    std::string why;
    std::vector<VXLineReason> lines;  // one for each line of the reading
};

// `header` may be null.
VXExplanation vxExplainRequest(VXRuleReading& reading, const VXRuleRequest& request, const char* header);

}  // namespace vx
