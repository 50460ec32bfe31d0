// Custom rules: one line for each, with words to look for in a request.
//
//     2|mode|rule name|BT name|-|flag|priority|criteria|-
//     2|2|search|Search|-|1|5|[input1=contains&&input2=/find]|-
//
//     mode           1 HTTP method, 2 URI, 3 parameter; the last accepted line decides
//     criteria       a method name, or the forms told in vxbt_custom_criteria
//
// Lines of later texts join those that are there; a start of the instance empties the lexicon.
//
// Limits    Rule names of 127 characters, BT names of 255 (128 in the lexicon), 40 keywords in all.
// Errors    A refused line changes nothing.
// Threads   As the build.
#pragma once

#include "commonlibc/vxbt/vxbt_rule_build.h"

namespace vx {

// Adds a line (it is changed) to a build; an accepted one raises customLines. Null, or why it is refused.
const char* parse_custom_rule(VXRuleBuild& build, char* line);

}  // namespace vx
