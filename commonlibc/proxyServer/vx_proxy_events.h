// Events of identified connections: what is readable is read, what has gone is closed.
//
//     control       its end closes all connections of the process and frees the record; what a plain data
//                   connection has brought until then is read before
//     the others    their end frees the record when no control, data or auto-sensor connection is left
//
// Threads   The listener.
#pragma once

#include <apr_poll.h>

#include "commonlibc/VXAgentWs.h"

namespace vx {

// Serves one entry of the pollset whose client data is a process's pair. `index` of `count` events of this
// round: for traces.
void vxServeConnection(const apr_pollfd_t& event, int index, int count);

// The same for a WebSocket that has registered: reads what it has handed over (`in`), the lines of a message
// or bytes of a stream. 0, or -1 when it is closed.
int vxServeWebSocket(VXAgentWs& wsi);
// True when its messages are pieces of a stream, of records or of a list of classes.
bool vxIsStream(const VXAgentWs& wsi);
// It has gone, or is to go, with what hangs on it.
void vxWebSocketGone(VXAgentWs& wsi);

}  // namespace vx
