#include "commonlibc/proxyServer/vx_udp_nodes.h"

#include <chrono>
#include <cstdio>
#include <new>

#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::chrono::seconds kNodeWait{1};

void freeNode(VXUdpNode* node) {
    if (node) VXLB_FREE(node->buffer, "udp Data buffer chunk", -1);
    VXLB_FREE(node, "udp Data buffer node", -1);
}

VXUdpNode* newNode(std::int32_t index) {
    char name[64];
    std::snprintf(name, sizeof(name), "udp Data buffer node : %d", index);
    void* block = VXLB_MALLOC_AND_MEMSET(sizeof(VXUdpNode), name, index);
    if (!block) return nullptr;
    auto* node = new (block) VXUdpNode{};
    std::snprintf(name, sizeof(name), "udp Data buffer chunk : %d", index);
    node->buffer = static_cast<char*>(VXLB_MALLOC(kUdpNodeSize, name, index));
    node->capacity = kUdpNodeSize;
    if (node->buffer) return node;
    freeNode(node);
    return nullptr;
}

}  // namespace

void vxUdpAppend(VXUdpQueue& queue, VXUdpNode* node) {
    node->next = nullptr;
    (queue.tail ? queue.tail->next : queue.head) = node;
    queue.tail = node;
}

VXUdpNode* vxUdpPop(VXUdpQueue& queue) {
    VXUdpNode* node = queue.head;
    if (!node) return nullptr;
    queue.head = node->next;
    if (!queue.head) queue.tail = nullptr;
    return node;
}

bool udp_buff_list_init(std::int32_t workers) {
    for (std::int32_t i = 0; i < workers * kUdpNodesPerWorker; ++i) {
        VXUdpNode* node = newNode(i);
        if (!node) {
            udp_buff_list_free();
            return false;
        }
        const std::lock_guard lock(VXUdp.freeMutex);
        vxUdpAppend(VXUdp.freeList, node);
    }
    return true;
}

void udp_buff_list_free() {
    const std::lock_guard lock(VXUdp.freeMutex);
    while (VXUdpNode* node = vxUdpPop(VXUdp.freeList)) freeNode(node);
}

int vxUdpTakeNodes(VXUdpNode** out, int most, bool wait) {
    std::unique_lock lock(VXUdp.freeMutex);
    if (wait)
        VXUdp.freed.wait_for(lock, kNodeWait, [] {
            return VXUdp.freeList.head || VXUdp.stopping.load(std::memory_order_relaxed);
        });
    int count = 0;
    while (count < most && VXUdp.freeList.head) out[count++] = vxUdpPop(VXUdp.freeList);
    return count;
}

void vxUdpGiveNodes(VXUdpQueue& nodes) {
    if (!nodes.head) return;
    bool wasEmpty = false;
    {
        const std::lock_guard lock(VXUdp.freeMutex);
        VXUdpQueue& list = VXUdp.freeList;
        wasEmpty = !list.head;
        (wasEmpty ? list.head : list.tail->next) = nodes.head;
        list.tail = nodes.tail;
    }
    nodes = {};
    if (wasEmpty) VXUdp.freed.notify_one();
}

}  // namespace vx
