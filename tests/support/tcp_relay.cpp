#include "tests/support/tcp_relay.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "tests/support/loopback.h"

namespace vx::test {

namespace {

constexpr std::size_t kMostHeld = 256 * 1024;
constexpr std::size_t kTail = 64;  // longest text that a fault may stand behind
constexpr int kIdleMs = 1000;

std::int64_t monotonicUs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

void closeEnd(int& fd, bool reset) {
    if (fd < 0) return;
    const linger now{1, 0};
    if (reset) ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    ::close(std::exchange(fd, -1));
}

}  // namespace

TcpRelay::TcpRelay(int targetPort) : targetPort_(targetPort) {
    listener_ = boundTo(0, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC);
    ::listen(listener_, 128);
    port_ = portOf(listener_);
    wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    thread_ = std::thread([this] { run(); });
}

TcpRelay::~TcpRelay() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake();
    thread_.join();
    for (Connection& connection : connections_) end(connection, true);
    ::close(listener_);
    ::close(wakeFd_);
}

void TcpRelay::wake() const {
    ::eventfd_write(wakeFd_, 1);
}

void TcpRelay::add(const Fault& fault) {
    const std::lock_guard lock(mutex_);
    waiting_.push_back(fault);
}

void TcpRelay::endAll(bool reset) {
    {
        const std::lock_guard lock(mutex_);
        for (Connection& connection : connections_) end(connection, reset);
    }
    wake();
}

void TcpRelay::refuse(bool on) {
    const std::lock_guard lock(mutex_);
    refuse_ = on;
}

void TcpRelay::end(Connection& connection, bool reset) {
    if (std::exchange(connection.gone, true)) return;
    closeEnd(connection.client, reset);
    closeEnd(connection.target, reset);
    for (Armed& armed : connection.armed) {  // what has not struck waits for another connection
        if (armed.fault.times < 0) continue;
        armed.fault.times = 1;
        waiting_.push_back(armed.fault);
    }
}

// One turn: wait without the lock, then read, pass on and forget under it.
void TcpRelay::run() {
    for (;;) {
        std::vector<pollfd> polled{{listener_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        std::vector<std::pair<Connection*, Stream*>> owners;
        int waitMs = kIdleMs;
        {
            const std::lock_guard lock(mutex_);
            if (stop_) return;
            connections_.remove_if([](const Connection& c) { return c.gone; });
            const std::int64_t now = monotonicUs();
            for (Connection& connection : connections_)
                for (Stream* stream : {&connection.up, &connection.down}) {
                    const bool reads = !stream->ended && stream->held.size() < kMostHeld;
                    polled.push_back({reads ? stream->from : -1, POLLIN, 0});
                    owners.emplace_back(&connection, stream);
                    const bool paused = stream->goOnUs > now && !stream->held.empty();
                    if (paused)
                        waitMs = std::min(waitMs, static_cast<int>((stream->goOnUs - now) / 1000) + 1);
                    const bool writes =
                        !paused && stream->piece > 0 && !stream->held.empty() && connection.named;
                    polled.push_back({writes ? stream->to : -1, POLLOUT, 0});
                }
        }
        ::poll(polled.data(), polled.size(), waitMs);
        const std::lock_guard lock(mutex_);
        eventfd_t woken = 0;
        if (polled[1].revents) ::eventfd_read(wakeFd_, &woken);
        for (std::size_t i = 0; i < owners.size(); ++i) {
            auto& [connection, stream] = owners[i];
            if (!connection->gone && polled[2 * i + 2].revents) receive(*connection, *stream);
            const Way way = stream == &connection->up ? Way::kUp : Way::kDown;
            if (!connection->gone) passOn(*connection, *stream, way);
        }
        if (polled[0].revents) acceptOne();
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
    connection.client = connection.up.from = connection.down.to = client;
    connection.target = connection.up.to = connection.down.from = target;
    arm(connection);
}

// Faults that name no connection are armed at once, the others when the first line has come.
void TcpRelay::arm(Connection& connection) {
    const std::string& line = connection.up.held;
    connection.named = line.find('\n') != std::string::npos || connection.up.ended;
    for (Fault& fault : waiting_) {
        const bool fits = fault.connection.empty() ? !connection.named && line.empty()
                                                   : connection.named && line.starts_with(fault.connection);
        if (!fits || fault.times == 0) continue;
        if (fault.times > 0) --fault.times;
        connection.armed.push_back({fault});
    }
    for (const Armed& armed : connection.armed)
        if (armed.fault.connection.empty()) connection.named = true;  // nothing to wait for
}

void TcpRelay::receive(Connection& connection, Stream& stream) {
    char bytes[65536];
    const ssize_t count = ::recv(stream.from, bytes, sizeof(bytes), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count < 0) {
        end(connection, true);
        return;
    }
    stream.held.append(bytes, static_cast<std::size_t>(count));
    stream.ended = count == 0;
    if (!connection.named && &stream == &connection.up) arm(connection);
}

// Bytes that may go now: those in front of every fault's place. A text may have gone through in part.
std::size_t TcpRelay::allowed(Connection& connection, const Stream& stream, Way way) {
    std::size_t most = std::min(stream.held.size(), stream.piece);
    for (Armed& armed : connection.armed) {
        if (armed.fault.way != way) continue;
        if (armed.at < 0) {
            const std::string seen = stream.tail + stream.held;
            const std::size_t found = seen.find(armed.fault.behind);
            if (found == std::string::npos) continue;
            const std::size_t end = found + armed.fault.behind.size();
            armed.at = stream.passed - static_cast<std::int64_t>(stream.tail.size()) +
                       static_cast<std::int64_t>(end) + armed.fault.bytes;
        }
        const std::int64_t left = std::max<std::int64_t>(0, armed.at - stream.passed);
        most = std::min(most, static_cast<std::size_t>(left));
    }
    return most;
}

void TcpRelay::strike(Connection& connection, Stream& stream, const Fault& fault) {
    ++struck_;
    if (fault.kind != Fault::Kind::kSlow) {
        end(connection, fault.kind == Fault::Kind::kReset);
        return;
    }
    stream.piece = fault.piece;
    stream.pauseUs = fault.pauseUs;
}

void TcpRelay::passOn(Connection& connection, Stream& stream, Way way) {
    if (!connection.named || stream.goOnUs > monotonicUs()) return;
    const std::size_t most = allowed(connection, stream, way);
    if (most > 0) {
        const ssize_t sent = ::send(stream.to, stream.held.data(), most, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && errno != EAGAIN && errno != EINTR) {
            end(connection, true);
            return;
        }
        if (sent > 0) {
            const auto count = static_cast<std::size_t>(sent);
            stream.tail.append(stream.held, 0, count);
            stream.tail.erase(0, stream.tail.size() - std::min(stream.tail.size(), kTail));
            stream.held.erase(0, count);
            stream.passed += sent;
            if (stream.pauseUs) stream.goOnUs = monotonicUs() + stream.pauseUs;
        }
    }
    for (auto at = connection.armed.begin(); at != connection.armed.end() && !connection.gone;) {
        if (at->fault.way != way || at->at < 0 || at->at > stream.passed) {
            ++at;
            continue;
        }
        const Fault fault = at->fault;
        at = connection.armed.erase(at);
        strike(connection, stream, fault);
    }
    if (connection.gone || !stream.ended || !stream.held.empty() || stream.endTold) return;
    stream.endTold = true;
    ::shutdown(stream.to, SHUT_WR);
    if (connection.up.endTold && connection.down.endTold) end(connection, false);
}

}  // namespace vx::test
