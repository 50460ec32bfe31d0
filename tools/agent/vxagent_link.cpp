#include "tools/agent/vxagent_link.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace vx::agent {
namespace {

constexpr std::size_t kReadSize = 65536;
constexpr int kReadsPerTurn = 8;

int dial(const Link& link, const sockaddr_in& address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
    return link.pipes->dial(link.host, text, ntohs(address.sin_port));
}

bool wouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

std::int64_t monotonicMs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::int64_t Backoff::pause() {
    const std::int64_t longest = std::min(nextMs, maxMs);
    nextMs = std::min(nextMs * 2, std::max(maxMs, kRetryFirstMs));
    return longest - static_cast<std::int64_t>(lot() % static_cast<std::uint64_t>(longest / 2 + 1));
}

bool resolveHost(const std::string& host, int port, sockaddr_in& address) {
    address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) == 1) return true;
    addrinfo hints{}, *found = nullptr;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found) return false;
    address.sin_addr = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

void openLink(Link& link, const sockaddr_in& address, std::int64_t nowMs) {
    link.fd =
        link.pipes ? dial(link, address) : socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    link.out.clear();
    link.in.clear();
    link.skipping = false;
    if (link.fd < 0) {
        closeLink(link, nowMs);
        return;
    }
    link.state = LinkState::kConnecting;
    link.connectByMs = nowMs + kConnectMs;
    if (link.pipes) return;
    const int on = 1;
    setsockopt(link.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    const int result = connect(link.fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    if (result != 0 && errno != EINPROGRESS) closeLink(link, nowMs);
}

short connectEvents(const Link& link) {
    return link.pipes ? POLLIN : POLLOUT;
}

IoResult finishConnect(Link& link) {
    int error = 0;
    char byte = 0;
    socklen_t size = sizeof(error);
    if (link.pipes) {
        if (recv(link.fd, &byte, 1, 0) != 1) return IoResult::kLost;
    } else if (getsockopt(link.fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) {
        return IoResult::kLost;
    }
    link.state = LinkState::kUp;
    return IoResult::kDone;
}

IoResult sendBytes(const Link& link, const char* data, std::size_t size, std::size_t& sent) {
    sent = 0;
    while (sent < size) {
        const ssize_t count = send(link.fd, data + sent, size - sent, MSG_NOSIGNAL);
        if (count < 0) return wouldBlock(errno) ? IoResult::kLater : IoResult::kLost;
        sent += static_cast<std::size_t>(count);
    }
    return IoResult::kDone;
}

IoResult sendOut(Link& link) {
    std::size_t sent = 0;
    const IoResult result = sendBytes(link, link.out.data(), link.out.size(), sent);
    link.out.erase(0, sent);
    return result;
}

IoResult receiveIn(Link& link) {
    char buffer[kReadSize];
    for (int turn = 0; turn < kReadsPerTurn; ++turn) {
        const ssize_t count = recv(link.fd, buffer, sizeof(buffer), 0);
        if (count == 0) return IoResult::kLost;
        if (count < 0) return wouldBlock(errno) ? IoResult::kLater : IoResult::kLost;
        link.in.append(buffer, static_cast<std::size_t>(count));
    }
    return IoResult::kLater;
}

bool takeLine(Link& link, std::string& line) {
    for (;;) {
        const std::size_t end = link.in.find('\n');
        if (end == std::string::npos) {
            if (link.in.size() > kLineMax) {
                link.skipping = true;
                link.in.clear();
            }
            return false;
        }
        const bool whole = !link.skipping;
        link.skipping = false;
        line.assign(link.in, 0, end);
        link.in.erase(0, end + 1);
        if (whole) return true;
    }
}

void closeLink(Link& link, std::int64_t nowMs) {
    if (link.fd >= 0) close(link.fd);
    link.fd = -1;
    link.state = LinkState::kDown;
    link.out.clear();
    link.in.clear();
    link.retryAtMs = nowMs + link.backoff.pause();
}

}  // namespace vx::agent
