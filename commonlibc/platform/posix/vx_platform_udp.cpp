#include "commonlibc/platform/vx_platform_udp.h"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vx {

namespace {

constexpr timeval kReceiveWait{1, 0};

sockaddr_in addressOf(VXDatagramEnd end) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(end.ip);
    address.sin_port = htons(end.port);
    return address;
}

bool prepare(int descriptor, int port, int queueBytes) {
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &queueBytes, sizeof(queueBytes));
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &kReceiveWait, sizeof(kReceiveWait));
    const sockaddr_in address = addressOf({INADDR_ANY, static_cast<std::uint16_t>(port)});
    return ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool isWait(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

int vx_platform_udp_open(int port, int queueBytes, char* error, std::size_t errorSize) {
    const int descriptor = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor >= 0 && prepare(descriptor, port, queueBytes)) return descriptor;
    std::snprintf(error, errorSize, "%s", std::strerror(errno));
    if (descriptor >= 0) ::close(descriptor);
    return -1;
}

void vx_platform_udp_close(int descriptor) {
    if (descriptor >= 0) ::close(descriptor);
}

int vx_platform_udp_queue_size(int descriptor) {
    int bytes = 0;
    socklen_t size = sizeof(bytes);
    return ::getsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &bytes, &size) == 0 ? bytes : 0;
}

int vx_platform_udp_receive(int descriptor, VXDatagramRoom* rooms, int count, std::size_t size, bool wait) {
    mmsghdr heads[kMostDatagrams];
    iovec parts[kMostDatagrams];
    sockaddr_in from[kMostDatagrams];
    for (int i = 0; i < count; ++i) {
        parts[i] = {rooms[i].buffer, size};
        heads[i] = {};
        heads[i].msg_hdr.msg_iov = &parts[i];
        heads[i].msg_hdr.msg_iovlen = 1;
        heads[i].msg_hdr.msg_name = &from[i];
        heads[i].msg_hdr.msg_namelen = sizeof(from[i]);
    }
    const int got = ::recvmmsg(descriptor, heads, static_cast<unsigned>(count),
                               wait ? MSG_WAITFORONE : MSG_DONTWAIT, nullptr);
    if (got < 0) return isWait(errno) ? kNoDatagram : kDatagramFailed;
    for (int i = 0; i < got; ++i) {
        if (heads[i].msg_hdr.msg_namelen == 0) return i > 0 ? i : kNoDatagram;  // woken: nobody sent this
        rooms[i].length = heads[i].msg_len;
        rooms[i].sender = {ntohl(from[i].sin_addr.s_addr), ntohs(from[i].sin_port)};
    }
    return got > 0 ? got : kNoDatagram;
}

void vx_platform_udp_wake(int descriptor) {
    ::shutdown(descriptor, SHUT_RD);
}

bool vx_platform_udp_send(int descriptor, const char* data, std::size_t length, VXDatagramEnd to) {
    const sockaddr_in address = addressOf(to);
    return ::sendto(descriptor, data, length, MSG_DONTWAIT | MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&address),
                    sizeof(address)) == static_cast<ssize_t>(length);
}

std::int64_t vx_platform_udp_lost(int descriptor) {
    std::uint32_t figures[SK_MEMINFO_VARS] = {};
    socklen_t size = sizeof(figures);
    if (::getsockopt(descriptor, SOL_SOCKET, SO_MEMINFO, figures, &size) != 0) return -1;
    return size > SK_MEMINFO_DROPS * sizeof(std::uint32_t) ? figures[SK_MEMINFO_DROPS] : -1;
}

}  // namespace vx
