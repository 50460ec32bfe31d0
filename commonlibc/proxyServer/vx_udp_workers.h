// Workers of the UDP intake: one queue of datagrams each.
//
// Threads   The receiver makes, fills and joins them.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Makes VXUdp.workers, with a thread each. False when one of them could not be made.
bool vxUdpMakeWorkers(std::int32_t count, vxApplication* root);
// Puts the node into the queue of its sender's worker.
void vxUdpHandOver(VXUdpNode* node);
// Wakes the workers that have been given something: once for what came together.
void vxUdpWakeWorkers();
// Joins all (VXUdp.stopping is set) and frees their records; datagrams that still wait are dropped.
void vxUdpEndWorkers();

}  // namespace vx
