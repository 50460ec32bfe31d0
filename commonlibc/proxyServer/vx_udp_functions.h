// The contexts that datagrams name: functions, each with a context of its own, and instances to which clients
// are attached.
//
//     function: created (first datagram) -> named by its index -> silent too long: taken out of its table
//               -> its control thread ends and gives everything back -> block on the list of free contexts
//     attached: found among the instances (first datagram) -> named by the instance's index, for good
//
// Who works on a function's context pins it: what is pinned is not given back.
//
// Limits    maxUdpFunctions, counting those that are still on their way out; a refusal is counted and told
//           once a minute. The table begins with VXProxy.udpTableSize entries and grows by 16.
// Lifetime  Tables that were replaced and blocks of contexts stay allocated.
// Threads   Registration, ends and sweeps: any, under VXUdp.registration. Pins: any, without a lock.
#pragma once

#include <cstdint>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/proxyServer/vx_udp_header.h"

namespace vx {

// Makes the table of functions, once. False without memory.
bool vxUdpMakeTables();

// The function of that index, pinned; null when there is none.
vxApplication* vxUdpPin(std::int32_t index);
void vxUdpUnpin(vxApplication& app);
// Whether the table still names this context: what waited for its decode lock asks again.
bool vxUdpStands(std::int32_t index, const vxApplication& app);
// The instance of that index if clients are attached to it, else null.
vxApplication* vxUdpAttached(std::int32_t index);

// Finds, or makes, the context of a client that does not know its index. The index, or -1. The thread's
// context may be another one afterwards.
std::int32_t record_process_with_ndc_conn(const VXUdpHeader& header);

// Takes out the functions that have been silent for longer than proxyudpTimeout, and gives back what those
// who were taken out earlier have left. `nowMs` is steady.
void vxUdpEndSilentFunctions(std::int64_t nowMs);
// Traces how many registrations were refused, while they grow.
void vxUdpTellRefusals();

// Calls visit(app) for each function, pinned meanwhile.
template <class Visit>
void vxUdpEachFunction(Visit visit) {
    const std::int32_t slots = VXUdp.functionSlots.load(std::memory_order_acquire);
    for (std::int32_t i = 0; i < slots; ++i) {
        vxApplication* app = vxUdpPin(i);
        if (!app) continue;
        visit(*app);
        vxUdpUnpin(*app);
    }
}

}  // namespace vx
