// Reporting cycle of the monitors: when which of them writes its records.
//
// A turn lasts ten seconds, so that no interval takes effect at a finer grain. At the end of a turn whose
// time has come, the monitors write what the interval has brought, one behind another, into one buffer; the
// slots begin anew. What no report has covered (the connection was down) stays in the slots for the next.
//
// A run that ends while the connection stands gets one more report. What is then still in the slots is lost,
// and traced.
//
// Units     Milliseconds in the instance's base; the base may be any value, differences wrap.
// Errors    Without memory for the buffer nothing is written and nothing begins anew.
// Threads   The auto-sensor thread, on the current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Does what the auto-sensor thread has come to.
void monitorCycle(VXMonitorPhase phase);

}  // namespace vx
