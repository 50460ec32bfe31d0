#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <vector>

#include "commonlibc/vxlb_clock.h"
#include "tools/agent/cli_modes.h"
#include "tools/agent/cli_traffic.h"

namespace vx::agent {
namespace {

constexpr std::int64_t kStepUs = 1000;
constexpr int kLingerMs = 5000;
constexpr int kUnpacedBurst = 32;  // transactions between looks at the queue when no rate is set

struct LoadOptions {
    CommonOptions common;
    TrafficShape shape;
    double rate = 100, processes = 1, seconds = 10, seed = 1;
};

// What one process has sent; goes to the parent through a pipe, whole.
struct Report {
    std::int64_t pid = 0;
    std::uint64_t transactions = 0, records = 0, bytes = 0, dropped = 0, refused = 0, reconnects = 0;
    double seconds = 0;
    int started = 0;  // the proxy asked for records
};

struct Worker {
    pid_t pid;
    int pipe;
};

double secondsSince(std::int64_t beforeUs) {
    return static_cast<double>(vxlb_now_us() - beforeUs) / 1e6;
}

// Keeps the rate: each transaction has its due time, and what is late is made up for. Rate 0 goes as fast as
// the queue empties.
void generate(vxagent* agent, const LoadOptions& options, int worker, Report& report) {
    Traffic traffic(options.shape,
                    static_cast<unsigned>(options.seed) * 1000003U + static_cast<unsigned>(worker));
    const double rate = options.rate / options.processes;
    const std::int64_t before = vxlb_now_us();
    for (std::uint64_t due = 0; !stopRequested(); ++due) {
        const double elapsed = secondsSince(before);
        if (elapsed >= options.seconds) break;
        if (rate > 0 && static_cast<double>(due) > elapsed * rate) {
            vxlb_sleep_us(kStepUs);
            --due;
            continue;
        }
        if (rate <= 0 && due % kUnpacedBurst == 0) waitForRoom(agent);
        report.transactions += traffic.report(agent);
    }
    vxagent_flush(agent, kLingerMs);
    report.seconds = secondsSince(before);
}

Report work(const LoadOptions& options, int worker) {
    Report report;
    report.pid = getpid();
    vxagent* agent = openAgent(options.common);
    if (!agent) return report;
    report.started = waitUntilSending(agent, options.common.waitSeconds);
    if (report.started) generate(agent, options, worker, report);
    vxagent_statistics now;
    vxagent_get_statistics(agent, &now);
    report.records = now.sent_records;
    report.bytes = now.sent_bytes;
    report.dropped = now.dropped;
    report.refused = now.refused;
    report.reconnects = now.reconnects;
    vxagent_close(agent, kLingerMs);
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

// Waits for a worker's report; a signal to this process is handed on.
Report awaitReport(const Worker& worker, const std::vector<Worker>& all) {
    Report report;
    for (;;) {
        const ssize_t count = read(worker.pipe, &report, sizeof(report));
        if (count == static_cast<ssize_t>(sizeof(report))) break;
        if (count >= 0 || errno != EINTR) {
            report = Report{};
            break;
        }
        for (const Worker& each : all) kill(each.pid, SIGTERM);
    }
    close(worker.pipe);
    return report;
}

void print(const char* head, std::int64_t number, const Report& report) {
    std::printf(
        "%s=%lld pid=%lld transactions=%llu records=%llu bytes=%llu dropped=%llu refused=%llu "
        "reconnects=%llu seconds=%.3f\n",
        head, static_cast<long long>(number), static_cast<long long>(report.pid),
        static_cast<unsigned long long>(report.transactions), static_cast<unsigned long long>(report.records),
        static_cast<unsigned long long>(report.bytes), static_cast<unsigned long long>(report.dropped),
        static_cast<unsigned long long>(report.refused), static_cast<unsigned long long>(report.reconnects),
        report.seconds);
}

void add(Report& total, const Report& report) {
    total.transactions += report.transactions;
    total.records += report.records;
    total.bytes += report.bytes;
    total.dropped += report.dropped;
    total.refused += report.refused;
    total.reconnects += report.reconnects;
    total.seconds = std::max(total.seconds, report.seconds);
    total.started += report.started;
}

int runWorkers(const LoadOptions& options) {
    const int count = static_cast<int>(options.processes);
    std::vector<Worker> workers;
    for (int i = 0; i < count; ++i) {
        const Worker worker = startWorker(options, i);
        if (worker.pid > 0) workers.push_back(worker);
    }
    Report total;
    total.pid = getpid();
    for (std::size_t i = 0; i < workers.size(); ++i) {
        const Report report = awaitReport(workers[i], workers);
        while (waitpid(workers[i].pid, nullptr, 0) < 0 && errno == EINTR) continue;
        print("process", static_cast<std::int64_t>(i), report);
        add(total, report);
    }
    print("total", count, total);
    if (total.started == count) return kExitOk;
    std::fprintf(stderr, "vxagent load: the proxy asked %d of %d processes for records\n", total.started,
                 count);
    return kExitFailed;
}

}  // namespace

int runLoad(int argc, char** argv) {
    LoadOptions given;
    TrafficShape& shape = given.shape;
    std::vector<Option> options = {
        {"--rate", "PER_SECOND", "transactions of all processes together (100); 0: as fast as they go",
         OptionKind::kNumber, &given.rate, false, 0, 1e7},
        {"--processes", "N", "processes that report (1)", OptionKind::kCount, &given.processes, false, 1,
         1000},
        {"--duration", "SECONDS", "how long (10)", OptionKind::kNumber, &given.seconds, false, 0.01, 1e7},
        {"--methods", "N", "different methods (100)", OptionKind::kCount, &shape.methods, false, 1, 1e6},
        {"--calls", "N", "method calls of a transaction (20)", OptionKind::kCount, &shape.calls, false, 0,
         1e4},
        {"--depth", "N", "how deep they are nested (4)", OptionKind::kCount, &shape.depth, false, 1, 1000},
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
    if (!readOptions("load", options, argc, argv, code)) return code;
    if (!checkNames("load", given.common)) return kExitUsage;
    catchSignals();
    return runWorkers(given);
}

}  // namespace vx::agent
