// Losses of an instance, told in the trace: what was sent to it, or written by it, and reached nobody.
//
//     Losses: records = 120 (+20), starts = 3 (+0), messages = 64 (+5)
//
// Totals since process start, and in brackets the growth since the last line.
//
//   records   data and auto-sensor records (lines) that the chains refused or that left them unsent
//   starts    transactions that found no free slot
//   messages  agent messages that came to nothing: refused by the decoder or by their handler, of a
//             transaction that is not there (its start was lost or refused, or it has ended), and starts
//             that got no slot; all that come while no run is on, or no collector takes data
//
// Limits    One line a minute and instance while something grows, one at the end of each run. A line that
//           the trace level hides is not used up.
// Threads   vxLossesWalk: the listener. vxLossesTell: any. vxLossesAtThreadEnd: data and auto-sensor thread.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

struct VXLossTotals {
    std::uint64_t records = 0, starts = 0, messages = 0;
};
VXLossTotals vxLossTotals(const vxApplication& app);
// Once a minute: a line for each instance whose losses have grown. Cheap otherwise.
void vxLossesWalk();
// The line of one context, when its losses have grown.
void vxLossesTell(vxApplication& app);
// A sending thread of the instance has cleared its running flag: the last one of a run tells the losses,
// grown or not.
void vxLossesAtThreadEnd(vxApplication& app);

}  // namespace vx
