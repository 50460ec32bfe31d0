#include "tests/support/tcp_relay.h"

#include <netinet/tcp.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "tests/support/loopback.h"

namespace vx::test {

namespace {

constexpr std::size_t kMostWaiting = 256 * 1024;
constexpr int kIdleMs = 10, kBusyMs = 1;

// Where a fault strikes a stream; npos while its text has not come.
std::size_t placeOf(const Fault& fault, const std::string& bytes) {
    const std::size_t found = bytes.find(fault.behind);
    if (found == std::string::npos) return found;
    return found + fault.behind.size() + static_cast<std::size_t>(fault.bytes);
}

}  // namespace

TcpRelay::TcpRelay(int targetPort)
    : targetPort_(targetPort), listener_(boundTo(0, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC)) {
    ::listen(listener_, 128);
    port_ = portOf(listener_);
    thread_ = std::thread([this] { run(); });
}

TcpRelay::~TcpRelay() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    thread_.join();
    endAll(true);
    ::close(listener_);
}

void TcpRelay::add(const Fault& fault) {
    const std::lock_guard lock(mutex_);
    waiting_.push_back(fault);
}

void TcpRelay::endAll(bool reset) {
    const std::lock_guard lock(mutex_);
    for (Connection& connection : connections_) end(connection, reset);
}

void TcpRelay::refuse(bool on) {
    const std::lock_guard lock(mutex_);
    refuse_ = on;
}

void TcpRelay::end(Connection& connection, bool reset) {
    if (std::exchange(connection.gone, true)) return;
    for (const int fd : {connection.up.from, connection.up.to}) {
        const linger now{reset, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
        ::close(fd);
    }
    waiting_.splice(waiting_.end(), connection.armed);  // they wait for another connection
}

// One turn: wait without the lock, then read and pass on under it.
void TcpRelay::run() {
    for (;;) {
        std::vector<pollfd> polled{{listener_, POLLIN, 0}};
        int waitMs = kIdleMs;
        {
            const std::lock_guard lock(mutex_);
            if (stop_) return;
            connections_.remove_if([](const Connection& one) { return one.gone; });
            for (const Connection& one : connections_)
                for (const Stream* stream : {&one.up, &one.down}) {
                    const std::size_t waiting = stream->bytes.size() - stream->passed;
                    if (waiting > 0) waitMs = kBusyMs;
                    if (!stream->ended && waiting < kMostWaiting) polled.push_back({stream->from, POLLIN, 0});
                }
        }
        ::poll(polled.data(), polled.size(), waitMs);
        const std::lock_guard lock(mutex_);
        acceptOne();
        for (Connection& one : connections_) {
            for (Stream* stream : {&one.up, &one.down})
                if (!one.gone) receive(one, *stream);
            if (!one.gone && !one.named) arm(one);
            if (!one.gone && one.named) passOn(one, one.up, Way::kUp);
            if (!one.gone && one.named) passOn(one, one.down, Way::kDown);
        }
    }
}

void TcpRelay::acceptOne() {
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) return;
    ++accepted_;
    const int target = refuse_ ? -1 : connectedTo(targetPort_);
    if (target < 0) {
        ::close(client);
        return;
    }
    const int on = 1;
    for (const int end : {client, target}) ::setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    Connection& connection = connections_.emplace_back();
    connection.up.from = connection.down.to = client;
    connection.up.to = connection.down.from = target;
    arm(connection);
}

// Faults that name no connection are armed at once, the others when the first line has come.
void TcpRelay::arm(Connection& connection) {
    const std::string& line = connection.up.bytes;
    connection.named = line.find('\n') != std::string::npos || connection.up.ended;
    for (Fault& fault : waiting_) {
        const bool fits =
            fault.connection.empty() ? line.empty() : connection.named && line.starts_with(fault.connection);
        if (!fits) continue;
        --fault.times;
        connection.armed.push_back(fault);
        connection.armed.back().times = 1;
        if (fault.connection.empty()) connection.named = true;  // nothing to wait for
    }
    waiting_.remove_if([](const Fault& fault) { return fault.times == 0; });
}

void TcpRelay::receive(Connection& connection, Stream& stream) {
    if (stream.ended || stream.bytes.size() - stream.passed >= kMostWaiting) return;
    char bytes[65536];
    const ssize_t count = ::recv(stream.from, bytes, sizeof(bytes), MSG_DONTWAIT);
    if (count < 0 && errno != EAGAIN && errno != EINTR) end(connection, true);
    if (count > 0) stream.bytes.append(bytes, static_cast<std::size_t>(count));
    stream.ended = count == 0;
}

// Passes on what stands in front of every fault's place, then strikes where that was reached.
void TcpRelay::passOn(Connection& connection, Stream& stream, Way way) {
    std::size_t most = std::min(stream.bytes.size() - stream.passed, stream.piece);
    for (const Fault& fault : connection.armed)
        if (fault.way == way) most = std::min(most, placeOf(fault, stream.bytes) - stream.passed);
    const char* next = stream.bytes.data() + stream.passed;
    const ssize_t sent = most > 0 ? ::send(stream.to, next, most, MSG_DONTWAIT | MSG_NOSIGNAL) : 0;
    if (sent < 0 && errno != EAGAIN && errno != EINTR) return end(connection, true);
    if (sent > 0) stream.passed += static_cast<std::size_t>(sent);

    const auto reached = std::ranges::find_if(connection.armed, [&](const Fault& fault) {
        return fault.way == way && placeOf(fault, stream.bytes) <= stream.passed;
    });
    if (reached != connection.armed.end()) {
        const Fault fault = *reached;
        connection.armed.erase(reached);
        ++struck_;
        if (fault.kind != Fault::Kind::kSlow) return end(connection, fault.kind == Fault::Kind::kReset);
        stream.piece = fault.piece;
    }
    if (connection.armed.empty()) stream.bytes.erase(0, std::exchange(stream.passed, 0));
    if (!stream.ended || stream.endTold || stream.passed < stream.bytes.size()) return;
    stream.endTold = true;
    ::shutdown(stream.to, SHUT_WR);
    if (connection.up.endTold && connection.down.endTold) end(connection, false);
}

}  // namespace vx::test
