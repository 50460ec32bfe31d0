// What of a connection's bytes has arrived: counted from what the other host's system has acknowledged.
//
// On the wire the payload stands among frames and ciphertext. So each time the system has everything that was
// taken from callers, a mark remembers both counts:
//
//     payload   [ message 1 ][ message 2 ][ message 3 ]
//     wire      [  handshake  |f message 1 |f message 2 |f message 3 ]
//                   wireStart ^    mark 1  ^    mark 2  ^    mark 3  ^
//                                       ^ acknowledged: message 1 has not arrived yet
//
// Limits    kLwsMarks marks wait; above that the newest one moves, and what it stood for arrives with it.
//           Where the system cannot tell, what it has counts as arrived.
// Threads   The connection's owner.
#pragma once

#include "commonlibc/lws_connection_state.h"

namespace vx {

// The system has everything that was taken but the block: remembers how far the wire is.
void vxLwsNoteWire(VXLwsConnection& connection);
// Looks at what has arrived.
void vxLwsNoteArrived(VXLwsConnection& connection);

}  // namespace vx
