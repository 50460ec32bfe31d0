// UDP intake: the receiver, and the start and the end of all its threads.
//
//     socket -> receiver -> node -> queue of the sender's worker -> decode_udp_Message_wrapper -> free list
//
// All datagrams of one sender go to one worker, in their order. The receiver takes what has gathered in one
// call, up to 64 datagrams, and wakes each worker once for it. While datagrams come thickly it naps for two
// milliseconds whenever it has emptied the socket's queue. What waits has its room in the socket's queue;
// what finds that full is lost, counted by the system and told once a minute, and at the end.
//
// Limits    See vx_udp_nodes. With no node free the receiver waits for one, at most a second at a time.
// Errors    A port that cannot be bound is tried again every 10 s.
// Threads   vxUdpStart, vxUdpStop: the listener.
#pragma once

#include <apr_thread_proc.h>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Starts receiver, workers and watchers on VXProxy.proxyPort, below the current (root) context. Without
// memory or threads there is no intake (traced).
void vxUdpStart();
// Told of the first failure of a start; set before it, null: nobody.
extern void (*vxUdpFailed)(int port, const char* reason);
// Ends all threads of the intake. Nothing happens without a start.
void vxUdpStop();

// APR_THREAD_FUNC body of the receiver.
void* proxy_udp_handler(apr_thread_t* thread, void* root);

}  // namespace vx
