// Lines from agents: registrations, requests to the service, payloads for the collector, log lines.
//
// A connection that is not identified may only register; on an identified one the first row of a table whose
// prefix fits takes the line. Lines to agents go out through VXAgentLine.
//
// Threads   The listener.
#pragma once

#include <apr_network_io.h>

#include "commonlibc/context/vx_application.h"

namespace vx {

// `line` is terminated, without its newline, and may be changed in place, its terminator included. The
// connection, a socket or a WebSocket (then the socket is null), may be closed afterwards
// (vxConnectionClosed).
void processReceivedMsg(apr_socket_t* socket, char* line, epollPtr_t** epollPtrSlot,
                        VXAgentWs* wsi = nullptr);

}  // namespace vx
