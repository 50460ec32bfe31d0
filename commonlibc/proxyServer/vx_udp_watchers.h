// Watchers of the UDP intake: one takes out silent functions, one drops ruckus messages whose time is over
// and has the process's memory looked at.
//
// Every 10 s each; a stop ends their wait at once.
//
// Threads   The listener starts and joins them.
#pragma once

#include <cstdint>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Starts both threads below the root context; false when one failed (traced).
bool vxUdpStartWatchers(vxApplication* root);
void vxUdpJoinWatchers();  // VXUdp.stopping is set

// Traces what functions lost, what was refused, and the datagrams that the system had no room for, as far as
// they have grown.
void vxUdpTellLosses();

// Bodies of their rounds; `round` counts from 1.
void proxy_udp_client_handler(std::int64_t round);
void proxy_udp_ruckus_handler(std::int64_t round);

}  // namespace vx
