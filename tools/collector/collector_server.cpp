#include "tools/collector/collector_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

namespace vx::collector {

namespace {

constexpr std::size_t kReadSize = 64 * 1024;
constexpr std::size_t kTableRows = 20;
constexpr int kReadsPerTurn = 16;  // one busy stream must not starve the others

std::chrono::steady_clock::duration secondsOf(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

std::string systemError(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

// A file name out of an identity: everything but letters, digits, "." and "-" becomes "_".
std::string fileName(const std::string& text) {
    std::string out;
    for (const char byte : text) {
        const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                           (byte >= '0' && byte <= '9') || byte == '-' || byte == '.';
        out += plain ? byte : '_';
    }
    return out.substr(0, 150);
}

const char* kindText(StreamKind kind) {
    switch (kind) {
        case StreamKind::kControl:
            return "control";
        case StreamKind::kData:
            return "data";
        case StreamKind::kAutoSensor:
            return "auto-sensor";
        default:
            return "unknown";
    }
}

}  // namespace

CollectorServer::CollectorServer(const Options& options) : options_(options), wanted_(options.autoStart) {
    if (wanted_) testIdx_ = 1;
}

CollectorServer::~CollectorServer() {
    for (const Connection& connection : connections_) ::close(connection.fd);
    if (listenFd_ >= 0) ::close(listenFd_);
}

bool CollectorServer::open(std::string& error) {
    if (!options_.keywordsFile.empty() && !readKeywords(options_.keywordsFile, keywords_, error))
        return false;
    if (!options_.outDir.empty() && ::mkdir(options_.outDir.c_str(), 0755) != 0 && errno != EEXIST) {
        error = systemError(options_.outDir.c_str());
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(options_.listenPort));
    if (::inet_pton(AF_INET, options_.listenHost.c_str(), &address.sin_addr) != 1) {
        error = "not an IPv4 address: '" + options_.listenHost + "'";
        return false;
    }
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    socklen_t size = sizeof(address);
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::listen(listenFd_, 128) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        error = systemError(("port " + std::to_string(options_.listenPort)).c_str());
        return false;
    }
    port_ = ntohs(address.sin_port);
    if (options_.portFile.empty()) return true;
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(options_.portFile.c_str(), "w"));
    if (!file) error = systemError(options_.portFile.c_str());
    return file && std::fprintf(file.get(), "%d\n", port_) > 0;
}

void CollectorServer::run(const volatile int& stopRequested) {
    const auto end =
        options_.runSeconds > 0 ? Clock::now() + secondsOf(options_.runSeconds) : Clock::time_point::max();
    const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    nextTable_ = Clock::now() + secondsOf(options_.tableSeconds);
    nextHeartbeat_ = Clock::now() + secondsOf(options_.heartbeatSeconds);
    while (!quit_ && !stopRequested && Clock::now() < end) {
        pollOnce(200);
        const auto now = Clock::now();
        if (now >= nextHeartbeat_) {
            heartbeatAll();
            nextHeartbeat_ = now + secondsOf(std::max(0.1, options_.heartbeatSeconds));
        }
        if (terminal && now >= nextTable_) {
            printTable("so far");
            nextTable_ = now + secondsOf(std::max(0.2, options_.tableSeconds));
        }
    }
    printTable("at the end");
}

void CollectorServer::pollOnce(int timeoutMs) {
    std::vector<pollfd> polled;
    std::vector<Connection*> owners;
    polled.push_back({listenFd_, POLLIN, 0});
    polled.push_back({stdinOpen_ ? STDIN_FILENO : -1, POLLIN, 0});
    for (Connection& connection : connections_) {
        const auto events = static_cast<short>(POLLIN | (connection.out.empty() ? 0 : POLLOUT));
        polled.push_back({connection.fd, events, 0});
        owners.push_back(&connection);
    }
    if (::poll(polled.data(), polled.size(), timeoutMs) < 1) return;
    for (std::size_t i = 0; i < owners.size(); ++i) {
        const short events = polled[i + 2].revents;
        if (events & POLLOUT) flush(*owners[i]);
        if (events & (POLLIN | POLLHUP | POLLERR)) readFrom(*owners[i]);
        if (events && owners[i]->file) std::fflush(owners[i]->file.get());
    }
    if (polled[1].revents) readCommands();
    if (polled[0].revents) acceptAll();
    dropClosed();
}

void CollectorServer::acceptAll() {
    for (;;) {
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        const int fd =
            ::accept4(listenFd_, reinterpret_cast<sockaddr*>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        if (connections_.size() >= kMaxConnections) {
            std::fprintf(stderr, "vxcollector: more than %zu connections, one refused\n", kMaxConnections);
            ::close(fd);
            continue;
        }
        char host[INET_ADDRSTRLEN] = "";
        ::inet_ntop(AF_INET, &address.sin_addr, host, sizeof(host));
        Connection& connection = connections_.emplace_back();
        connection.fd = fd;
        connection.peer = std::string(host) + ":" + std::to_string(ntohs(address.sin_port));
    }
}

void CollectorServer::readFrom(Connection& connection) {
    char bytes[kReadSize];
    for (int turn = 0; turn < kReadsPerTurn && !connection.closing; ++turn) {
        const ssize_t got = ::recv(connection.fd, bytes, sizeof(bytes), 0);
        if (got > 0) {
            takeBytes(connection, bytes, static_cast<std::size_t>(got));
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
        connection.closing = true;
    }
}

void CollectorServer::takeBytes(Connection& connection, const char* data, std::size_t length) {
    if (connection.kind == StreamKind::kData || connection.kind == StreamKind::kAutoSensor)
        summary_.bytes += length;
    std::string_view rest(data, length);
    for (;;) {
        const std::size_t end = rest.find('\n');
        if (end == std::string_view::npos) break;
        if (connection.in.empty()) {
            takeLine(connection, rest.substr(0, end));
        } else {
            connection.in.append(rest.substr(0, end));
            takeLine(connection, connection.in);
            connection.in.clear();
        }
        rest.remove_prefix(end + 1);
    }
    if (connection.in.size() + rest.size() > kMaxLine) {
        std::fprintf(stderr, "vxcollector: a line of more than %zu bytes from %s, connection closed\n",
                     kMaxLine, connection.peer.c_str());
        connection.closing = true;
        return;
    }
    connection.in.append(rest);
}

void CollectorServer::takeLine(Connection& connection, std::string_view line) {
    if (connection.closing) return;
    keepLine(connection, line);
    switch (connection.kind) {
        case StreamKind::kUnknown:
            if (!line.empty()) takeFirstLine(connection, line);
            break;
        case StreamKind::kControl:
            takeControlLine(connection, line);
            break;
        case StreamKind::kData:
            takeRecord(line, names_[connection.identity.text()], summary_);
            break;
        case StreamKind::kAutoSensor:
            break;
    }
}

void CollectorServer::takeFirstLine(Connection& connection, std::string_view line) {
    connection.kind = kindOf(line);
    if (connection.kind == StreamKind::kUnknown) {
        std::fprintf(stderr, "vxcollector: no connect line from %s, connection closed\n",
                     connection.peer.c_str());
        connection.closing = true;
        return;
    }
    connection.identity = identityOf(line);
    connection.ids = idsOf(identities_, connection.identity);
    openStreamFile(connection);
    keepLine(connection, line);
    announce("connected", connection);
    if (connection.kind != StreamKind::kControl) return;
    send(connection, connectReply(line, options_, connection.ids.instance));
    if (wanted_) start(connection);
}

void CollectorServer::takeControlLine(Connection& connection, std::string_view line) {
    if (line.starts_with("vx_control_rep:")) {
        std::printf("%s %s\n", connection.identity.text().c_str(), std::string(line).c_str());
        std::fflush(stdout);
    }
}

void CollectorServer::openStreamFile(Connection& connection) {
    if (options_.outDir.empty()) return;
    const std::string path = options_.outDir + "/" + kindText(connection.kind) + "_" +
                             fileName(connection.identity.text()) + "_" + std::to_string(++streams_) + ".txt";
    connection.file.reset(std::fopen(path.c_str(), "w"));
    if (!connection.file) std::fprintf(stderr, "vxcollector: %s\n", systemError(path.c_str()).c_str());
}

void CollectorServer::keepLine(Connection& connection, std::string_view line) {
    if (!connection.file) return;
    std::fwrite(line.data(), 1, line.size(), connection.file.get());
    std::fputc('\n', connection.file.get());
}

void CollectorServer::send(Connection& connection, const std::string& text) {
    if (connection.out.size() + text.size() > kMaxOut) {
        std::fprintf(stderr, "vxcollector: %s does not read, connection closed\n", connection.peer.c_str());
        connection.closing = true;
        return;
    }
    connection.out += text;
    flush(connection);
}

void CollectorServer::flush(Connection& connection) {
    while (!connection.out.empty() && !connection.closing) {
        const ssize_t sent =
            ::send(connection.fd, connection.out.data(), connection.out.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            connection.out.erase(0, static_cast<std::size_t>(sent));
            continue;
        }
        if (errno == EAGAIN || errno == EINTR) return;
        connection.closing = true;
    }
}

void CollectorServer::start(Connection& connection) {
    connection.started = true;
    send(connection, startLine(keywords_, connection.ids, testIdx_));
}

void CollectorServer::startAll() {
    if (!wanted_) ++testIdx_;
    wanted_ = true;
    for (Connection& connection : connections_)
        if (connection.kind == StreamKind::kControl) start(connection);
}

void CollectorServer::stopAll() {
    wanted_ = false;
    for (Connection& connection : connections_)
        if (connection.kind == StreamKind::kControl && connection.started) {
            connection.started = false;
            send(connection, stopLine());
        }
}

void CollectorServer::modifyAll(const std::string& keywords) {
    for (Connection& connection : connections_)
        if (connection.kind == StreamKind::kControl) send(connection, modifyLine(keywords));
}

void CollectorServer::heartbeatAll() {
    for (Connection& connection : connections_)
        if (connection.kind == StreamKind::kControl) send(connection, heartbeatLine(++connection.heartbeats));
}

void CollectorServer::readCommands() {
    char bytes[1024];
    const ssize_t got = ::read(STDIN_FILENO, bytes, sizeof(bytes));
    if (got <= 0) {
        stdinOpen_ = false;
        return;
    }
    commandText_.append(bytes, static_cast<std::size_t>(got));
    for (std::size_t end = 0; (end = commandText_.find('\n')) != std::string::npos;) {
        command(commandText_.substr(0, end));
        commandText_.erase(0, end + 1);
    }
    if (commandText_.size() > kMaxLine) commandText_.clear();
}

bool CollectorServer::command(const std::string& line) {
    if (line == "start") {
        startAll();
    } else if (line == "stop") {
        stopAll();
    } else if (line == "table") {
        printTable("so far");
    } else if (line == "quit") {
        quit_ = true;
    } else if (line.starts_with("modify ")) {
        modifyAll(line.substr(7));
    } else if (!line.empty()) {
        std::fprintf(stderr,
                     "vxcollector: unknown command '%s' (start, stop, table, modify KEY=VALUE, quit)\n",
                     line.c_str());
        return false;
    }
    return true;
}

void CollectorServer::dropClosed() {
    for (auto at = connections_.begin(); at != connections_.end();) {
        if (!at->closing) {
            ++at;
            continue;
        }
        if (at->kind != StreamKind::kUnknown) announce("disconnected", *at);
        ::close(at->fd);
        at = connections_.erase(at);
    }
}

void CollectorServer::printTable(const char* title) {
    const auto controls = std::count_if(connections_.begin(), connections_.end(),
                                        [](const Connection& c) { return c.kind == StreamKind::kControl; });
    std::printf("\n=== %s: %ld instance(s) connected, test run %d\n", title, static_cast<long>(controls),
                testIdx_);
    printSummary(summary_, stdout, kTableRows);
}

void CollectorServer::announce(const char* what, const Connection& connection) {
    const std::time_t now = std::time(nullptr);
    char time[16] = "";
    std::tm broken{};
    if (::localtime_r(&now, &broken)) std::strftime(time, sizeof(time), "%H:%M:%S", &broken);
    std::printf("%s %s connection of %s %s (%s)\n", time, kindText(connection.kind),
                connection.identity.text().c_str(), what, connection.peer.c_str());
    std::fflush(stdout);
}

}  // namespace vx::collector
