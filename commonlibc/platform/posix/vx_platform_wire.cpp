#include "commonlibc/platform/vx_platform_wire.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace vx {

namespace {

bool acknowledgedBytes(int descriptor, std::int64_t* out) {
    tcp_info info{};
    socklen_t size = sizeof(info);
    constexpr std::size_t kNeeded = offsetof(tcp_info, tcpi_bytes_acked) + sizeof(info.tcpi_bytes_acked);
    if (::getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0 || size < kNeeded) return false;
    *out = static_cast<std::int64_t>(info.tcpi_bytes_acked);
    return true;
}

void setOption(int descriptor, int level, int option, int value) {
    static_cast<void>(::setsockopt(descriptor, level, option, &value, sizeof(value)));
}

// A peer that went without a word is found out within a quarter of an hour.
void keepAlive(int descriptor) {
    constexpr int kIdleSeconds = 600, kIntervalSeconds = 60, kProbes = 5;
    setOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, kIdleSeconds);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, kIntervalSeconds);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, kProbes);
}

}  // namespace

bool vx_platform_wire_bytes(int descriptor, VXWireBytes* out) {
    constexpr int kTries = 8;
    std::int64_t before = 0, after = 0;
    int waiting = 0;
    if (!acknowledgedBytes(descriptor, &after)) return false;
    // The sum holds only where nothing was acknowledged between the two questions.
    for (int i = 0; i < kTries; ++i) {
        before = after;
        if (::ioctl(descriptor, SIOCOUTQ, &waiting) != 0 || !acknowledgedBytes(descriptor, &after))
            return false;
        if (before == after) break;
    }
    *out = {after + waiting, after};
    return true;
}

bool vx_platform_connection_end(int descriptor, bool ours, char* ip, std::size_t ipSize, int* port) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    const int status = ours ? ::getsockname(descriptor, raw, &size) : ::getpeername(descriptor, raw, &size);
    if (status != 0 || address.sin_family != AF_INET) return false;
    char text[INET_ADDRSTRLEN];
    if (ipSize < sizeof(text) || !::inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text))) return false;
    for (std::size_t i = 0; i < sizeof(text); ++i) ip[i] = text[i];
    *port = ntohs(address.sin_port);
    return true;
}

int vx_platform_accept(int listening, int* error) {
    const int descriptor = ::accept4(listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor < 0) {
        *error = errno;
        const bool none = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED;
        return none ? -1 : -2;
    }
    keepAlive(descriptor);
    setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    return descriptor;
}

int vx_platform_copy_descriptor(int descriptor) {
    return ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
}

void vx_platform_close_descriptor(int descriptor) {
    ::close(descriptor);
}

}  // namespace vx
