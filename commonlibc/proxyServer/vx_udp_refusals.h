// Refused messages of datagrams: all are counted, a few are traced with their reason.
//
// Whoever can send to the port can send what is refused, and a function that has ended goes on sending with
// its old index: a line for each would drive everything else out of the trace.
//
// Limits    20 reasons between two tellings, which are a minute apart.
// Threads   Any; no lock.
#pragma once

#include <cstdint>

namespace vx {

inline constexpr std::uint32_t kRefusalsTraced = 20;

// Whether the reason of a refusal is to be traced.
bool vxUdpTracesRefusal();
// Counts a message, or the rest of a datagram, that came to nothing.
void vxUdpCountRefusal();
// Traces how many there were, when more have come than were traced; reasons are traced again from here on.
void vxUdpTellRefusedMessages();

}  // namespace vx
