// Blocking socket helpers with fixed result codes, and handles that another thread may shut down.
//
// Each helper puts the error's text (apr_strerror) into the caller's buffer of kSockErrorSize bytes; null
// where nobody wants it. The line read puts the code behind the text.
//
// Results   kSockTimeout (-3), kSockClosed (-2), kSockFull or kSockFailed (-1), kSockOther (-4),
//           kSockNoBytes (-5); a count or 0 otherwise, as each function says.
// Threads   A socket is read by one thread. Who may close or shut down beside it goes through
//           VXSharedSocket, whose small mutex is never held during a send.
#pragma once

#include <apr_network_io.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "commonlibc/context/VXSharedSocket.h"

namespace vx {

inline constexpr std::size_t kSockErrorSize = 1024;
inline constexpr int kSockFailed = -1, kSockFull = -1, kSockClosed = -2, kSockTimeout = -3, kSockOther = -4,
                     kSockNoBytes = -5;

// An IPv4 TCP client socket; `timeout` in microseconds bounds the connect and is the socket's time-out
// afterwards. -1: blocking afterwards, the connect takes at most 10 s. Finding the host's address is not
// bounded. Null with the text in `error`; a failed connect closes the socket.
apr_socket_t* vxlb_create_client_con(const char* host, int port, apr_pool_t* pool, std::int64_t timeout,
                                     char* error);
// Binds TCP on 0.0.0.0 with SO_REUSEADDR and listens; the socket has a pool of its own below `parent`. Null,
// with nothing left over, and the text in `error`.
apr_socket_t* create_socket_and_bind(int port, apr_pool_t* parent, char* error);

// Reads up to a newline into `buffer` of `size` bytes (1024 by rule); a pending partial line is moved to
// its start first and cleared. The bytes held (they may lie past the newline), or a code.
int vxlb_read_line(apr_socket_t* socket, char* buffer, int size, char** pendingPointer, int* pendingLength,
                   char* error);
// Reads until size - 1 bytes are there. Bytes, -3 on a time-out, -2 on any other error; size 1 gives 0.
std::int64_t vxlb_read_n_bytes(apr_socket_t* socket, char* buffer, std::int64_t size, char* error);
// One read of at most size - 1 bytes, terminated. -2 at the end of the stream (or size 1), -1 on others.
int vxlb_read_bytes(apr_socket_t* socket, char* buffer, int size, char* error);
// Sends everything. The count, -3 on a time-out, -2 on other errors or a null socket.
std::int64_t vxlb_send_n_bytes(apr_socket_t* socket, const char* data, std::int64_t length, char* error);
std::int64_t vxlb_sendto_n_bytes(apr_socket_t* socket, apr_sockaddr_t* address, const char* data,
                                 std::int64_t length, char* error);

// How long one message may take. Waits are for the system's poll, so they go by its clock.
struct VXSendLimit {
    using Clock = std::chrono::steady_clock;

    Clock::time_point deadline;
    std::chrono::microseconds waits;  // that may pass in waiting for the peer; what is left, afterwards

    explicit VXSendLimit(std::chrono::microseconds time) : deadline(Clock::now() + time), waits(time) {}
    bool over() const { return waits.count() <= 0 || Clock::now() >= deadline; }
};
// Sends everything on a socket whose time-out and mode belong to somebody else. False when not all was taken
// within the limit; one attempt is made even behind it.
bool vxlb_send_within(int descriptor, const char* data, std::size_t length, VXSendLimit& limit);

enum class VXSocketEnd { kLocal, kRemote };
// Address and port of one end. 0, or -1 with the reason traced.
int get_ip_port(apr_socket_t* socket, char* ipBuffer, std::size_t ipSize, int* portOut, VXSocketEnd which);
inline int get_src_addr(apr_socket_t* socket, char* ip, std::size_t size, int* port) {
    return get_ip_port(socket, ip, size, port, VXSocketEnd::kLocal);
}
inline int get_dst_addr(apr_socket_t* socket, char* ip, std::size_t size, int* port) {
    return get_ip_port(socket, ip, size, port, VXSocketEnd::kRemote);
}
int vxlb_socket_fd(apr_socket_t* socket);  // the system's descriptor, -1 for null

// Publishes a socket in an empty handle.
void vxlb_shared_put(VXSharedSocket& handle, apr_socket_t* socket);
// Closes and clears; a null handle is passed over. Only the owner of the read side calls it.
void vxlb_shared_close(VXSharedSocket& handle);
// shutdown() in both directions from any thread: the owner sees the end of the stream. No-op when null, and
// when a socket other than `only` stands there.
void vxlb_shared_shutdown(VXSharedSocket& handle, const apr_socket_t* only = nullptr);

}  // namespace vx
