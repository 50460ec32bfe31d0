#include "tools/collector/collector_ways.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace vx::collector {

namespace {

constexpr int kBacklog = 128;
constexpr std::int64_t kLingerMs = 2000;  // for what the connections still have to send at the end

std::string portError(int port) {
    return "port " + std::to_string(port) + ": " + std::strerror(errno);
}

}  // namespace

Ways::~Ways() {
    if (tcpFd_ >= 0) ::close(tcpFd_);
    for (Way& way : ways_)
        if (way.pipes) way.pipes->end(kLingerMs);
}

bool Ways::open(const Options& options, std::string& error) {
    if (options.listenPort >= 0 && !openTcp(options, error)) return false;
    if (options.wsPort >= 0 && !openWs(options, "WS", options.wsPort, error)) return false;
    return options.wssPort < 0 || openWs(options, "WSS", options.wssPort, error);
}

bool Ways::openTcp(const Options& options, std::string& error) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(options.listenPort));
    if (::inet_pton(AF_INET, options.listenHost.c_str(), &address.sin_addr) != 1) {
        error = "not an IPv4 address: '" + options.listenHost + "'";
        return false;
    }
    tcpFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(tcpFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    socklen_t size = sizeof(address);
    if (tcpFd_ < 0 || ::bind(tcpFd_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::listen(tcpFd_, kBacklog) != 0 ||
        ::getsockname(tcpFd_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        error = portError(options.listenPort);
        return false;
    }
    ways_.push_back({"TCP", ntohs(address.sin_port), nullptr});
    return true;
}

bool Ways::openWs(const Options& options, const char* name, int port, std::string& error) {
    auto pipes = std::make_unique<ws::WsPipes>();
    ws::ListenAt at{options.listenHost, port, "", ""};
    if (!std::strcmp(name, "WSS")) {
        at.certificate = options.certificateFile;
        at.key = options.keyFile;
    }
    if (!pipes->listen(at, error)) return false;
    const int bound = pipes->port();
    ways_.push_back({name, bound, std::move(pipes)});
    return true;
}

void Ways::poll(std::vector<pollfd>& polled) const {
    if (tcpFd_ >= 0) polled.push_back({tcpFd_, POLLIN, 0});
    for (const Way& way : ways_)
        if (way.pipes) polled.push_back({way.pipes->news(), POLLIN, 0});
}

bool Ways::take(ws::Accepted& out) {
    for (Way& way : ways_) {
        if (way.pipes) {
            if (way.pipes->take(out)) return true;
            continue;
        }
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        out.fd =
            ::accept4(tcpFd_, reinterpret_cast<sockaddr*>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (out.fd < 0) continue;
        char host[INET_ADDRSTRLEN] = "";
        ::inet_ntop(AF_INET, &address.sin_addr, host, sizeof(host));
        out.peer = std::string(host) + ":" + std::to_string(ntohs(address.sin_port));
        return true;
    }
    return false;
}

std::string Ways::text(const std::string& host) const {
    std::string out;
    for (const Way& way : ways_)
        out += (out.empty() ? "" : ", ") + host + ":" + std::to_string(way.port) + " (" + way.name + ")";
    return out;
}

std::string Ways::offer() const {
    std::string out;
    if (ways_.size() < 2) return out;
    for (auto way = ways_.rbegin(); way != ways_.rend(); ++way)  // the safest first
        out += (out.empty() ? "" : ",") + std::string(way->name) + ":" + std::to_string(way->port);
    return out;
}

std::string Ways::ports() const {
    std::string out;
    for (const Way& way : ways_) out += std::to_string(way.port) + "\n";
    return out;
}

}  // namespace vx::collector
