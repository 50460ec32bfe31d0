// Registration: finds or makes the instance and the process record of a connection that announces itself.
//
//     control      by tier, server, agent and application name; a new identity makes an instance, a new pid
//                  a process record
//     the others   by names and collector-given ids, then by pid; the control connection comes first
//
// A process that registers is published first; then, under the instance's message mutex, it gets what it
// has missed: the reply once the collector has answered, the stored start line while instrumentation runs.
// What happens later reaches it through the control thread.
//
// A connection is a socket or, behind a null socket, a WebSocket.
//
// Errors    A connection that is refused is closed (vxConnectionClosed); one that nothing answers to is left
// as
//           it is, with an empty slot.
// Threads   The listener.
#pragma once

#include <apr_network_io.h>

#include "commonlibc/context/vx_application.h"

namespace vx {

inline constexpr int kConTypeControl = 1, kConTypeData = 2, kConTypeAS = 3, kConTypeDiscovery = 4;

// `fields`: the line behind its prefix, taken apart in place. The connection stands in no pollset yet; on
// success it does, and `*epollPtrSlot` is the process's own pair.
void parseProxyMsgReq(apr_socket_t* socket, char* fields, epollPtr_t** epollPtrSlot, int connectionType,
                      VXAgentWs* wsi = nullptr);
// Fills a process record from its control connection and answers the agent. 0, or -1 when the agent could
// not be answered: the record is free again, the socket still open and in no pollset.
int populateProcessInfo(std::int32_t appIndex, std::int32_t procIndex, std::int64_t pid,
                        epollPtr_t** epollPtrSlot, apr_socket_t* socket, int addProcess,
                        VXAgentWs* wsi = nullptr);

}  // namespace vx
