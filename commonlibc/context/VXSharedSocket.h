// A socket handle that its owner closes and that another thread may shut down.
//
// Threads   `socket` is a shared word: any thread may test it for null. The owner puts and closes it,
//           others may only shut it down; both take `closeMutex`, which is never held during a send.
#pragma once

#include <apr_network_io.h>
#include <apr_thread_mutex.h>

#include <atomic>

namespace vx {

struct VXSharedSocket {
    std::atomic<apr_socket_t*> socket;  // null when not connected
    apr_thread_mutex_t* closeMutex;     // made with the instance or process record that owns the handle

    apr_socket_t* get() const noexcept { return socket.load(std::memory_order_acquire); }
};

}  // namespace vx
