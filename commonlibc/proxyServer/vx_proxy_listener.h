// What the two listeners for agents, over sockets and over WebSockets, have in common: their start, the
// waiting for a free port, and what is done in each round beside serving agents.
//
//     vxListenerStart -> vxListenerBind -> vxListenerRuns -> rounds (vxListenerWork) -> vxListenerEnds
//
// Errors    vxListenerStart, vxListenerBind: false when it came to nothing; vxListenerAbandon then takes back
//           what was made, so that the next attempt starts from nothing.
// Threads   The listener. vxWakeListener: any.
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

// Pool, signals, thread operations, buffers, the system's memory.
bool vxListenerStart();
void vxListenerAbandon();
// Tries every 10 s; `attempt` puts its reason into a buffer of kSockErrorSize bytes and traces it. False
// when a stop came before.
bool vxListenerBind(bool (*attempt)(char* reason));
bool vxListenerStopOrdered();

// The loop begins and ends; `wake` ends its present wait, from any thread.
void vxListenerRuns(void (*wake)());
void vxListenerEnds();
// Of each round: before agents are served, and behind it.
void vxListenerOperations();
void vxListenerWork();

// Ends the present wait of the loop. Nothing happens while no loop runs.
void vxWakeListener();

}  // namespace vx
