// Events of identified connections: what is readable is read, what has gone is closed.
//
//     control       its end closes all connections of the process and frees the record
//     the others    their end frees the record when no control, data or auto-sensor connection is left
//
// Threads   The listener.
#pragma once

#include <apr_poll.h>

namespace vx {

// Serves one entry of the pollset whose client data is a process's pair. `index` of `count` events of this
// round: for traces.
void vxServeConnection(const apr_pollfd_t& event, int index, int count);

}  // namespace vx
