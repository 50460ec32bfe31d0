// Accepted connections that have not said who they are.
//
//     accepted -> silent (polled) -> first line -> identified (the registry's)
//                                        |
//                                        +-> unknown: watched, closed when the peer has gone or after 30 s
//
// A first line that nothing answers to takes the connection out of the pollset: an agent whose data line
// came too early is closed later, and so comes again. Silent connections wait as long as they like, unless
// the pollset is full: then one that has been silent for 30 s gives way.
//
// Limits    As many unknown connections as the pollset holds; one more closes the oldest.
// Threads   The listener.
#pragma once

#include <apr_network_io.h>

#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr std::int64_t kUnknownTimeUs = 30000000;

// Takes an accepted socket (its own pool) into the pollset.
void vxPendingAccepted(apr_socket_t* socket);
// Reads the first message of a silent connection.
void vxPendingReadable(apr_socket_t* socket);
// A silent connection has gone.
void vxPendingGone(apr_socket_t* socket);
// Once a poll round: looks at the unknown ones.
void vxPendingLook();
std::size_t vxPendingCount();  // silent and unknown ones

}  // namespace vx
