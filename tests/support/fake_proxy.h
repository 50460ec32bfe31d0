// Fake proxy: the listening side of agent connections, driven step by step by a test.
//
// Every wait ends after five seconds with a failed expectation.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "commonlibc/vxlb_bytes.h"

namespace vx::test {

inline bool readable(int fd, int timeoutMs = 5000) {
    pollfd wait{fd, POLLIN, 0};
    return poll(&wait, 1, timeoutMs) == 1;
}

// One accepted connection.
class FakeProxyPeer {
public:
    explicit FakeProxyPeer(int fd = -1) : fd_(fd) {}
    FakeProxyPeer(FakeProxyPeer&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)), held_(std::move(other.held_)) {}
    FakeProxyPeer& operator=(FakeProxyPeer&& other) noexcept {
        hangUp();
        fd_ = std::exchange(other.fd_, -1);
        held_ = std::move(other.held_);
        return *this;
    }
    ~FakeProxyPeer() { hangUp(); }

    void hangUp() {
        if (fd_ >= 0) close(std::exchange(fd_, -1));
    }
    void say(const std::string& text) const {
        EXPECT_EQ(send(fd_, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }
    // The next line, without its newline.
    std::string line() {
        return take(held_.find('\n'), 1, [this] { return held_.find('\n'); });
    }
    // The next `count` bytes.
    std::string bytes(std::size_t count) {
        const auto whole = [this, count] { return held_.size() >= count ? count : std::string::npos; };
        return take(whole(), 0, whole);
    }
    // The next frame.
    std::string frame() {
        const std::string header = bytes(14);
        if (header.size() < 14) return header;
        const std::int32_t total = VXByteView(header.data(), header.size()).i32At(5);
        return header + bytes(static_cast<std::size_t>(total) - header.size());
    }
    // True when the agent ends the connection; what it sent before stays to be read.
    bool ended() {
        while (readable(fd_))
            if (!receive()) return true;
        return false;
    }
    std::string rest() const { return held_; }

private:
    bool receive() {
        char buffer[65536];
        const ssize_t count = recv(fd_, buffer, sizeof(buffer), 0);
        if (count <= 0) return false;
        held_.append(buffer, static_cast<std::size_t>(count));
        return true;
    }
    template <class Find>
    std::string take(std::size_t end, std::size_t behind, Find find) {
        while (end == std::string::npos && readable(fd_) && receive()) end = find();
        EXPECT_NE(end, std::string::npos) << "nothing came behind '" << held_.substr(0, 200) << "'";
        if (end == std::string::npos) return "";
        std::string taken = held_.substr(0, end);
        held_.erase(0, end + behind);
        return taken;
    }

    int fd_;
    std::string held_;
};

class FakeProxy {
public:
    FakeProxy() { listenAt(0); }
    ~FakeProxy() { closeListener(); }

    int port() const { return port_; }
    FakeProxyPeer accept() const {
        EXPECT_TRUE(readable(fd_)) << "nobody connects";
        return FakeProxyPeer(readable(fd_, 0) ? ::accept(fd_, nullptr, nullptr) : -1);
    }
    void closeListener() {
        if (fd_ >= 0) close(std::exchange(fd_, -1));
    }
    // Opens the same port again.
    void reopen() { listenAt(port_); }

private:
    void listenAt(int port) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        socklen_t size = sizeof(address);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(listen(fd_, 16), 0);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
    }

    int fd_ = -1, port_ = 0;
};

}  // namespace vx::test
