// Sends that never wait, for sockets whose other side of use (reading, time-outs) belongs to another thread.
//
// A time-out set on a socket is shared by all its users; these calls leave it and the socket's mode alone.
//
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx {

// Offers the bytes to the system. The count taken, 0 when it takes none now, -1 when the connection is gone.
std::int64_t vx_platform_send_now(int descriptor, const char* data, std::size_t length);
// Waits until the descriptor may take bytes, or is gone (the next send tells). False when the time is over.
bool vx_platform_wait_writable(int descriptor, int milliseconds);

}  // namespace vx
