// Datagrams taken apart: wrapped messages, each with its header (layout: vxlb_wrap_header.h).
//
//     datagram: ["^" header | payload "\n"]["^" header | payload "\n"] ... rest below 41 bytes: passed over
//
// Sums of lengths are made in 64 bits and compared with what is left before a byte is read.
//
// Errors    A message that is malformed ends the datagram, with its text traced; what stood before it
//           has been handled.
// Threads   Any; no state. In place: nothing is allocated.
#pragma once

#include <cstddef>
#include <cstdint>

#include "commonlibc/vxlb_bytes.h"
#include "commonlibc/vxlb_wrap_header.h"

namespace vx {

// A header's fields; texts are views into the datagram.
struct VXUdpHeader {
    std::int64_t whLen;
    std::int16_t agentType, messageType;
    std::int64_t requestKey;
    std::int32_t contextIndex, attached;
    VXByteView apiReqId, awsReqId, funcName, tags;  // empty: absent, or the index is known
};

// Reads the header in front of `message`. False when a field does not fit; `header` is then undefined.
bool get_ws_param_values(VXByteView message, VXUdpHeader& header);

// Cuts the next message off the front of `datagram`, of which `position` bytes have been handled. False when
// there is none, or it is malformed (traced).
bool vxUdpNextMessage(VXByteView datagram, std::size_t& position, VXByteView& message);

// Name of an agent type code: "Python" for 0; "Unknown" for others.
const char* vxUdpAgentTypeName(std::int16_t code);

}  // namespace vx
