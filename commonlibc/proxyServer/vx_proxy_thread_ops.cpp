#include "commonlibc/proxyServer/vx_proxy_thread_ops.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <utility>

#include "commonlibc/flowpath/VXFlowpathGenerator.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::int32_t kResetFlowpath = 0;  // the operation code
constexpr std::int32_t kStatusOfForcedEnd = 200;
constexpr std::int64_t kDefaultLimitMs = 300000;
constexpr std::int32_t kWalkReport = 30, kRunReport = 15;
constexpr int kWalkStep = 256;              // slots seen under one hold of the pool mutex
constexpr std::int64_t kWalkPauseUs = 100;  // between two holds, for whoever waits
constexpr int kWalkTries = 4;               // how often the list's length may be walked before it is given up

// A queue stays while this is held.
std::mutex queuesMutex;
std::atomic<std::uint32_t> printCalls{0}, runs{0};

std::int64_t idleLimitMs(const vxApplication& app) {
    const std::int64_t limit = std::int64_t{vx_word_get(app.VXBCISetting.FPMaxAllowedAgeInSec)} * 1000;
    return limit < 1 ? kDefaultLimitMs : limit;
}

// A slot without a time has just been taken, and is not idle.
bool isIdle(const vxApplication& app, const vxTD& slot, std::int64_t nowMs) {
    const std::int64_t last = slot.lastActivityTime.load(std::memory_order_relaxed);
    return last != 0 && nowMs - last > idleLimitMs(app);
}

VXThreadOpsQueue& ownerQueue(const vxApplication& app, const vxTD& slot) {
    const std::uint16_t worker = slot.workerId.load(std::memory_order_relaxed);
    const bool known = app.identity.isUDP && worker < kMaxUDPThreads && VXProxy.workerOps[worker];
    return known ? *VXProxy.workerOps[worker] : VXProxy.threadOps;
}

template <class Visit>
void eachQueue(Visit visit) {
    const std::lock_guard lock(queuesMutex);
    visit(VXProxy.threadOps);
    for (VXThreadOpsQueue* queue : VXProxy.workerOps)
        if (queue) visit(*queue);
}

// The queue's mutex held.
bool grow(VXThreadOpsQueue& queue) {
    const auto wanted = static_cast<std::uint16_t>(queue.arrSize + kThreadOpsStep);
    void* larger = VXLB_REALLOC(queue.arrThreadOp, wanted * sizeof(VXThreadOp),
                                "Re-Allocating memory for arrThreadOp", queue.workerId);
    if (!larger) return false;
    queue.arrThreadOp = static_cast<VXThreadOp*>(larger);
    queue.arrSize = wanted;
    VX_TRACE(2, kFlowpath, kInfo, "ThreadOpsStats: Reallocate memory for thread index: %d array size: %d",
             queue.workerId, queue.arrSize);
    return true;
}

bool append(VXThreadOpsQueue& queue, const VXThreadOp& operation) {
    const VXGuard lock(queue.mutex);
    const std::uint16_t count = queue.opCount.load(std::memory_order_relaxed);
    if (!queue.arrThreadOp || count >= kThreadOpsMax || (count == queue.arrSize && !grow(queue)))
        return false;
    queue.arrThreadOp[count] = operation;
    ++queue.totalQueued;
    queue.opCount.store(static_cast<std::uint16_t>(count + 1), std::memory_order_release);
    return true;
}

using Turn = std::array<VXThreadOp, kThreadOpsTurn>;

// The oldest operations, off the queue. Their count. Their instances are pinned: an instance whose operations
// are dropped, and that nobody pins, is in nobody's hands.
int takeTurn(VXThreadOpsQueue& queue, Turn& turn) {
    const VXGuard lock(queue.mutex);
    const int count = queue.opCount.load(std::memory_order_relaxed);
    const int taken = std::min(count, kThreadOpsTurn);
    VXThreadOp* const operations = queue.arrThreadOp;
    std::copy_n(operations, taken, turn.begin());
    for (int i = 0; i < taken; ++i)
        if (operations[i].app) operations[i].app->udp.pins.fetch_add(1);
    std::copy(operations + taken, operations + count, operations);
    queue.opCount.store(static_cast<std::uint16_t>(count - taken), std::memory_order_release);
    queue.processedNow = 0;
    return taken;
}

enum class Outcome : std::uint8_t { kEnded, kGone, kMoved };

// The decode lock is held: a slot of this stay is not given back by another.
Outcome endIdle(const vxApplication& app, const VXThreadOp& operation) {
    vxTD* slot = operation.slot;
    // Whatever stay the slot is in: the mark may have been set just behind the change of stays, and it would
    // keep the walk from the new one for ever. A mark that is cleared in excess is set by the next walk.
    slot->queuedForReset.store(0, std::memory_order_relaxed);
    if (slot->busySerial.load(std::memory_order_relaxed) != operation.busySerial) return Outcome::kGone;
    const bool inRun = app.Server.testRunRunning;  // outside, the stop ends what is busy
    if (!inRun || !isIdle(app, *slot, vxlb_steady_ms())) return Outcome::kMoved;
    if (!slot->fpEnded.load(std::memory_order_relaxed)) endFP(slot, kStatusOfForcedEnd, 0, 0, 0);
    reset(slot);
    return Outcome::kEnded;
}

bool isValid(const VXThreadOp& operation, int index) {
    if (!operation.app)
        VX_TRACE(1, kFlowpath, kError, "ThreadOpsStats: Application instance is NULL for OpCount %d", index);
    else if (operation.code != kResetFlowpath)
        VX_TRACE(1, kFlowpath, kError, "ThreadOpsStats: Invalid thread operation %d OpCount %d",
                 operation.code, index);
    return operation.app && operation.code == kResetFlowpath;
}

void run(VXThreadOpsQueue& queue, const VXThreadOp& operation) {
    vxApplication& app = *operation.app;
    vxSetCurrent(&app);
    Outcome outcome = Outcome::kGone;
    {
        const VXGuard decode(app.decoder.decodeMutex);
        outcome = endIdle(app, operation);
    }
    if (outcome == Outcome::kGone)
        VX_TRACE(1, kFlowpath, kInfo, "ThreadOpsStats: FlowpathInstance %lld not found.",
                 static_cast<long long>(operation.flowpathInstance));
    const VXGuard lock(queue.mutex);
    if (outcome == Outcome::kEnded) {
        ++queue.totalProcessed;
        ++queue.processedNow;
    } else {
        ++queue.ignored;
    }
}

void reportRun(const VXThreadOpsQueue& queue) {
    if (runs.fetch_add(1, std::memory_order_relaxed) % kRunReport != 0) return;
    const VXGuard lock(queue.mutex);
    VX_TRACE(1, kFlowpath, kInfo,
             "ThreadOpsStats: worker id: %d total queued operations: %d total operation processed: %d curent "
             "operation processed: %d ignore transactions: %d array size: %d",
             queue.workerId, static_cast<int>(queue.totalQueued), static_cast<int>(queue.totalProcessed),
             static_cast<int>(queue.processedNow), static_cast<int>(queue.ignored), queue.arrSize);
}

// One walk along a busy list. Between two holds of the pool mutex the slot that it stands on may go: it then
// begins again at the head and passes over what it has seen, which the serials tell.
struct Walk {
    const vxApplication& app;
    std::int64_t nowMs;
    std::uint64_t lastSerial;  // what came later is young
    int stepsLeft;
    vxTD* at = nullptr;  // seen already
    std::uint64_t atSerial = 0, seenSerial = 0;
    int active = 0, moved = 0;
    int found = 0;
    std::array<std::pair<vxTD*, std::uint64_t>, kWalkStep> idle{};

    // Sees the next slots; `idle` are those to be queued. False when the walk is over.
    bool step();

private:
    void see(vxTD* slot);
};

void Walk::see(vxTD* slot) {
    ++active;
    if (slot->lastActivityTime.load(std::memory_order_relaxed) == 0)
        ++moved;
    else if (!slot->queuedForReset.load(std::memory_order_relaxed) && isIdle(app, *slot, nowMs))
        idle[static_cast<std::size_t>(found++)] = {slot, atSerial};
}

bool Walk::step() {
    found = 0;
    const VXGuard pool(app.flowpath.poolMutex);
    const bool there = at && at->busySerial.load(std::memory_order_relaxed) == atSerial;
    vxTD* next = there ? at->busy_next : app.flowpath.gBusyTLSHead;
    for (int i = 0; i < kWalkStep && next; ++i, next = next->busy_next) {
        at = next;
        atSerial = at->busySerial.load(std::memory_order_relaxed);
        if (atSerial > lastSerial) return false;
        if (atSerial <= seenSerial) continue;
        seenSerial = atSerial;
        see(at);
    }
    stepsLeft -= 1;
    return next && stepsLeft > 0;
}

// The youngest slot's serial and the list's length; 0 for an empty list.
std::uint64_t lookAtBusyList(const vxApplication& app, int& length) {
    const VXGuard pool(app.flowpath.poolMutex);
    length = app.flowpath.gBusyTLSCnt;
    const vxTD* tail = app.flowpath.gBusyTLSTail;
    return tail ? tail->busySerial.load(std::memory_order_relaxed) : 0;
}

void reportWalk(vxApplication& app, const Walk& walk, int busy) {
    printAllThreadsOperations();
    if (++app.flowpath.idleWalks < kWalkReport) return;
    app.flowpath.idleWalks = 0;
    VX_TRACE(1, kFlowpath, kInfo,
             "ThreadOpsStats: Active transactions = %d, Moved transaction = %d, Busy Count = %d Tier: %s, "
             "Server:%s, Instance:%s",
             walk.active, walk.moved, busy, app.identity.tierName, app.identity.appServerName,
             app.identity.agentName);
}

}  // namespace

bool initializeThreadOperations(VXThreadOpsQueue& queue, apr_pool_t* pool, std::uint16_t index,
                                void (*wake)(VXThreadOpsQueue& queue)) {
    queue.arrThreadOp = static_cast<VXThreadOp*>(
        VXLB_MALLOC_AND_MEMSET(kThreadOpsStep * sizeof(VXThreadOp), "arrThreadOp", index));
    if (!queue.arrThreadOp || !vxlb_make_mutex(queue.mutex, pool)) return false;
    queue.arrSize = kThreadOpsStep;
    queue.workerId = index;
    queue.wake = wake;
    const std::lock_guard lock(queuesMutex);
    if (&queue != &VXProxy.threadOps && index < kMaxUDPThreads) VXProxy.workerOps[index] = &queue;
    return true;
}

void vxEndThreadOperations(VXThreadOpsQueue& queue) {
    const std::lock_guard lock(queuesMutex);
    for (VXThreadOpsQueue*& worker : VXProxy.workerOps)
        if (worker == &queue) worker = nullptr;
    VXLB_FREE(std::exchange(queue.arrThreadOp, nullptr), "arrThreadOp", queue.workerId);
    queue.arrSize = 0;
    queue.opCount.store(0, std::memory_order_relaxed);
    queue.mutex = nullptr;
}

bool queueFPResetThreadOps(vxTD* slot, std::uint64_t busySerial) {
    vxApplication& app = *vxCurrent();
    const std::int64_t instance = slot->flowpathInstance.load(std::memory_order_relaxed);
    const std::lock_guard lock(queuesMutex);
    VXThreadOpsQueue& queue = ownerQueue(app, *slot);
    slot->queuedForReset.store(1, std::memory_order_relaxed);
    if (!append(queue, {kResetFlowpath, &app, slot, busySerial, instance})) {
        slot->queuedForReset.store(0, std::memory_order_relaxed);
        return false;
    }
    if (app.flowpath.idleWalks + 1 == kWalkReport)  // the walk that reports
        VX_TRACE(2, kFlowpath, kInfo,
                 "Added queued FP reset thread operation flowpathInstance %lld opCount %d worker id %d "
                 "total_operation_queued %d",
                 static_cast<long long>(instance), queue.opCount.load(std::memory_order_relaxed),
                 queue.workerId, static_cast<int>(queue.totalQueued));
    if (queue.wake) queue.wake(queue);
    return true;
}

void processThreadOps(VXThreadOpsQueue& queue) {
    if (queue.opCount.load(std::memory_order_acquire) == 0) return;
    Turn turn;
    const int count = takeTurn(queue, turn);
    vxApplication* const former = vxCurrent();
    for (int i = 0; i < count; ++i) {
        const VXThreadOp& operation = turn[static_cast<std::size_t>(i)];
        if (isValid(operation, i)) run(queue, operation);
        vxSetCurrent(former);
        if (operation.app) operation.app->udp.pins.fetch_sub(1);
    }
    reportRun(queue);
    if (queue.opCount.load(std::memory_order_relaxed) > 0 && queue.wake) queue.wake(queue);
}

void printAllThreadsOperations() {
    if (printCalls.fetch_add(1, std::memory_order_relaxed) % kWalkReport != 0) return;
    eachQueue([](const VXThreadOpsQueue& queue) {
        const VXGuard lock(queue.mutex);
        VX_TRACE(1, kFlowpath, kInfo,
                 "ThreadOpsStats: worker id: %d, total queued operations: %d, total operation processed: %d, "
                 "arrSize: %d",
                 queue.workerId, static_cast<int>(queue.totalQueued), static_cast<int>(queue.totalProcessed),
                 queue.arrSize);
    });
}

void markLongIdleTransactions() {
    vxApplication& app = *vxCurrent();
    int busy = 0;
    const std::uint64_t last = lookAtBusyList(app, busy);
    if (last == 0) {
        VX_TRACE(2, kFlowpath, kInfo, "gBusyTLSHead is null. Hence returning.");
        return;
    }
    Walk walk{app, vxlb_steady_ms(), last, kWalkTries * (busy / kWalkStep + 1)};
    for (bool more = true, room = true; more && room;) {
        more = walk.step();
        for (int i = 0; i < walk.found && room; ++i) {
            const auto& [slot, serial] = walk.idle[static_cast<std::size_t>(i)];
            room = queueFPResetThreadOps(slot, serial);
        }
        if (more) vxlb_sleep_us(kWalkPauseUs);
    }
    if (walk.active > 0) reportWalk(app, walk, busy);
}

void dropResetQueueOfInstance(vxApplication* app) {
    eachQueue([app](VXThreadOpsQueue& queue) {
        const VXGuard lock(queue.mutex);
        VXThreadOp* const end = queue.arrThreadOp + queue.opCount.load(std::memory_order_relaxed);
        VXThreadOp* const left = std::remove_if(queue.arrThreadOp, end, [app](const VXThreadOp& operation) {
            if (operation.app != app) return false;
            operation.slot->queuedForReset.store(0, std::memory_order_relaxed);
            return true;
        });
        queue.opCount.store(static_cast<std::uint16_t>(left - queue.arrThreadOp), std::memory_order_release);
    });
}

}  // namespace vx
