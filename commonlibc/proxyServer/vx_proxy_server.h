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
// Threads   vxProxyInit: the listener (the service's worker). vxWakeListener: any.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// What a start tells its operator; null members are passed over. Set before the start.
struct VXListenerReport {
    void (*listening)(const char* host, int port);
    void (*bindFailed)(int port, const char* reason);  // the first failure only
    void (*settingsAtFault)(int faults, bool collectorNamed);
};
extern VXListenerReport vxListenerReport;

// Runs until proxyStopFlag is set, on the root context.
void vxProxyInit();
// Ends the present wait of the loop. Nothing happens while no loop runs.
void vxWakeListener();

}  // namespace vx
