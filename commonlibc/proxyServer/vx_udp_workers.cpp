#include "commonlibc/proxyServer/vx_udp_workers.h"

#include <cstddef>
#include <memory>
#include <utility>

#include "commonlibc/proxyServer/vx_proxy_thread_ops.h"
#include "commonlibc/proxyServer/vx_udp_message.h"
#include "commonlibc/proxyServer/vx_udp_nodes.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

// Workers that have been given something and sleep; the receiver's. One that operations woke meanwhile may
// stand here twice.
udpStorage* toWake[kMaxUDPThreads];
std::int32_t toWakeCount = 0;

bool stopping() {
    return VXUdp.stopping.load(std::memory_order_acquire);
}

bool hasOperations(const udpStorage& worker) {
    return worker.threadOps.opCount.load(std::memory_order_acquire) != 0;
}

// Takes the whole queue; empty when there are operations only, or at a stop.
VXUdpQueue waitForWork(udpStorage& worker) {
    std::unique_lock lock(worker.mutex);
    worker.waiting = true;
    worker.ready.wait(lock, [&] { return worker.queue.head || hasOperations(worker) || stopping(); });
    worker.waiting = false;
    return std::exchange(worker.queue, {});
}

// The nodes go back as many at a time as are a worker's share: the receiver never waits for a long queue.
void handle(VXUdpQueue& taken, vxApplication* root) {
    VXUdpQueue done{};
    for (std::int32_t i = 1; VXUdpNode* node = vxUdpPop(taken); ++i) {
        vxSetCurrent(root);
        if (!stopping()) decode_udp_Message_wrapper(node->buffer, node->length, node->sender);
        vxUdpAppend(done, node);
        if (i % kUdpNodesPerWorker == 0) vxUdpGiveNodes(done);
    }
    vxUdpGiveNodes(done);
}

void* runWorker(apr_thread_t*, void* argument) {
    udpStorage& worker = *static_cast<udpStorage*>(argument);
    tlWorkerIndex = static_cast<std::uint16_t>(worker.workerIndex);
    vxSetCurrent(worker.root);
    while (!stopping()) {
        VXUdpQueue taken = waitForWork(worker);
        if (hasOperations(worker)) processThreadOps(worker.threadOps);
        handle(taken, worker.root);
    }
    return nullptr;
}

void wake(VXThreadOpsQueue& queue) {
    auto& worker =
        *reinterpret_cast<udpStorage*>(reinterpret_cast<char*>(&queue) - offsetof(udpStorage, threadOps));
    { const std::lock_guard lock(worker.mutex); }  // it has not yet looked, or it sleeps
    worker.ready.notify_one();
}

bool startWorker(udpStorage& worker, std::int32_t index, vxApplication* root) {
    worker.root = root;
    worker.workerIndex = index;
    if (!initializeThreadOperations(worker.threadOps, root->pool, static_cast<std::uint16_t>(index), wake))
        return false;
    return vxlb_thread_start(worker.thread, worker.threadPool, root->pool, runWorker, &worker) == APR_SUCCESS;
}

}  // namespace

bool vxUdpMakeWorkers(std::int32_t count, vxApplication* root) {
    const auto size = static_cast<std::size_t>(count);
    VXUdp.workers = static_cast<udpStorage*>(VXLB_MALLOC(size * sizeof(udpStorage), "udpStorage", -1));
    if (!VXUdp.workers) return false;
    std::uninitialized_value_construct_n(VXUdp.workers, size);
    for (std::int32_t i = 0; i < count; ++i) {
        udpStorage& worker = VXUdp.workers[i];
        VXUdp.workerCount.store(i + 1, std::memory_order_release);
        if (!startWorker(worker, i, root)) return false;
    }
    return true;
}

void vxUdpHandOver(VXUdpNode* node) {
    const auto count = static_cast<std::uint32_t>(VXUdp.workerCount.load(std::memory_order_relaxed));
    udpStorage& worker = VXUdp.workers[(node->sender.port ^ node->sender.ip) % count];
    const std::lock_guard lock(worker.mutex);
    worker.lastSender = node->sender;
    vxUdpAppend(worker.queue, node);
    if (!std::exchange(worker.waiting, false)) return;
    if (toWakeCount == kMaxUDPThreads) vxUdpWakeWorkers();
    toWake[toWakeCount++] = &worker;
}

void vxUdpWakeWorkers() {
    while (toWakeCount > 0) toWake[--toWakeCount]->ready.notify_one();
}

void vxUdpEndWorkers() {
    const std::int32_t count = VXUdp.workerCount.exchange(0);
    for (std::int32_t i = 0; i < count; ++i) wake(VXUdp.workers[i].threadOps);
    for (std::int32_t i = 0; i < count; ++i) {
        udpStorage& worker = VXUdp.workers[i];
        vxlb_thread_join(worker.thread, worker.threadPool);
        vxEndThreadOperations(worker.threadOps);
        vxUdpGiveNodes(worker.queue);
    }
    std::destroy_n(VXUdp.workers, static_cast<std::size_t>(count));
    VXLB_FREE(std::exchange(VXUdp.workers, nullptr), "udpStorage", -1);
}

}  // namespace vx
