#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "commonlibc/vxlb_clock.h"
#include "tools/agent/cli_callouts.h"
#include "tools/agent/cli_modes.h"
#include "tools/agent/cli_traffic.h"

namespace vx::agent {
namespace {

constexpr std::int64_t kStepUs = 1000;
constexpr int kLingerMs = 5000, kFlushMs = 30000;
constexpr int kSignalLookMs = 200;
constexpr int kUnpacedBurst = 32;  // transactions between looks at the queue when no rate is set
constexpr double kRateDefault = 100;
constexpr double kProcessesMax = 1000;     // at a time
constexpr double kShortTransactions = 10;  // of a short-lived process

struct LoadOptions {
    CommonOptions common;
    TrafficShape shape;
    double rate = -1, processes = 1, seconds = 10, seed = 1;
    double transactions = 0;  // of each process; 0: as many as the duration has room for
    double parallel = 1;      // short-lived processes at a time
    bool shortLived = false, entryPoints = false;
    std::string mix;
};

// What one process has sent; goes to the parent through a pipe, whole.
struct Report {
    std::int64_t pid = 0;
    TrafficCounts traffic;
    std::uint64_t records = 0, bytes = 0, dropped = 0, refused = 0, reconnects = 0;
    double seconds = 0;
    std::uint64_t started = 0;  // the proxy asked for records
};

struct Worker {
    pid_t pid;
    int pipe;
};

double secondsSince(std::int64_t beforeUs) {
    return static_cast<double>(vxlb_steady_us() - beforeUs) / 1e6;
}

// Keeps the rate: each transaction has its due time, and what is late is made up for. Rate 0 goes as fast as
// the queue empties.
void generate(vxagent* agent, const LoadOptions& options, int worker, Report& report) {
    Traffic traffic(options.shape,
                    static_cast<unsigned>(options.seed) * 1000003U + static_cast<unsigned>(worker));
    const double rate = options.rate / (options.shortLived ? options.parallel : options.processes);
    const double most = options.transactions > 0 ? options.transactions
                        : options.shortLived     ? kShortTransactions
                                                 : 1e18;
    const std::int64_t before = vxlb_steady_us();
    for (std::uint64_t due = 0; !stopRequested() && static_cast<double>(due) < most; ++due) {
        const double elapsed = secondsSince(before);
        if (elapsed >= options.seconds) break;
        if (rate > 0 && static_cast<double>(due) > elapsed * rate) {
            vxlb_sleep_us(kStepUs);
            --due;
            continue;
        }
        if (rate <= 0 && due % kUnpacedBurst == 0) waitForRoom(agent);
        traffic.report(agent);
    }
    report.traffic = traffic.counts();
    report.seconds = secondsSince(before);
}

// What could not be sent in time counts as dropped, so that the sum of sent and dropped is what was reported.
Report work(const LoadOptions& options, int worker) {
    Report report;
    report.pid = getpid();
    CommonOptions common = options.common;
    const auto atATime = static_cast<int>(options.shortLived ? options.parallel : options.processes);
    common.function = common.agent + "-" + std::to_string(worker % atATime);
    vxagent* agent = openAgent(common);
    if (!agent) return report;
    report.started = waitUntilSending(agent, options.common.waitSeconds);
    if (report.started) generate(agent, options, worker, report);
    const bool flushed = vxagent_flush(agent, kFlushMs) == 1;
    vxagent_statistics now;
    vxagent_get_statistics(agent, &now);
    report.records = now.sent_records;
    report.bytes = now.sent_bytes;
    report.dropped = now.dropped + now.queued_records;
    report.refused = now.refused;
    report.reconnects = now.reconnects;
    vxagent_close(agent, flushed ? kLingerMs : 0);
    return report;
}

// Forks one worker; a worker does not come back. A pid below 0 when it could not be made.
Worker startWorker(const LoadOptions& options, int worker) {
    int ends[2];
    if (pipe(ends) != 0) return {-1, -1};
    const pid_t pid = fork();
    if (pid == 0) {
        close(ends[0]);
        const Report report = work(options, worker);
        const bool told = write(ends[1], &report, sizeof(report)) == static_cast<ssize_t>(sizeof(report));
        _exit(told && report.started ? kExitOk : kExitFailed);
    }
    close(ends[1]);
    if (pid < 0) close(ends[0]);
    return {pid, ends[0]};
}

// Waits for a worker's report and its end; a signal to this process is handed on.
Report awaitReport(const Worker& worker, const std::deque<Worker>& all) {
    Report report;
    bool told = false;
    for (pollfd fd{worker.pipe, POLLIN, 0}; poll(&fd, 1, kSignalLookMs) < 1;) {
        if (!stopRequested() || told) continue;
        for (const Worker& each : all) kill(each.pid, SIGTERM);
        told = true;
    }
    if (read(worker.pipe, &report, sizeof(report)) != static_cast<ssize_t>(sizeof(report))) report = Report{};
    close(worker.pipe);
    while (waitpid(worker.pid, nullptr, 0) < 0 && errno == EINTR) continue;
    return report;
}

void print(const char* head, std::int64_t number, const Report& report) {
    const auto field = [](const char* name, std::uint64_t value) {
        std::printf(" %s=%llu", name, static_cast<unsigned long long>(value));
    };
    std::printf("%s=%lld pid=%lld", head, static_cast<long long>(number), static_cast<long long>(report.pid));
    field("transactions", report.traffic.transactions);
    field("records", report.records);
    field("bytes", report.bytes);
    field("dropped", report.dropped);
    field("refused", report.refused);
    field("reconnects", report.reconnects);
    field("callouts", report.traffic.callouts);
    field("exceptions", report.traffic.exceptions);
    field("chained", report.traffic.chained);
    field("headers", report.traffic.headers);
    field("started", report.started);
    std::printf(" seconds=%.3f\n", report.seconds);
}

void add(Report& total, const Report& report) {
    total.traffic.transactions += report.traffic.transactions;
    total.traffic.callouts += report.traffic.callouts;
    total.traffic.exceptions += report.traffic.exceptions;
    total.traffic.chained += report.traffic.chained;
    total.traffic.headers += report.traffic.headers;
    total.records += report.records;
    total.bytes += report.bytes;
    total.dropped += report.dropped;
    total.refused += report.refused;
    total.reconnects += report.reconnects;
    total.seconds = std::max(total.seconds, report.seconds);
    total.started += report.started;
}

// All processes at a time, or short-lived ones in turn, `parallel` of them at a time.
int runWorkers(const LoadOptions& options) {
    const auto count = static_cast<std::size_t>(options.processes);
    const std::size_t most = options.shortLived ? static_cast<std::size_t>(options.parallel) : count;
    std::deque<Worker> running;
    Report total;
    total.pid = getpid();
    std::size_t made = 0, ended = 0;
    const auto takeOldest = [&] {
        const Report report = awaitReport(running.front(), running);
        running.pop_front();
        if (!options.shortLived) print("process", static_cast<std::int64_t>(ended), report);
        ++ended;
        add(total, report);
    };
    for (; made < count && !stopRequested(); ++made) {
        if (running.size() == most) takeOldest();
        const Worker worker = startWorker(options, static_cast<int>(made));
        if (worker.pid > 0) running.push_back(worker);
    }
    while (!running.empty()) takeOldest();
    print("total", static_cast<std::int64_t>(made), total);
    if (total.started == made) return kExitOk;
    std::fprintf(stderr, "vxagent load: the proxy asked %llu of %zu processes for records\n",
                 static_cast<unsigned long long>(total.started), made);
    return kExitFailed;
}

bool checkShape(LoadOptions& options) {
    if (!options.mix.empty() && !readMix(options.mix, options.shape.mix)) {
        std::fprintf(
            stderr, "vxagent load: --mix takes kinds and weights as in db=4,http=3,mq=2,custom=1, not '%s'\n",
            options.mix.c_str());
        return false;
    }
    if (options.shortLived || options.processes <= kProcessesMax) return true;
    std::fprintf(stderr, "vxagent load: more than %g processes need --short-lived\n", kProcessesMax);
    return false;
}

}  // namespace

int runLoad(int argc, char** argv) {
    LoadOptions given;
    TrafficShape& shape = given.shape;
    std::vector<Option> options = {
        {"--rate", "PER_SECOND",
         "transactions of all processes together (100, short-lived 0); 0: as fast as they go",
         OptionKind::kNumber, &given.rate, false, 0, 1e7},
        {"--processes", "N", "processes that report (1)", OptionKind::kCount, &given.processes, false, 1,
         1e6},
        {"--short-lived", nullptr, "the processes run one after the other and report 10 transactions each",
         OptionKind::kFlag, &given.shortLived},
        {"--parallel", "N", "short-lived processes at a time (1)", OptionKind::kCount, &given.parallel, false,
         1, kProcessesMax},
        {"--transactions", "N", "transactions of each process at most (no limit)", OptionKind::kCount,
         &given.transactions, false, 0, 1e12},
        {"--duration", "SECONDS", "how long (10)", OptionKind::kNumber, &given.seconds, false, 0.01, 1e7},
        {"--methods", "N", "different methods (100)", OptionKind::kCount, &shape.methods, false, 1, 1e6},
        {"--calls", "N", "method calls of a transaction (20)", OptionKind::kCount, &shape.calls, false, 0,
         1e4},
        {"--depth", "N", "how deep they are nested (4)", OptionKind::kCount, &shape.depth, false, 1, 1000},
        {"--callouts", "N", "callouts of a transaction (0)", OptionKind::kCount, &shape.callouts, false, 0,
         1e4},
        {"--mix", "LIST", "their kinds and weights (db=4,http=3,mq=2,custom=1)", OptionKind::kText,
         &given.mix},
        {"--backends", "N", "different back-ends of a kind (3)", OptionKind::kCount, &shape.backends, false,
         1, 1e6},
        {"--callout-errors", "PERCENT", "callouts of status 500 (5)", OptionKind::kNumber,
         &shape.calloutErrorPct, false, 0, 100},
        {"--exceptions", "PERCENT", "methods and callouts that an exception ends (0)", OptionKind::kNumber,
         &shape.exceptionPct, false, 0, 100},
        {"--exception-classes", "N", "different exceptions (5)", OptionKind::kCount, &shape.exceptionClasses,
         false, 1, 1e6},
        {"--headers", "PERCENT", "transactions with request and response headers (0)", OptionKind::kNumber,
         &shape.headerPct, false, 0, 100},
        {"--chains", "PERCENT", "transactions that another tier has called (0)", OptionKind::kNumber,
         &shape.chainPct, false, 0, 100},
        {"--callers", "N", "different callers of those (3)", OptionKind::kCount, &shape.callers, false, 1,
         1e6},
        {"--entry-points", nullptr, "prints the entry point file that makes the callouts seen, and ends",
         OptionKind::kFlag, &given.entryPoints},
        {"--urls", "N", "different URLs (20)", OptionKind::kCount, &shape.urls, false, 1, 1e6},
        {"--errors", "PERCENT", "transactions of status 500 (1)", OptionKind::kNumber, &shape.errorPct, false,
         0, 100},
        {"--slow", "PERCENT", "transactions of 3 to 8 seconds (1)", OptionKind::kNumber, &shape.slowPct,
         false, 0, 100},
        {"--mean", "MS", "mean duration of the others (40)", OptionKind::kNumber, &shape.meanMs, false, 0.01,
         1e6},
        {"--seed", "N", "the same seed gives the same traffic (1)", OptionKind::kCount, &given.seed, false, 0,
         1e9},
    };
    for (const Option& option : commonOptions(given.common)) options.push_back(option);
    int code = kExitOk;
    const auto wantsEntryPoints = [](const char* text) { return std::strcmp(text, "--entry-points") == 0; };
    if (std::any_of(argv, argv + argc, wantsEntryPoints)) {  // needs no proxy
        std::fputs(entryPointText().c_str(), stdout);
        return kExitOk;
    }
    if (!readOptions("load", options, argc, argv, code)) return code;
    if (given.rate < 0) given.rate = given.shortLived ? 0 : kRateDefault;
    if (!checkShape(given)) return kExitUsage;
    if (!checkCommon("load", given.common)) return kExitUsage;
    catchSignals();
    return runWorkers(given);
}

}  // namespace vx::agent
