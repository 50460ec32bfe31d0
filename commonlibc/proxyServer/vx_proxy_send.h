// The listener's own sends: however many peers do not read, together they hold it up little.
//
// A message has 2 s in all. The time spent in waiting for peers comes out of an allowance that all sends of
// the listener share: 2 s, which grow back by a tenth of the time that passes. When it is used up, a message
// gets what the system takes at once, and its connection is given up for the rest.
//
// Errors    0, or -1 when the message did not go out whole; the connection is then to be closed.
// Threads   The listener.
#pragma once

#include <cstddef>

#include "commonlibc/context/vx_application.h"

namespace vx {

// To an agent, on its control connection.
int vxListenerSend(processInfo_t& process, const char* data, std::size_t length);
// On a connection that nobody else sends on.
int vxListenerSend(apr_socket_t* socket, const char* data, std::size_t length);
// On the current instance's discovery connection over libwebsockets. A message has a millisecond beside the
// allowance: also what the system takes at once goes through turns of the library.
int vxListenerSendDiscovery(const char* data, std::size_t length);

}  // namespace vx
