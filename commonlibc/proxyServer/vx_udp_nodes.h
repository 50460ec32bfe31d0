// Buffer nodes of the UDP intake: what bounds the datagrams that wait for a worker.
//
// Limits    4 nodes a worker, 56,320 bytes each. A node's pages are touched by the datagrams that it held
//           and not before: an intake that nobody uses costs address space only.
// Threads   Any; VXUdp.freeMutex.
#pragma once

#include "commonlibc/context/VXUdpState.h"

namespace vx {

// Makes the nodes for `workers` workers. False without memory; what was made is then given back.
bool udp_buff_list_init(std::int32_t workers);
void udp_buff_list_free();  // where no thread of the intake runs

// Takes the free nodes, at most `most`. How many; with `wait` it waits for the first one, at most a second
// and not at a stop.
int vxUdpTakeNodes(VXUdpNode** out, int most, bool wait);
void vxUdpGiveNodes(VXUdpQueue& nodes);  // all of them, to the tail of the free list

void vxUdpAppend(VXUdpQueue& queue, VXUdpNode* node);  // the queue's lock is held
VXUdpNode* vxUdpPop(VXUdpQueue& queue);                // likewise; null when it is empty

}  // namespace vx
