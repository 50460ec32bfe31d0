// A listening socket on loopback that plays the peer of a connection, line by line.
//
//     FakeCollector collector;                       // a free port of its own
//     ... the code under test connects to "127.0.0.1", collector.port() ...
//     FakePeer peer = collector.accept();
//     EXPECT_EQ(peer.readLine(), "99,NewConnection,FPGVersion:1.0");
//     peer.send("vx_control_req:action=...\n");
//
// Every call waits at most its time-out: a peer that was not accepted answers false, a line that did not
// come is "(none)" (kNoLine). A line is answered without its newline; at the end of the stream what is left
// counts as a line, then comes kNoLine.
#pragma once

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/loopback.h"

namespace vx::test {

inline constexpr double kPeerSeconds = 60;
inline const std::string kNoLine = "(none)";

// True when the descriptor can be read (or is at its end) before the deadline.
inline bool readableUntil(int descriptor, std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd entry{descriptor, POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) > 0;
}
inline std::chrono::steady_clock::time_point deadlineIn(double seconds) {
    return std::chrono::steady_clock::now() +
           std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

// One accepted connection.
class FakePeer {
public:
    FakePeer() = default;
    explicit FakePeer(int descriptor) : fd_(descriptor) {}
    ~FakePeer() { close(); }
    FakePeer(FakePeer&& other) noexcept { *this = std::move(other); }
    FakePeer& operator=(FakePeer&& other) noexcept {
        std::swap(fd_, other.fd_);
        std::swap(ended_, other.ended_);
        std::swap(pending_, other.pending_);
        return *this;
    }
    explicit operator bool() const { return fd_ >= 0; }
    int descriptor() const { return fd_; }

    std::string readLine(double seconds = kPeerSeconds) {
        const auto deadline = deadlineIn(seconds);
        std::size_t end = 0;
        while ((end = pending_.find('\n')) == std::string::npos) {
            if (readMore(deadline)) continue;
            if (pending_.empty() || !ended_) return kNoLine;
            end = pending_.size();
            break;
        }
        std::string line = pending_.substr(0, end);
        pending_.erase(0, end + 1);
        return line;
    }
    // Lines up to the first that begins with `prefix` (the last element), or to the end of the stream.
    std::vector<std::string> readLinesUpTo(const std::string& prefix, double seconds = kPeerSeconds) {
        std::vector<std::string> lines;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        const auto left = [&] {
            return std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
        };
        do lines.push_back(readLine(left()));
        while (lines.back() != kNoLine && !lines.back().starts_with(prefix));
        return lines;
    }
    // Everything up to the end of the stream, or what came within the time.
    std::string readToEnd(double seconds = kPeerSeconds) {
        const auto deadline = deadlineIn(seconds);
        while (readMore(deadline)) continue;
        return std::exchange(pending_, {});
    }
    // The next `count` bytes, or what came within the time.
    std::string readBytes(std::size_t count, double seconds = kPeerSeconds) {
        const auto deadline = deadlineIn(seconds);
        while (pending_.size() < count && readMore(deadline)) continue;
        std::string bytes = pending_.substr(0, count);
        pending_.erase(0, count);
        return bytes;
    }
    // True when the other side has closed; what it sent before can still be read.
    bool ended(double seconds = kPeerSeconds) {
        pending_ = readToEnd(seconds);
        return ended_;
    }
    bool send(const std::string& text) const {
        return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    void close() {
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    }
    // Closes so that the other side sees a reset connection.
    void reset() {
        const linger now{1, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
        close();
    }

private:
    bool readMore(std::chrono::steady_clock::time_point deadline) {
        char bytes[65536];
        if (fd_ < 0 || ended_ || !readableUntil(fd_, deadline)) return false;
        const ssize_t count = ::recv(fd_, bytes, sizeof(bytes), 0);
        ended_ = count <= 0;
        if (count > 0) pending_.append(bytes, static_cast<std::size_t>(count));
        return !ended_;
    }

    int fd_ = -1;
    bool ended_ = false;
    std::string pending_;
};

class FakeCollector {
public:
    // `receiveBuffer` above 0 keeps the system's buffer of accepted connections small.
    explicit FakeCollector(int receiveBuffer = 0) {
        listenAgain();
        if (receiveBuffer > 0)
            ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    }
    ~FakeCollector() { stopListening(); }
    FakeCollector(const FakeCollector&) = delete;
    FakeCollector& operator=(const FakeCollector&) = delete;

    int port() const { return port_; }
    int descriptor() const { return fd_; }
    FakePeer accept(double seconds = kPeerSeconds) const {
        if (fd_ < 0 || !readableUntil(fd_, deadlineIn(seconds))) return FakePeer();
        return FakePeer(::accept(fd_, nullptr, nullptr));
    }
    // Later connects are refused.
    void stopListening() {
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    }
    // Takes connects again, at the same port.
    void listenAgain() {
        fd_ = boundTo(port_, SOCK_STREAM, true);
        port_ = portOf(fd_);
        ::listen(fd_, 16);
    }

private:
    int fd_ = -1;
    int port_ = 0;
};

}  // namespace vx::test
