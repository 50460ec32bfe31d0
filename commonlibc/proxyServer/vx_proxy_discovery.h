// Loaded-class discovery: class lists of agents go on to the collector over a connection of their own.
//
//     agent "agent_post_data_req:..." -> registered -> connection to the collector, opening line
//     agent's lines                   -> forwarded, each with its newline
//     a line with "totalTimeTaken="   -> the last piece: the collector's connection is closed
//
// The connection belongs to the instance; it goes to the address of the instance's control connection, so
// that no name has to be looked up here. It is closed with the last piece, when a message cannot be sent, or
// when no process of the instance has a discovery connection any more.
//
// Limits    Opening takes at most 3 s; after a failure nobody tries again for 30 s, so that a collector that
//           does not answer costs the listener a tenth of its time at most. Messages as vx_proxy_send says.
// Threads   The listener.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// A discovery connection of an agent has registered: makes the instance, which it makes current, tell the
// collector so.
void vxOpenDiscovery(vxApplication& app);
// A line of an agent, while the collector waits for a class list of this instance; kLost when that has ended
// with this line.
enum class VXForwarded { kNotTaken, kSent, kLost };
VXForwarded vxForwardDiscoveryLine(vxApplication& app, const char* line);
// A discovery connection of an agent has been closed.
void vxDiscoveryConnectionGone(vxApplication& app);

}  // namespace vx
