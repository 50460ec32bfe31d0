// Clients of a context: the addresses that its datagrams came from, and answers to them.
//
// An answer goes to every client of the context; none is addressed to one alone. Sends never wait: a datagram
// that the system does not take now is lost, as one on the way would be.
//
// Limits    256 clients a context, one for each port; a further one takes the place of the one that has been
//           silent longest. An address that turns up with another host is replaced.
// Threads   Any, on the current context, which the caller keeps from ending. The map's mutex guards it, also
//           during the sends; VXUdp.socketMutex is taken inside it.
#pragma once

#include <cstddef>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Remembers where the present datagram came from, heard of at udp.lastActivityMs.
void addUDPClientSocket(VXUdpAddress sender);
// Sends a terminated text to all clients.
void SendMessageOnUDPSocket(const char* text);
// The same with its length, and the words of its trace line ("%s" stands for the client's address).
void vxUdpSendToClients(const char* text, std::size_t length, const char* what);
// Forgets all of them.
void vxUdpFreeClients(vxApplication& app);

}  // namespace vx
