// Datagrams of agents: each wrapped message finds its context and becomes a call.
//
//     datagram -> messages (vx_udp_header) -> context by index, or by registration -> lookup key -> handler
//
// Errors    A datagram below 45 bytes, a malformed header, an index without a context: traced, dropped. A bad
//           message ends its datagram, what stood before it counts.
// Threads   A worker, with the root context as current; it is current again afterwards. Several workers may
//           meet one context: the decode lock orders them, and also covers the lookup key. It is held over
//           records of a datagram that follow one another, and not during an answer.
#pragma once

#include <cstdint>

#include "commonlibc/context/VXUdpState.h"

namespace vx {

// Handles every message of a datagram.
void decode_udp_Message_wrapper(const char* buffer, std::int32_t length, VXUdpAddress sender);
// Handles one, header and payload with its newline.
void decode_udp_Message(const char* buffer, std::int32_t length, VXUdpAddress sender);

}  // namespace vx
