// Thresholds of business transactions: from which duration on a flowpath is slow, or very slow.
//
//     name|slow|very slow        ms, 1 or more, slow below very slow
//     ALL|1000|4000              every BT without a line of its own ("ALL" in any case)
//     Cart|200|900
//
// A line of a name is remembered and counts when, and whenever, a rule declares that BT; without a rule it
// has no effect. A BT that a new text no longer names takes the pair for all.
//
// Limits    Names count with their first 256 characters.
// Errors    A line that cannot be used is traced and passed over; a text without memory changes nothing.
// Threads   The thread that takes configuration (control thread), current context. A change takes effect
//           under the decode lock, which must not be held.
#pragma once

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxbt/vxbt_rule_text.h"

namespace vx {

// A line taken apart (it is changed). Null, or why it is refused.
struct VXThresholdLine {
    const char* name;
    std::int32_t slow, verySlow;
};
const char* vxSplitThresholdLine(char* line, VXThresholdLine& out);
// Replaces what the former text said. 0; -1: no argument.
int vxbt_read_threshold_file(const char* pathOrText, VXRuleSource source);
// Gives an object the thresholds that its name has of its own, if any. btMapMutex held, and the decode lock
// if lookups know the object.
void applyOwnThresholds(const VXBTState_t& bt, BTObject& object);

}  // namespace vx
