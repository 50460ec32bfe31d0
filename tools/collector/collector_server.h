// The collector at work: one poll loop over the ways in, all connections and standard input.
//
//     control connection   connect line -> reply, start line, heartbeats; stop and modify on command
//     data, auto-sensor    lines to a file and to the summary
//     discovery            lines to a file
//
// A slow or silent peer never holds up the others: reads are as they come, and what goes out waits in a
// bounded queue per connection.
//
// Limits    A line of at most kMaxLine bytes (a longer one closes its connection), kMaxConnections
//           connections.
// Threads   One.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "tools/collector/collector_files.h"
#include "tools/collector/collector_options.h"
#include "tools/collector/collector_orders.h"
#include "tools/collector/collector_out.h"
#include "tools/collector/collector_protocol.h"
#include "tools/collector/collector_runs.h"
#include "tools/collector/collector_ways.h"
#include "tools/collector/page_status.h"
#include "tools/collector/store.h"

namespace vx::collector {

inline constexpr std::size_t kMaxLine = 256 * 1024;
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
    InstanceState* instance = nullptr;  // once the kind is known
    std::string in;                     // bytes of a line that has not ended
    OutQueue out;
    bool closing = false;
    std::int64_t since = 0, heardAt = 0;  // milliseconds since the Unix epoch
    std::uint64_t received = 0;           // bytes
    // Control connections:
    Orders orders;
    bool started = false;           // a start was ordered and no stop since
    FileSet told;                   // the files that the instance knows of
    std::int64_t rulesVersion = 0;  // of the rules among them, once it has answered
    int heartbeats = 0;
    std::int64_t beatAt = 0,
                 beatTakenAt = 0;  // the last one sent; the last one that the other host has taken
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
    // Where it listens, as in "127.0.0.1:8080 (TCP)".
    std::string ways() const { return ways_.text(options_.listenHost); }
    // Runs until quit, the run time is over, or stopRequested. Prints tables as the options say.
    void run(const volatile int& stopRequested);
    const Summary& summary() const { return runs_.summary(); }
    // Null without --db.
    const Store* store() const { return store_.get(); }
    const FileStore& files() const { return files_; }
    // What the page shows of the connections: renewed each second once this was called.
    const StatusBoard& board() {
        shown_ = true;
        return board_;
    }

    // Orders of the commands.
    void startAll();
    void stopAll();
    // To every instance, or to the one of that number.
    void orderAll(const std::string& line, bool hasAnswer, int instance = 0);
    int testRun() const { return testIdx_; }
    void printTable(const char* title);
    void printStore();
    void printFiles();
    // Transactions with headers or exceptions: the latest, or the one of that number (false: it is not kept).
    void printTransactions();
    bool printTransaction(std::int64_t number);
    void quit() { quit_ = true; }

private:
    using Clock = std::chrono::steady_clock;
    using Connections = std::list<Connection>;

    void pollOnce(int timeoutMs);
    bool openStore(std::string& error);
    void acceptAll();
    void forgetGivenUp();
    void readFrom(Connection& connection);
    void takeBytes(Connection& connection, const char* data, std::size_t length);
    void takeLine(Connection& connection, std::string_view line);
    void takeFirstLine(Connection& connection, std::string_view line);
    void noteAnswer(Connection& connection, std::string_view line);
    void takeControlLine(Connection& connection, std::string_view line);
    void openStreamFile(Connection& connection);
    void keepLine(Connection& connection, std::string_view line);  // in the stream's file
    void sendFile(Connection& connection, const FileRequest& request);
    void send(Connection& connection, std::string text);
    void flush(Connection& connection);
    void closeDeaf(Connection& connection);
    void order(Connection& connection, const std::string& line, bool hasAnswer);
    void start(Connection& connection);
    void advance(Connection& connection, Clock::time_point now);
    void askForNames();
    void heartbeatAll();
    void readCommands();
    void dropClosed();
    void publishStatus();
    void addStatus(const Connection& connection);
    void forgetOldest();
    void rememberInstances();
    void announce(const char* what, const Connection& connection);

    Options options_;
    std::string keywords_;
    Ways ways_;  // outlives the connections
    bool stdinOpen_ = true;
    bool quit_ = false;
    bool wanted_ = false;  // instrumentation is to run on every instance
    int testIdx_ = 0;
    int streams_ = 0;
    Connections connections_;
    Identities identities_;
    FileStore files_;
    std::unique_ptr<Store> store_;
    bool shown_ = false;
    StatusBoard board_;
    std::map<std::string, InstanceStatus> known_;  // by name
    std::uint64_t refused_ = 0;
    const std::int64_t startedAt_;
    Runs runs_;
    std::string commandText_;
    Clock::time_point nextTable_, nextHeartbeat_, nextLook_, nextStatus_;
};

}  // namespace vx::collector
