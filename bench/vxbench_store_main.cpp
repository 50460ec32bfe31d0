// vxbench_store: what the collector's store costs.
//
// First the intake alone: nanoseconds a record with and without the store behind it, in the same run. Then
// records offered at a rate for a while, as from a socket: what was stored, what was dropped, how far the
// queue filled, how much memory was taken and what a transaction takes in the store: a file, or with
// --clickhouse URL the tables of a server (make a database of its own for it). The exit code says whether a
// bound was missed: the memory, or transactions that are neither stored nor counted as dropped.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tools/collector/collector_runs.h"
#include "tools/collector/store.h"
#include "tools/collector/store_query.h"

namespace vx::bench {
namespace {

using namespace vx::collector;
using Clock = std::chrono::steady_clock;

constexpr int kMethods = 200, kBts = 20, kItems = 20, kBackends = 5;
constexpr int kCollector = 8191;
constexpr double kMostMb = 400;  // queue, transactions in flight, caches

double cpuSeconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double residentMb() {
    std::ifstream file("/proc/self/statm");
    double pages = 0;
    file >> pages >> pages;
    return pages * 4096 / 1024 / 1024;
}

// Records of transactions that never repeat their numbers.
class Stream {
public:
    std::vector<std::string> names() const {
        std::vector<std::string> out = {"6,1,Host",  "6,2,Content-Type", "32,1,shop.Timeout", "33,1,Cart",
                                        "34,1,show", "35,1,too late",    "36,1,no answer"};
        for (int id = 1; id <= kBts; ++id)
            out.push_back("7," + std::to_string(id + 1) + ",/shop/section-" + std::to_string(id));
        for (int id = 1; id <= kMethods; ++id)
            out.push_back("5,com.example.shop.Service" + std::to_string(id) + ".call(int)," +
                          std::to_string(id));
        for (int id = 1; id <= kBackends; ++id)
            out.push_back("5,HTTP_backend-" + std::to_string(id) + "," + std::to_string(kMethods + id));
        return out;
    }
    // The records of the next transaction.
    const std::vector<std::string>& next(std::int64_t now) {
        const std::string id = std::to_string(++number_);
        const std::string bt = std::to_string(2 + number_ % kBts);
        const auto duration = (number_ * 7919) % 400;
        const std::int64_t start = now - duration - 1'388'534'400'000;
        lines_.clear();
        lines_.push_back("2," + id + "," + std::to_string(start / 1000) + ",77,77.1," + bt +
                         ",/shop/section/item?id=" + id + ",,0,0,0,,0,-1,,,," + std::to_string(start));
        lines_.push_back("12," + id + ",1:<shop&#46;example>");
        lines_.push_back("13," + id + ",200,2:<text/html>");
        if (number_ % 10 == 0) {
            lines_.push_back("38," + id + "," + std::to_string(start / 1000) +
                             ",5,3,-1,-1,1,1,1,3,1,1,at%20Shop.buy%7Cat%20Shop.main");
        } else {
            lines_.push_back("3," + id + "," + items());
        }
        lines_.push_back("4," + id + ",200," + std::to_string(duration > 380 ? 13 : 10) + ",5," +
                         std::to_string(duration) + "," + bt + ",0,,0," + items());
        return lines_;
    }

private:
    std::string items() {
        std::string out;
        for (int at = 0; at < kItems / 2; ++at) {
            const std::string method = std::to_string(1 + (number_ + at) % kMethods) + ":77_";
            out.append(method).append("0_").append(std::to_string(at)).append("__");
            out.append(method).append("1_1_0___");
        }
        return out.append("T1:")
            .append(std::to_string(kMethods + 1 + number_ % kBackends))
            .append(":3.250:1:-:2::::200_");
    }
    std::int64_t number_ = 0;
    std::vector<std::string> lines_;
};

struct Feed {
    Runs runs;
    InstanceState* instance = nullptr;
    Stream stream;
    explicit Feed(StoreIntake* intake) {
        runs.storeIn(intake);
        runs.turn(epochNow());
        instance = &runs.of("Web/host1/shop");
        for (const std::string& line : stream.names()) runs.line(StreamKind::kData, line, *instance);
    }
    // How many records.
    std::uint64_t transaction(std::int64_t now) {
        const auto& lines = stream.next(now);
        for (const std::string& line : lines) runs.line(StreamKind::kData, line, *instance);
        return lines.size();
    }
};

// Nanoseconds of this thread a record.
double intakeNs(StoreIntake* intake, int transactions) {
    Feed feed(intake);
    std::vector<std::string> lines;
    const std::int64_t now = epochNow();
    for (int i = 0; i < transactions; ++i)
        for (const std::string& line : feed.stream.next(now)) lines.push_back(line);
    const double begin = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    for (const std::string& line : lines) feed.runs.line(StreamKind::kData, line, *feed.instance);
    return (cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - begin) * 1e9 / static_cast<double>(lines.size());
}

int offer(const std::string& file, const std::string& url, double rate, double seconds, double keepMb) {
    Store store;
    std::string error;
    if (url.empty() ? !store.openFile(file, {0, keepMb}, error)
                    : !store.openClickHouse(url, kCollector, 0, error)) {
        std::fprintf(stderr, "vxbench_store: %s\n", error.c_str());
        return 2;
    }
    Feed feed(&store.intake());
    const double before = residentMb(), cpu = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
    const double own = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    const auto begin = Clock::now();
    std::uint64_t records = 0, transactions = 0, mostQueued = 0;
    double most = before;
    for (double passed = 0; passed < seconds;) {
        const std::int64_t now = epochNow();
        feed.runs.turn(now);
        while (static_cast<double>(records) < rate * passed) {
            records += feed.transaction(now);
            ++transactions;
        }
        store.intake().flush(now);
        mostQueued = std::max(mostQueued, store.status().queuedBytes);
        most = std::max(most, residentMb());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // as between reads of a socket
        passed = std::chrono::duration<double>(Clock::now() - begin).count();
    }
    const double took = std::chrono::duration<double>(Clock::now() - begin).count();
    const double intakeCpu = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - own;
    store.finish();
    const double drained = std::chrono::duration<double>(Clock::now() - begin).count() - took;
    const double writerCpu = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - cpu - intakeCpu;
    const StoreStatus status = store.status();
    const double all = static_cast<double>(records);
    std::printf("offered %.0f records/s for %.1f s: %llu transactions, stored %llu, dropped %llu (%.2f %%)\n",
                all / took, took, static_cast<unsigned long long>(transactions),
                static_cast<unsigned long long>(status.written),
                static_cast<unsigned long long>(status.dropped),
                100 * static_cast<double>(status.dropped) / static_cast<double>(transactions));
    std::printf("cpu ns/record: generator and intake %.0f, writer %.0f; writer's rest %.2f s\n",
                intakeCpu * 1e9 / all, writerCpu * 1e9 / all, drained);
    std::printf("queue at most %.1f MB, memory %.0f MB before, %.0f MB at most\n",
                static_cast<double>(mostQueued) / 1e6, before, most);
    std::printf(
        "store %.0f MB, %.0f bytes for each transaction of this run\n",
        static_cast<double>(status.bytes) / 1e6,
        static_cast<double>(status.bytes) / static_cast<double>(std::max<std::uint64_t>(1, status.written)));
    StoreQuery query;
    Sums sums;
    const bool asked = (url.empty() ? query.openFile(file, 60'000) : query.openClickHouse(url, 60'000)) &&
                       query.sums({}, sums) == Answered::kOk;
    const bool counted =
        status.written + status.dropped == transactions && asked && sums.all.count == transactions;
    std::printf("every transaction is %s; memory is %s\n",
                counted ? "stored or counted as dropped, and in the sums" : "NOT ACCOUNTED FOR",
                most - before < kMostMb ? "bounded" : "MORE THAN ALLOWED");
    return counted && most - before < kMostMb ? 0 : 1;
}

int run(int argc, char** argv) {
    double rate = 50'000, seconds = 10, keepMb = 512;
    std::string url;
    for (int at = 1; at + 1 < argc; at += 2) {
        const double value = std::atof(argv[at + 1]);
        if (!std::strcmp(argv[at], "--rate")) rate = value;
        if (!std::strcmp(argv[at], "--seconds")) seconds = value;
        if (!std::strcmp(argv[at], "--keep-mb")) keepMb = value;
        if (!std::strcmp(argv[at], "--clickhouse")) url = argv[at + 1];
    }
    std::string folder = (std::filesystem::temp_directory_path() / "vxbench.XXXXXX").string();
    if (!mkdtemp(folder.data())) return 2;
    constexpr int kTransactions = 20'000;
    const double without = intakeNs(nullptr, kTransactions);
    {
        StoreQueue queue(0);  // takes nothing: what is joined is dropped, the writer takes no time away
        StoreIntake intake(queue, 1);
        const double with = intakeNs(&intake, kTransactions);
        std::printf("intake ns/record: without a store %.0f, with one %.0f, ratio %.2f\n", without, with,
                    with / without);
    }
    const int answer = offer(folder + "/store.db", url, rate, seconds, keepMb);
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return answer;
}

}  // namespace
}  // namespace vx::bench

int main(int argc, char** argv) {
    return vx::bench::run(argc, argv);
}
