#include "commonlibc/platform/vx_platform_send.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

namespace vx {

std::int64_t vx_platform_send_now(int descriptor, const char* data, std::size_t length) {
    const ssize_t taken = ::send(descriptor, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (taken >= 0) return taken;
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ENOBUFS ? 0 : -1;
}

bool vx_platform_wait_writable(int descriptor, int milliseconds) {
    pollfd entry{descriptor, POLLOUT, 0};
    return ::poll(&entry, 1, milliseconds) != 0;
}

}  // namespace vx
