// TCP connections by their descriptors: what the system knows of them, and accepting them for a library that
// takes descriptors.
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

// Takes a connection that waits at a listening descriptor, ready for a library that never waits: kept alive,
// without delay. A descriptor; -1 when none waits; -2, with the system's code in `error`, when none can be
// taken.
int vx_platform_accept(int listening, int* error);
// A second descriptor of the same thing, or -1.
int vx_platform_copy_descriptor(int descriptor);
void vx_platform_close_descriptor(int descriptor);

}  // namespace vx
