// The collector at work: one poll loop over the listening socket, all connections and standard input.
//
//     control connection   connect line -> reply, start line, heartbeats; stop and modify on command
//     data, auto-sensor    lines to a file and, for data, to the summary
//
// A slow or silent peer never holds up the others: reads are as they come, replies wait in a bounded
// outgoing text per connection.
//
// Limits    A line of at most kMaxLine bytes (a longer one closes its connection), kMaxOut bytes waiting
//           to go out, kMaxConnections connections.
// Threads   One.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "tools/collector/collector_options.h"
#include "tools/collector/collector_protocol.h"
#include "tools/collector/collector_records.h"
#include "tools/collector/collector_summary.h"

namespace vx::collector {

inline constexpr std::size_t kMaxLine = 256 * 1024;
inline constexpr std::size_t kMaxOut = 1024 * 1024;
inline constexpr std::size_t kMaxConnections = 4096;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

struct Connection {
    int fd = -1;
    StreamKind kind = StreamKind::kUnknown;
    std::string peer;
    Identity identity;
    GivenIds ids{};
    std::string in;   // bytes of a line that has not ended
    std::string out;  // bytes waiting to go out
    bool closing = false;
    bool started = false;  // control: a start line has gone out and no stop since
    int heartbeats = 0;
    std::unique_ptr<std::FILE, FileCloser> file;
};

class CollectorServer {
public:
    explicit CollectorServer(const Options& options);
    ~CollectorServer();
    CollectorServer(const CollectorServer&) = delete;
    CollectorServer& operator=(const CollectorServer&) = delete;

    // Binds and listens; false with the reason in `error`.
    bool open(std::string& error);
    int port() const { return port_; }
    // Runs until quit, the run time is over, or stopRequested. Prints tables as the options say.
    void run(const volatile int& stopRequested);
    // One command line as on standard input; false for an unknown one (the reason is printed).
    bool command(const std::string& line);
    const Summary& summary() const { return summary_; }

private:
    using Clock = std::chrono::steady_clock;
    using Connections = std::list<Connection>;

    void pollOnce(int timeoutMs);
    void acceptAll();
    void readFrom(Connection& connection);
    void takeBytes(Connection& connection, const char* data, std::size_t length);
    void takeLine(Connection& connection, std::string_view line);
    void takeFirstLine(Connection& connection, std::string_view line);
    void takeControlLine(Connection& connection, std::string_view line);
    void openStreamFile(Connection& connection);
    void keepLine(Connection& connection, std::string_view line);  // in the stream's file
    void send(Connection& connection, const std::string& text);
    void flush(Connection& connection);
    void start(Connection& connection);
    void startAll();
    void stopAll();
    void modifyAll(const std::string& keywords);
    void heartbeatAll();
    void readCommands();
    void dropClosed();
    void printTable(const char* title);
    void announce(const char* what, const Connection& connection);

    Options options_;
    std::string keywords_;
    int listenFd_ = -1;
    int port_ = 0;
    bool stdinOpen_ = true;
    bool quit_ = false;
    bool wanted_ = false;  // instrumentation is to run on every instance
    int testIdx_ = 0;
    int streams_ = 0;
    Connections connections_;
    Identities identities_;
    std::map<std::string, InstanceNames> names_;  // by identity text
    Summary summary_;
    std::string commandText_;
    Clock::time_point nextTable_, nextHeartbeat_;
};

}  // namespace vx::collector
