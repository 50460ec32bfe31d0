#include "commonlibc/vxlb_mem_pool.h"

#include <cstddef>

#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

// Stands in front of its slots, which begin at the next page.
struct VXSlotBlock {
    VXSlotBlock* next;
};

namespace {

constexpr std::size_t kBlockSize = sizeof(VXSlotBlock) + kSlotAlignment + kSlotsPerPool * sizeof(vxTD);

std::atomic<std::int64_t> slotSerial{0};

vxTD* firstSlot(VXSlotBlock* block) {
    const auto behind = reinterpret_cast<std::uintptr_t>(block + 1);
    return reinterpret_cast<vxTD*>((behind + kSlotAlignment - 1) / kSlotAlignment * kSlotAlignment);
}

// All blocks are made here.
vxTD* newBlock(VXFlowpathState_t& state) {
    auto* block = static_cast<VXSlotBlock*>(VXLB_MALLOC_AND_MEMSET(kBlockSize, "tls pool", state.g_tlsidx));
    if (!block) return nullptr;
    block->next = state.blocks;
    state.blocks = block;
    return firstSlot(block);
}

void prepareSlot(VXFlowpathState_t& state, vxTD& slot) {
    slot.tlsIdx = state.g_tlsidx++;
    slot.tlThreadId = slotSerial.fetch_add(1, std::memory_order_relaxed) + 1;
    apr_thread_mutex_create(&slot.blobMutex, APR_THREAD_MUTEX_UNNESTED, state.pool);
    apr_thread_mutex_create(&slot.tagMutex, APR_THREAD_MUTEX_UNNESTED, state.pool);
    initVXMonitorDataModel(&slot);
}

// poolMutex held.
vxTD* growFreeStack(vxApplication& app, std::int32_t busyCount) {
    if (busyCount < 0)
        VX_TRACE(1, kFlowpath, kError, "Wrong index %d to allocte the new thread pool\n", busyCount);
    VXFlowpathState_t& state = app.flowpath;
    if (!state.pool) apr_pool_create(&state.pool, app.pool);
    vxTD* slots = newBlock(state);
    if (!slots) return nullptr;

    for (std::int32_t i = 0; i < kSlotsPerPool; ++i) {
        prepareSlot(state, slots[i]);
        slots[i].free_next = slots + i + 1;
    }
    slots[kSlotsPerPool - 1].free_next = state.gFreeTLSHead;
    VX_TRACE(2, kFlowpath, kInfo, "Idx to last slot of pool = %d, its free_next is set to NULL",
             state.g_tlsidx - 1);
    state.gFreeTLSHead = slots;
    state.gFreeTLSCnt += kSlotsPerPool;
    return slots;
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

void pushFree(VXFlowpathState_t& state, vxTD* slot) {
    slot->busy_next = slot->busy_prev = slot->free_prev = nullptr;
    slot->free_next = state.gFreeTLSHead;
    if (state.gFreeTLSHead) state.gFreeTLSHead->free_prev = slot;
    state.gFreeTLSHead = slot;
    ++state.gFreeTLSCnt;
}

}  // namespace

vxTD* create_tls_pool(std::int32_t busyCount) {
    vxApplication& app = *vxCurrent();
    const VXGuard guard(app.flowpath.poolMutex);
    return growFreeStack(app, busyCount);
}

vxTD* get_free_tls_slot() {
    vxApplication& app = *vxCurrent();
    VXFlowpathState_t& state = app.flowpath;
    const VXGuard guard(state.poolMutex);
    if (!state.gFreeTLSHead) {
        VX_TRACE(1, kFlowpath, kInfo, "TLS pool found to NULL allocating pool again; gBusyTLSCnt=%d",
                 state.gBusyTLSCnt);
        if (!growFreeStack(app, state.gBusyTLSCnt)) return nullptr;
    }

    vxTD* slot = state.gFreeTLSHead;
    state.gFreeTLSHead = slot->free_next;
    if (state.gFreeTLSHead) state.gFreeTLSHead->free_prev = nullptr;
    slot->free_next = slot->free_prev = nullptr;
    --state.gFreeTLSCnt;
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
    pushFree(state, slot);
    slot->inUse.store(0, std::memory_order_relaxed);
}

void initVXManageTIdToTLocal() {}

void vxFreeSlotPools(vxApplication& app) {
    VXFlowpathState_t& state = app.flowpath;
    while (VXSlotBlock* block = state.blocks) {
        state.blocks = block->next;
        for (std::int32_t i = 0; i < kSlotsPerPool; ++i)
            VXLB_FREE(firstSlot(block)[i].monitorModel, "VXMonitorModel", i);
        VXLB_FREE(block, "tls pool", -1);
    }
    if (state.pool) apr_pool_destroy(state.pool);
    state.pool = nullptr;
    state.gFreeTLSHead = state.gBusyTLSHead = state.gBusyTLSTail = nullptr;
    state.gFreeTLSCnt = state.gBusyTLSCnt = 0;
}

}  // namespace vx
