// Lines to agents: one message goes out whole, bounded in time. Here alone is decided over what: the socket
// of the process record, or its WebSocket.
//
// Limits    A message over a socket has 2 s in all; one that meets them counts as broken: the sender shuts
//           the socket down, and the listener's hang-up road closes it. Later senders then fail at once.
//           Over a WebSocket it waits in the connection's send block (VXAgentWs), which is bounded.
// Errors    0, or -1 when the agent has no control connection or the message did not go out.
// Threads   Any; the record's sendMutex orders the senders. Never under the decode lock. The listener reads
//           the same socket meanwhile: its time-out and mode are left alone.
#pragma once

#include <chrono>
#include <cstddef>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_sock.h"

namespace vx {

inline constexpr std::chrono::milliseconds kMessageTime{2000};

// True while the process has a control connection.
inline bool vxHasControl(const processInfo_t& process) {
    return process.control.get() || process.controlWs.load(std::memory_order_acquire);
}

// Sends `length` bytes as they are; a caller with a limit of its own learns what is left of it.
int vxSendToAgent(processInfo_t& process, const char* data, std::size_t length);
int vxSendToAgent(processInfo_t& process, const char* data, std::size_t length, VXSendLimit& limit);
// Sends newline, line, newline in one buffer.
int vxRelayLine(processInfo_t& process, const char* line);
// Relays to every process of the current instance that has a control connection; the number reached.
int vxRelayToAll(const char* line);

}  // namespace vx
