#include "commonlibc/platform/vx_platform_wire.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

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

}  // namespace vx
