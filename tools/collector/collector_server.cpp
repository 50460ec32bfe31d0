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

#include "commonlibc/vxlb_clock.h"
#include "tools/collector/collector_commands.h"
#include "tools/collector/collector_table.h"

namespace vx::collector {

namespace {

constexpr std::size_t kReadSize = 64 * 1024;
constexpr std::size_t kTableRows = 20;
constexpr int kReadsPerTurn = 16;  // one busy stream must not starve the others
constexpr std::size_t kShownLineMax = 400;
constexpr auto kLookEvery = std::chrono::milliseconds(250);
constexpr auto kStatusEvery = std::chrono::seconds(1);

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

}  // namespace

CollectorServer::CollectorServer(const Options& options)
    : options_(options), wanted_(options.autoStart), files_(options.filesDir), startedAt_(vxlb_now_ms()) {
    if (wanted_) testIdx_ = 1;
}

CollectorServer::~CollectorServer() {
    for (const Connection& connection : connections_) ::close(connection.fd);
}

bool CollectorServer::open(std::string& error) {
    if (!options_.keywordsFile.empty() && !readKeywords(options_.keywordsFile, keywords_, error))
        return false;
    if (!files_.open(error) || !openStore(error)) return false;
    if (!options_.outDir.empty() && ::mkdir(options_.outDir.c_str(), 0755) != 0 && errno != EEXIST) {
        error = systemError(options_.outDir.c_str());
        return false;
    }
    if (!ways_.open(options_, error)) return false;
    if (options_.offer.empty()) options_.offer = ways_.offer();
    if (options_.portFile.empty()) return true;
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(options_.portFile.c_str(), "w"));
    if (!file) error = systemError(options_.portFile.c_str());
    return file && std::fputs(ways_.ports().c_str(), file.get()) >= 0;
}

bool CollectorServer::openStore(std::string& error) {
    if (options_.databaseFile.empty() && options_.clickHouse.empty()) return true;
    store_ = std::make_unique<Store>();
    const bool opened =
        options_.clickHouse.empty()
            ? store_->openFile(options_.databaseFile, {options_.keepDays, options_.keepMb}, error)
            : store_->openClickHouse(options_.clickHouse, options_.collectorId, options_.keepDays, error);
    if (!opened) {
        store_.reset();
        return false;
    }
    runs_.storeIn(&store_->intake());
    rememberInstances();
    return true;
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
        if (now >= nextLook_) {
            files_.look();
            nextLook_ = now + kLookEvery;
        }
        if (shown_ && now >= nextStatus_) {
            publishStatus();
            nextStatus_ = now + kStatusEvery;
        }
        for (Connection& connection : connections_)
            if (connection.kind == StreamKind::kControl) advance(connection, now);
        if (terminal && now >= nextTable_) {
            printTable("so far");
            nextTable_ = now + secondsOf(std::max(0.2, options_.tableSeconds));
        }
    }
    if (store_) store_->finish();
    printTable("at the end");
}

void CollectorServer::pollOnce(int timeoutMs) {
    std::vector<pollfd> polled;
    std::vector<Connection*> owners;
    polled.push_back({stdinOpen_ ? STDIN_FILENO : -1, POLLIN, 0});
    for (Connection& connection : connections_) {
        const auto events = static_cast<short>(POLLIN | (connection.out.empty() ? 0 : POLLOUT));
        polled.push_back({connection.fd, events, 0});
        owners.push_back(&connection);
    }
    ways_.poll(polled);
    const int ready = ::poll(polled.data(), polled.size(), timeoutMs);
    const std::int64_t now = epochNow();
    runs_.turn(now);
    if (store_) store_->intake().flush(now);
    if (ready < 1) return;
    for (std::size_t i = 0; i < owners.size(); ++i) {
        const short events = polled[i + 1].revents;
        if (events & POLLOUT) flush(*owners[i]);
        if (events & (POLLIN | POLLHUP | POLLERR)) readFrom(*owners[i]);
        if (events && owners[i]->file) std::fflush(owners[i]->file.get());
    }
    if (polled[0].revents) readCommands();
    acceptAll();
    dropClosed();
    forgetGivenUp();
    askForNames();
    const std::string news = runs_.takeNews();
    std::fputs(news.c_str(), stdout);
    if (!news.empty()) std::fflush(stdout);
}

void CollectorServer::forgetGivenUp() {
    for (const std::string& name : runs_.takeGivenUp()) forgetIds(identities_, name);
}

void CollectorServer::acceptAll() {
    ws::Accepted arrived;
    while (ways_.take(arrived)) {
        if (connections_.size() >= kMaxConnections) {
            std::fprintf(stderr, "vxcollector: more than %zu connections, one refused\n", kMaxConnections);
            ::close(arrived.fd);
            ++refused_;
            continue;
        }
        Connection& connection = connections_.emplace_back();
        connection.fd = arrived.fd;
        connection.since = connection.heardAt = vxlb_now_ms();
        connection.peer = std::move(arrived.peer);
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
    connection.heardAt = vxlb_now_ms();
    connection.received += length;
    if (connection.kind == StreamKind::kData || connection.kind == StreamKind::kAutoSensor)
        runs_.summary().bytes += length;
    std::string_view rest(data, length);
    for (;;) {
        const std::size_t end = rest.find('\n');
        if (connection.in.size() + std::min(end, rest.size()) > kMaxLine) {
            std::fprintf(stderr, "vxcollector: a line of more than %zu bytes from %s, connection closed\n",
                         kMaxLine, connection.peer.c_str());
            connection.closing = true;
            return;
        }
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
        case StreamKind::kAutoSensor:
            runs_.line(connection.kind, line, *connection.instance);
            break;
        case StreamKind::kDiscovery:
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
    forgetGivenUp();  // it may be one of them: ids that it gets now are to stay
    connection.ids = idsOf(identities_, connection.identity);
    connection.instance = &runs_.of(connection.identity.text());
    runs_.opened(connection.kind, *connection.instance);
    if (store_) store_->intake().opened(connection.kind, connection.identity, epochNow());
    openStreamFile(connection);
    keepLine(connection, line);
    announce("connected", connection);
    if (connection.kind != StreamKind::kControl) return;
    send(connection, connectReply(line, options_, connection.ids.instance));
    if (wanted_) start(connection);
}

// The last of its orders answered with Ok: it has what it was told of.
void CollectorServer::noteAnswer(Connection& connection, std::string_view line) {
    const auto rules = connection.told.keywords.find(kRulesFile);
    if (line.starts_with("vx_control_rep:") && fieldOf(line, "result") == "Ok" && connection.orders.idle())
        connection.rulesVersion = rules == connection.told.keywords.end() ? 0 : rules->second.lmd;
}

// Everything but the pulse of an instance is shown: answers, errors, thread dumps.
void CollectorServer::takeControlLine(Connection& connection, std::string_view line) {
    connection.orders.heard(line, Clock::now());
    noteAnswer(connection, line);
    FileRequest request{};
    if (readFileRequest(line, request)) {
        sendFile(connection, request);
    } else if (!line.empty() && !line.starts_with("vx_control_req:action=reconnect;")) {
        std::printf("%s %s\n", connection.identity.text().c_str(),
                    std::string(line.substr(0, kShownLineMax)).c_str());
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

void CollectorServer::sendFile(Connection& connection, const FileRequest& request) {
    const auto answer = files_.answer(request.kind, request.name);
    const std::string_view head = std::string_view(*answer).substr(0, answer->find('\n'));
    std::printf("%s asks for a file: %s\n", connection.identity.text().c_str(), std::string(head).c_str());
    std::fflush(stdout);
    if (!connection.out.addFile(answer)) return closeDeaf(connection);
    flush(connection);
}

void CollectorServer::send(Connection& connection, std::string text) {
    if (!connection.out.addLine(std::move(text))) return closeDeaf(connection);
    flush(connection);
}

void CollectorServer::closeDeaf(Connection& connection) {
    std::fprintf(stderr, "vxcollector: %s does not read, connection closed\n", connection.peer.c_str());
    connection.closing = true;
}

void CollectorServer::flush(Connection& connection) {
    if (connection.closing) return;
    if (!connection.out.flush(connection.fd)) connection.closing = true;
    if (!connection.out.empty()) connection.orders.stillSending(Clock::now());
}

void CollectorServer::order(Connection& connection, const std::string& line, bool hasAnswer) {
    if (!connection.orders.add(line, hasAnswer)) return closeDeaf(connection);
    advance(connection, Clock::now());
}

// A start of what runs already is ignored at the other end, answer included.
void CollectorServer::start(Connection& connection) {
    if (!connection.started) connection.told = files_.present();
    const std::string line = startLine(keywords_, startFields(files_.present()), connection.ids, testIdx_);
    runs_.ordered(line);
    order(connection, line, !connection.started);
    connection.started = true;
}

// Sends the orders whose turn it is, and behind them what has changed among the files.
void CollectorServer::advance(Connection& connection, Clock::time_point now) {
    if (connection.started && connection.orders.idle() && connection.told != files_.present()) {
        const std::string line = modifyLine(changedFields(connection.told, files_.present()));
        runs_.ordered(line);
        connection.orders.add(line, true);
        connection.told = files_.present();
    }
    std::string next;
    while (!connection.closing && connection.orders.next(next, now)) send(connection, std::move(next));
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
            order(connection, stopLine(), true);
        }
}

void CollectorServer::orderAll(const std::string& line, bool hasAnswer, int instance) {
    runs_.ordered(line);
    for (Connection& connection : connections_)
        if (connection.kind == StreamKind::kControl && (!instance || connection.ids.instance == instance))
            order(connection, line, hasAnswer);
}

void CollectorServer::askForNames() {
    for (const std::string& name : runs_.takeNameless())
        for (Connection& connection : connections_)
            if (connection.kind == StreamKind::kControl && connection.instance->name == name)
                order(connection, metadataLine(), false);
}

void CollectorServer::heartbeatAll() {
    for (Connection& connection : connections_)
        if (connection.kind == StreamKind::kControl) {
            send(connection, heartbeatLine(++connection.heartbeats));
            connection.beatAt = epochNow();
        }
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
        runCommand(commandText_.substr(0, end), *this);
        commandText_.erase(0, end + 1);
    }
    if (commandText_.size() > kMaxLine) commandText_.clear();
}

void CollectorServer::dropClosed() {
    for (auto at = connections_.begin(); at != connections_.end();) {
        if (!at->closing) {
            ++at;
            continue;
        }
        if (at->kind != StreamKind::kUnknown) {
            runs_.closed(at->kind, *at->instance);
            if (store_) store_->intake().closed(at->kind, at->identity, epochNow());
            announce("disconnected", *at);
        }
        ::close(at->fd);
        at = connections_.erase(at);
    }
}

void CollectorServer::printTable(const char* title) {
    const auto controls = std::count_if(connections_.begin(), connections_.end(),
                                        [](const Connection& c) { return c.kind == StreamKind::kControl; });
    std::printf("\n=== %s: %ld instance(s) connected, test run %d\n", title, static_cast<long>(controls),
                testIdx_);
    printSummary(runs_.summary(), stdout, kTableRows);
    if (store_) printStore();
}

void CollectorServer::printStore() {
    const StoreStatus status = store_->status();
    std::printf("store: %llu transactions, dropped %llu, %lld bytes%s%s\n",
                static_cast<unsigned long long>(status.written),
                static_cast<unsigned long long>(status.dropped), static_cast<long long>(status.bytes),
                status.fault.empty() ? "" : ", takes no records: ", status.fault.c_str());
    std::fflush(stdout);
}

void CollectorServer::printTransactions() {
    printKept(runs_.summary().kept, stdout, kTableRows);
}

bool CollectorServer::printTransaction(std::int64_t number) {
    return collector::printTransaction(runs_.summary().kept, number, stdout);
}

void CollectorServer::printFiles() {
    const auto print = [](const char* kind, const FileMarks& marks) {
        for (const auto& [name, mark] : marks)
            std::printf("%s %s: %lld bytes, date %lld\n", kind, name.c_str(),
                        static_cast<long long>(mark.size), static_cast<long long>(mark.lmd));
    };
    print("file", files_.present().keywords);
    print("instrumentation profile", files_.present().profiles);
    for (const std::string& text : files_.passedOver()) std::printf("not handed out: %s\n", text.c_str());
    std::printf("%zu files, %zu instrumentation profiles\n", files_.present().keywords.size(),
                files_.present().profiles.size());
    std::fflush(stdout);
}

void CollectorServer::announce(const char* what, const Connection& connection) {
    const std::time_t now = std::time(nullptr);
    char time[16] = "";
    std::tm broken{};
    if (::localtime_r(&now, &broken)) std::strftime(time, sizeof(time), "%H:%M:%S", &broken);
    std::printf("%s %s connection of %s (instance %d) %s (%s)\n", time, kindText(connection.kind),
                connection.identity.text().c_str(), connection.ids.instance, what, connection.peer.c_str());
    std::fflush(stdout);
}

}  // namespace vx::collector
