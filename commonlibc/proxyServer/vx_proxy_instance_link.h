// An instance's link to the collector: the context's set-up and its control thread.
//
// Threads   The listener. The instance is left as the thread's current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Starts an instance's control thread; tests put a starter of their own here.
extern int (*vxControlThreadStarter)(vxApplication* app);

// 1 when the set-up was made and the control thread started (or failed to start, traced), 0 when the
// instance has a link or a control thread. Safe after every registration. A control thread that ended is
// started again; pool, maps, slots and id counters are made once.
int make_connection_with_vxc(vxApplication& instance, int isUDP);
// Identity of the registration into VXBCISetting. The instance is current.
void populateVXBCISetting(vxApplication& instance);

}  // namespace vx
