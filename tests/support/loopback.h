// Sockets of loopback.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace vx::test {

inline sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

// A socket bound to the port, 0: to one that is free; -1 when it is taken. With `again` connections of a
// former one do not count.
inline int boundTo(int port, int type = SOCK_STREAM | SOCK_CLOEXEC, bool again = false) {
    const int fd = ::socket(AF_INET, type, 0);
    const int on = again;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const sockaddr_in address = loopback(port);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return fd;
    ::close(fd);
    return -1;
}

inline int portOf(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// A connection, by `fd` when there is one already; -1 when it was refused.
inline int connectedTo(int port, int fd = -1) {
    if (fd < 0) fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return fd;
    ::close(fd);
    return -1;
}

}  // namespace vx::test
