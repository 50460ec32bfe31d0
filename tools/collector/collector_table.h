// The summary as a table: what single records add up to, and below each row what the monitors tell of the
// same.
//
//     BUSINESS TRANSACTION      count   normal     slow very slow  error     avg ms   min ms   max ms
//     Cart                         41       40        1         0      0       12.5        3     1800
//       monitor                    41       40        1         0      0       12.5        3     1800  agrees
//
// "agrees" is said once a run has ended and been compared, and of as many runs as have been ("DIFFERS in 1 of
// 3 runs"); before that it says "not compared yet". Percentiles are those of the last period told.
//
// Threads   One.
#pragma once

#include <cstdio>

#include "tools/collector/collector_summary.h"

namespace vx::collector {

// Prints at most `most` rows of a kind, those with the most transactions first.
void printSummary(const Summary& summary, std::FILE* out, std::size_t most);

}  // namespace vx::collector
