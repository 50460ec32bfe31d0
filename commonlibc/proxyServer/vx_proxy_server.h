// Listener: the main loop of the process. One thread, one pollset, every agent socket.
//
//     wait -> dispatch each event -> look at unknown connections -> destroy what was closed -> wait ...
//
//     accepted, silent --first line--> identified (control, data, auto-sensor, discovery) --> closed
//
// The loop never waits for one peer: reads take what is there, a message to an agent has 2 s.
//
// Stop      proxyStopFlag and vxWakeListener(). A stop leaves the sockets to the end of the process.
// Errors    A port that cannot be bound is tried again every 10 s. Without pollset or thread-operations
//           lock the function returns, having closed the listening socket.
// Threads   The listener (the service's worker).
#pragma once

#include "commonlibc/proxyServer/vx_proxy_listener.h"

namespace vx {

// Runs until proxyStopFlag is set, on the root context.
void vxProxyInit();

}  // namespace vx
