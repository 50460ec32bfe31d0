// Control thread of an instance: connects to the collector, announces, reads, watches, reconnects.
//
//     settings --> connecting --> announcing --> reply awaited --> running
//         ^           ^  |             |            |    |            |
//         |           |  +-- pause ----+------------+----|--- pause --+   (lost: connecting again)
//         |           +----------- at once: other protocol, other collector (a few times in a row)
//         +-- failing over: next collector, changed settings read again
//
// Nothing but a stop of the instance or the service, silent UDP agents, or settings that cannot be read ends
// the thread; it then clears controlThreadId, so that the next registration may start it again.
//
// Threads   One control thread per instance. Others touch it through closeCtrlConFlag, proxyStopRequested,
//           udpTimeoutFlag and vxlb_shared_shutdown() of the socket only.
// Lifetime  Joined when its successor is started; sockets live in a pool of each connect attempt.
#pragma once

#include <apr_thread_proc.h>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/control_lines.h"
#include "commonlibc/control_loop.h"
#include "commonlibc/control_lws.h"
#include "commonlibc/control_reply.h"

namespace vx {

void* control_thread_entry_fun(apr_thread_t* thread, void* application);  // APR_THREAD_FUNC body
// Starts the thread for an instance that has none (controlThreadId 0); traces success or failure. 0 or -1.
int vxStartControlThread(vxApplication* app);
// Waits for the last thread, if one was ever started, and gives its pool back. The thread must have ended
// (controlThreadId 0) or been told to.
void vxJoinControlThread(vxApplication& app);

}  // namespace vx
