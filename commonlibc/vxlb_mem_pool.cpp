#include "commonlibc/vxlb_mem_pool.h"

#include <cstddef>
#include <utility>

#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

constinit VXSlotPool_t VXSlotPool{};

// Stands in front of its slots, which begin at the next page.
struct VXSlotBlock {
    VXSlotBlock* next;
};

namespace {

constexpr std::size_t kBlockSize = sizeof(VXSlotBlock) + kSlotAlignment + kSlotsPerPool * sizeof(vxTD);

vxTD* firstSlot(VXSlotBlock* block) {
    const auto behind = reinterpret_cast<std::uintptr_t>(block + 1);
    return reinterpret_cast<vxTD*>((behind + kSlotAlignment - 1) / kSlotAlignment * kSlotAlignment);
}

// All blocks are made here.
vxTD* newBlock(VXSlotPool_t& pool) {
    auto* block = static_cast<VXSlotBlock*>(VXLB_MALLOC_AND_MEMSET(kBlockSize, "tls pool", pool.g_tlsidx));
    if (!block) return nullptr;
    vx_platform_small_pages(block, kBlockSize);
    block->next = pool.blocks;
    pool.blocks = block;
    return firstSlot(block);
}

void prepareSlot(VXSlotPool_t& pool, vxTD& slot) {
    slot.tlsIdx = pool.g_tlsidx++;
    slot.tlThreadId = slot.tlsIdx + 1;
    apr_thread_mutex_create(&slot.blobMutex, APR_THREAD_MUTEX_UNNESTED, pool.pool);
    apr_thread_mutex_create(&slot.tagMutex, APR_THREAD_MUTEX_UNNESTED, pool.pool);
}

// The pool's mutex held.
vxTD* growFreeStack(VXSlotPool_t& pool, std::int32_t busyCount) {
    if (busyCount < 0)
        VX_TRACE(1, kFlowpath, kError, "Wrong index %d to allocte the new thread pool\n", busyCount);
    if (!pool.pool && apr_pool_create(&pool.pool, nullptr) != APR_SUCCESS) return nullptr;
    vxTD* slots = newBlock(pool);
    if (!slots) return nullptr;

    for (std::int32_t i = 0; i < kSlotsPerPool; ++i) {
        prepareSlot(pool, slots[i]);
        slots[i].free_next = slots + i + 1;
    }
    slots[kSlotsPerPool - 1].free_next = pool.gFreeTLSHead;
    VX_TRACE(2, kFlowpath, kInfo, "Idx to last slot of pool = %d, its free_next is set to NULL",
             pool.g_tlsidx - 1);
    pool.gFreeTLSHead = slots;
    pool.gFreeTLSCnt += kSlotsPerPool;
    return slots;
}

// poolMutex held.
void traceCeilingOnce(VXFlowpathState_t& state) {
    if (state.ceilingTraced) return;
    state.ceilingTraced = 1;
    VX_TRACE(1, kFlowpath, kError, "maxSlots = %d transactions are in flight, starts are refused",
             VXProxy.ceilings.maxSlots);
}

// A slot off the free stack; null at the ceiling and without memory. poolMutex held.
vxTD* popFree(VXFlowpathState_t& state) {
    VXSlotPool_t& pool = VXSlotPool;
    const std::lock_guard lock(pool.mutex);
    if (pool.taken >= VXProxy.ceilings.maxSlots) {
        traceCeilingOnce(state);
        return nullptr;
    }
    if (!pool.gFreeTLSHead) {
        VX_TRACE(1, kFlowpath, kInfo, "TLS pool found to NULL allocating pool again; gBusyTLSCnt=%d",
                 state.gBusyTLSCnt);
        if (!growFreeStack(pool, state.gBusyTLSCnt)) return nullptr;
    }
    vxTD* slot = pool.gFreeTLSHead;
    pool.gFreeTLSHead = slot->free_next;
    if (pool.gFreeTLSHead) pool.gFreeTLSHead->free_prev = nullptr;
    slot->free_next = slot->free_prev = nullptr;
    --pool.gFreeTLSCnt;
    ++pool.taken;
    slot->busySerial.store(++pool.lastSerial, std::memory_order_relaxed);
    return slot;
}

void appendBusy(VXFlowpathState_t& state, vxTD* slot) {
    slot->busy_prev = state.gBusyTLSTail;
    slot->busy_next = nullptr;
    (state.gBusyTLSTail ? state.gBusyTLSTail->busy_next : state.gBusyTLSHead) = slot;
    state.gBusyTLSTail = slot;
    ++state.gBusyTLSCnt;
}

void unlinkBusy(VXFlowpathState_t& state, vxTD* slot) {
    (slot->busy_prev ? slot->busy_prev->busy_next : state.gBusyTLSHead) = slot->busy_next;
    (slot->busy_next ? slot->busy_next->busy_prev : state.gBusyTLSTail) = slot->busy_prev;
    --state.gBusyTLSCnt;
    if (state.gBusyTLSHead && !state.gBusyTLSTail) {
        VX_TRACE(1, kFlowpath, kError, "########### invalid case 1");
        state.gBusyTLSHead = nullptr;
    } else if (!state.gBusyTLSHead && state.gBusyTLSTail) {
        VX_TRACE(1, kFlowpath, kError, "########### invalid case 2");
        state.gBusyTLSTail = nullptr;
    }
}

void pushFree(vxTD* slot) {
    VXSlotPool_t& pool = VXSlotPool;
    const std::lock_guard lock(pool.mutex);
    slot->free_prev = nullptr;
    slot->free_next = pool.gFreeTLSHead;
    if (pool.gFreeTLSHead) pool.gFreeTLSHead->free_prev = slot;
    pool.gFreeTLSHead = slot;
    ++pool.gFreeTLSCnt;
    --pool.taken;
}

}  // namespace

vxTD* create_tls_pool(std::int32_t busyCount) {
    const std::lock_guard lock(VXSlotPool.mutex);
    return growFreeStack(VXSlotPool, busyCount);
}

vxTD* get_free_tls_slot() {
    VXFlowpathState_t& state = vxCurrent()->flowpath;
    const VXGuard guard(state.poolMutex);
    vxTD* slot = popFree(state);
    if (!slot) return nullptr;
    appendBusy(state, slot);
    slot->inUse.store(1, std::memory_order_relaxed);
    return slot;
}

void free_tls_slot(vxTD* slot) {
    if (!slot) {
        VX_TRACE(1, kFlowpath, kError, "Null argument is passed, hence returning");
        return;
    }
    VXFlowpathState_t& state = vxCurrent()->flowpath;
    VXGuard guard(state.poolMutex);
    if (!slot->busy_next && !slot->busy_prev && !slot->inUse.load(std::memory_order_relaxed)) {
        guard.unlock();
        VX_TRACE(1, kFlowpath, kError, "Node %p has already been released", static_cast<void*>(slot));
        return;
    }
    unlinkBusy(state, slot);
    slot->busy_next = slot->busy_prev = nullptr;
    slot->inUse.store(0, std::memory_order_relaxed);
    slot->busySerial.store(0, std::memory_order_relaxed);
    pushFree(slot);
}

void initVXManageTIdToTLocal() {}

void vxFreeSlotPools() {
    VXSlotPool_t& pool = VXSlotPool;
    const std::lock_guard lock(pool.mutex);
    while (VXSlotBlock* block = pool.blocks) {
        pool.blocks = block->next;
        VXLB_FREE(block, "tls pool", -1);
    }
    if (pool.pool) apr_pool_destroy(std::exchange(pool.pool, nullptr));
    pool.gFreeTLSHead = nullptr;
    pool.gFreeTLSCnt = pool.taken = 0;
}

}  // namespace vx
