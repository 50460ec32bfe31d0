// The end of a function: everything that its context holds is given back.
//
//     taken out of its table -> freeUDPConnections: threads joined, pins awaited, heap freed -> settled
//     -> vxUdpRenew, when the block is wanted again: control thread joined, pool destroyed, block as new
//
// Threads   freeUDPConnections: the function's control thread at its end, or whoever finds that it has none.
//           vxUdpRenew: under VXUdp.registration, once the control thread has ended.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Ends a function that has been taken out of its table. It waits for its data and auto-sensor threads, and
// for workers that still hold it, then takes the decode lock and frees. The context is left current.
void freeUDPConnections(vxApplication* app);

// Frees what the context holds beside its pool. Nobody else knows the context any more.
void vxUdpRelease(vxApplication& app);
// Gives the pool back and makes the block as a new one is, but for its mutexes. False without memory: it is
// not to be used then.
bool vxUdpRenew(vxApplication& app);

}  // namespace vx
