// What the system knows of a TCP connection, by its descriptor.
//
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx {

// Bytes on the wire since the connection began (its beginning counts as one).
struct VXWireBytes {
    std::int64_t taken;         // by the system, from us
    std::int64_t acknowledged;  // of these, by the other host
};
// False, with nothing changed, where the system cannot tell.
bool vx_platform_wire_bytes(int descriptor, VXWireBytes* out);
// Address (IPv4, as text) and port of our end or the other one. False, with nothing changed, when there is
// none.
bool vx_platform_connection_end(int descriptor, bool ours, char* ip, std::size_t ipSize, int* port);

}  // namespace vx
