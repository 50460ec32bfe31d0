// vxbench_monitors: what the monitors cost.
//
// The merge of a finished transaction into its BT's slot, alone; one reporting cycle with every slot in use;
// and how long a merge was held up while cycles ran. The exit code says whether a bound was missed.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_allocations.h"
#include "bench/bench_instance.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXMonitorCycle.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/mm/VXMethodMonitor.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx::bench {
namespace {

constexpr double kMergeNs = 200, kCycleMs = 50, kHeldUpMs = 1;  // bounds
constexpr std::int64_t kMerges = 5000000;
constexpr int kCycles = 20, kRounds = 5;
constexpr int kNodes = 64;  // of the auto-sensor channel: a whole report, with nobody to send it

double now(clockid_t clock = CLOCK_MONOTONIC) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

struct Load {
    std::vector<BTObject*> bts;
    std::deque<std::string> names;
    std::deque<mPP> methods;
    std::unique_ptr<vxTD> slot = std::make_unique<vxTD>();
};

void makeBts(Load& load, int count) {
    setMaxBTCount(count + 1);
    for (int i = 0; i < count; ++i) {
        char name[kBtNameSize];
        std::snprintf(name, sizeof(name), "/shop/api/v2/section-%d/article", i);
        load.bts.push_back(updateBTObject(name));
    }
}

void makeMethods(vxApplication& app, Load& load, int count) {
    const VXGuard guard(app.method.mapMutex);
    for (int i = 1; i <= count; ++i) {
        mPP& method = load.methods.emplace_back();
        method.methodName = load.names.emplace_back("Shop.Article.Method" + std::to_string(i)).data();
        method.methodId.store(static_cast<std::uint32_t>(i));
        checkAndIncrementAggrMethodDataArray(&method);
    }
}

void finish(vxTD& slot, BTObject* bt, std::int64_t i) {
    slot.tlBTObj = bt;
    slot.tlCategory = static_cast<std::int8_t>(kCategoryNormal + i % 4);
    slot.fpDuration = i % 1000;
    updateCounterAndDurationForBT(&slot);
}

bool measureMerge(const char* name, const Load& load, std::size_t bts) {
    for (BTObject* bt : load.bts) finish(*load.slot, bt, 0);
    const std::int64_t allocationsBefore = allocations();
    const double before = now(CLOCK_THREAD_CPUTIME_ID);
    for (std::int64_t i = 0; i < kMerges; ++i)
        finish(*load.slot, load.bts[static_cast<std::size_t>(i) % bts], i);
    const double ns = (now(CLOCK_THREAD_CPUTIME_ID) - before) * 1e9 / static_cast<double>(kMerges);
    const std::int64_t taken = allocations() - allocationsBefore;
    std::printf("%-8s bts=%zu cpu_ns_per_merge=%.1f allocations=%lld\n", name, bts, ns,
                static_cast<long long>(taken));
    return taken == 0 && (bts > 1 || ns < kMergeNs);
}

std::int64_t drainReport(vxApplication& app) {
    VXBufferChain& chain = app.autoSensor.chain;
    movePartialToReadList(chain);
    std::int64_t bytes = 0;
    while (VXBufferNode* node = chain.VXCollectorBB.load(std::memory_order_acquire)) {
        bytes += node->use_len;
        node->use_len = 0;
        moveToWriteList(chain);
    }
    return bytes;
}

void useAll(Load& load) {
    for (std::size_t i = 0; i < load.bts.size(); ++i)
        for (int n = 0; n < 4; ++n) finish(*load.slot, load.bts[i], static_cast<std::int64_t>(i) * 7 + n);
    for (mPP& method : load.methods)
        updateCounterAndDurationForMethod(nullptr, &method, method.methodId.load() % 90);
}

bool measureCycle(vxApplication& app, Load& load) {
    double least = 1e9, sum = 0;
    std::int64_t bytes = 0;
    for (int i = 0; i < kCycles; ++i) {
        useAll(load);
        const double before = now(CLOCK_THREAD_CPUTIME_ID);
        monitorCycle(VXMonitorPhase::kLast);
        const double ms = (now(CLOCK_THREAD_CPUTIME_ID) - before) * 1e3;
        bytes = drainReport(app);
        if (i == 0) continue;  // the chain grows
        least = std::min(least, ms);
        sum += ms;
    }
    const double mean = sum / (kCycles - 1);
    std::printf("cycle    bts=%zu methods=%zu cpu_ms_mean=%.2f cpu_ms_least=%.2f bytes=%lld dropped=%llu\n",
                load.bts.size(), load.methods.size(), mean, least, static_cast<long long>(bytes),
                static_cast<unsigned long long>(app.autoSensor.chain.recordsDropped.load()));
    return mean < kCycleMs;
}

// How often this thread has gone to sleep of itself: a merge does so for nothing but a lock.
long sleeps() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

struct HoldUps {
    std::int64_t merges = 0, count = 0;
    double longestMs = 0;
};

// Merges until the cycles are over. That the system took the processor away is no hold-up.
HoldUps mergeMeanwhile(Load& load, const std::atomic<bool>& over) {
    HoldUps found;
    for (long slept = sleeps(); !over.load(std::memory_order_relaxed); ++found.merges) {
        const double before = now();
        finish(*load.slot, load.bts[static_cast<std::size_t>(found.merges) % load.bts.size()], found.merges);
        const double ms = (now() - before) * 1e3;
        const long sleptNow = sleeps();
        if (sleptNow == slept) continue;
        slept = sleptNow;
        ++found.count;
        found.longestMs = std::max(found.longestMs, ms);
    }
    return found;
}

HoldUps holdUps(vxApplication& app, Load& load) {
    std::atomic<bool> over{false};
    std::thread cycles([&] {
        vxSetCurrent(&app);
        for (int i = 0; i < kCycles; ++i) {
            monitorCycle(VXMonitorPhase::kLast);
            drainReport(app);
        }
        over = true;
    });
    const HoldUps found = mergeMeanwhile(load, over);
    cycles.join();
    return found;
}

// The best of several rounds: a reporting thread that loses the processor in the midst of a copy holds a
// merge up for as long, which says more of the machine's load than of the cycle.
bool measureHoldUp(vxApplication& app, Load& load) {
    HoldUps best = holdUps(app, load);
    for (int round = 1; round < kRounds; ++round)
        if (const HoldUps found = holdUps(app, load); found.longestMs < best.longestMs) best = found;
    std::printf("held_up  cycles=%d merges=%lld that_slept=%lld longest_ms=%.3f (best of %d rounds)\n",
                kCycles, static_cast<long long>(best.merges), static_cast<long long>(best.count),
                best.longestMs, kRounds);
    return best.longestMs <= kHeldUpMs;
}

int run(int argc, char** argv) {
    const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
    if (count < 1) {
        std::fputs("usage: vxbench_monitors [COUNT]\n  COUNT   BTs, and methods (default 10,000)\n", stderr);
        return 2;
    }
    vxApplication& app = *openInstance();
    vx_word_set(app.VXSys.ASDataBufferMaxCount, kNodes);
    Load load;
    makeBts(load, count);
    makeMethods(app, load, count);
    bool kept = measureMerge("merge", load, 1);
    kept &= measureMerge("merge", load, load.bts.size());
    kept &= measureCycle(app, load);
    kept &= measureHoldUp(app, load);
    std::printf("bounds   %s\n", kept ? "kept" : "missed");
    return kept ? 0 : 1;
}

}  // namespace
}  // namespace vx::bench

int main(int argc, char** argv) {
    return vx::bench::run(argc, argv);
}
