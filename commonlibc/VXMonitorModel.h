// What the monitors share: growth of aggregate arrays, vector prefixes, the tag maps, the reset between runs.
//
// An aggregate array is indexed by an object's id. It grows in fixed blocks that stay in place, so that a
// slot's address is good for the life of the instance; its size is the one of the reporting formula and may
// run ahead of the blocks that exist.
//
//     size 257, ids 5 and 256 seen:  blocks[0] -> 128 slots   blocks[1] = null   blocks[2] -> 128 slots
//
// Limits    kAggCapacity slots; an object with a higher id has no slot and is not counted.
// Errors    A block without memory leaves the array as it was.
// Threads   Growth under the owning map's mutex; reading any. A slot's counters: the slot's mutex.
#pragma once

#include <apr_pools.h>

#include <initializer_list>
#include <new>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

inline constexpr std::int32_t kAggCapacity = kAggBlockSlots * kAggBlocks;
inline constexpr std::int32_t kAggStartSize = 128;
inline constexpr std::int64_t kMinDurationStart = 0x7FFFFFFF;  // a least duration before the first value

// The size an array of `currentSize` grows to so that it holds `index`: repeatedly adds 2 x old size + 1,
// from 0, until it is above the index. 64-bit; the same size when it already holds it.
std::int64_t vxGrownSize(std::int64_t currentSize, std::int64_t index);
// Slot `index` of an array, null outside its size or before its block exists.
template <class Slot>
Slot* vxAggSlot(const VXAggregateArray<Slot>& array, std::int64_t index) noexcept {
    if (index < 0 || index >= array.size.load(std::memory_order_acquire)) return nullptr;
    Slot* block = array.blocks[index / kAggBlockSlots].load(std::memory_order_acquire);
    return block ? block + index % kAggBlockSlots : nullptr;
}
// Makes slot `index` exist: its block, each slot of it zeroed and prepared by makeSlot(slot) (false: without
// memory), and the array's size. The slot, or null. The array's lock held.
template <class Slot, class Make>
Slot* vxAggEnsureSlot(VXAggregateArray<Slot>& array, std::int64_t index, Make makeSlot) {
    if (index < 0 || index >= kAggCapacity) return nullptr;
    std::atomic<Slot*>& block = array.blocks[index / kAggBlockSlots];
    if (!block.load(std::memory_order_relaxed)) {
        auto* slots =
            static_cast<Slot*>(VXLB_MALLOC_AND_MEMSET(sizeof(Slot) * kAggBlockSlots, "Data Array", -1));
        bool made = slots != nullptr;
        for (std::int32_t i = 0; made && i < kAggBlockSlots; ++i) made = makeSlot(*new (slots + i) Slot{});
        if (!made) {
            VXLB_FREE(slots, "Data Array", -1);
            VX_TRACE(1, kControlThread, kError, "Out of Memory: %s for index %d\n", "Data Array",
                     static_cast<int>(index));
            return nullptr;
        }
        block.store(slots, std::memory_order_release);
    }
    const std::int64_t size = array.size.load(std::memory_order_relaxed);
    if (index >= size) {
        const std::int64_t grown = vxGrownSize(size, index);
        array.size.store(static_cast<std::int32_t>(grown < kAggCapacity ? grown : kAggCapacity),
                         std::memory_order_release);
    }
    return vxAggSlot(array, index);
}
// Gives an array that has none its first block and the start size. The array's lock held.
template <class Slot, class Make>
void vxAggStart(VXAggregateArray<Slot>& array, Make makeSlot) {
    if (array.size.load(std::memory_order_relaxed) == 0 && vxAggEnsureSlot(array, 0, makeSlot))
        array.size.store(kAggStartSize, std::memory_order_release);
}
// Calls visit(slot) for every slot from `first` on whose block exists.
template <class Slot, class Visit>
void vxAggEach(const VXAggregateArray<Slot>& array, std::int64_t first, Visit visit) {
    const std::int64_t size = array.size.load(std::memory_order_acquire);
    for (std::int64_t index = first; index < size; ++index)
        if (Slot* slot = vxAggSlot(array, index)) visit(*slot);
}
// Frees the blocks of an array, and what its slots own, where no thread can use it any more.
template <class Slot>
void vxAggFree(VXAggregateArray<Slot>& array) {
    if constexpr (requires(Slot slot) { slot.digest; })
        vxAggEach(array, 0, [](Slot& slot) { VXLB_FREE(slot.digest, "digest", -1); });
    for (auto& block : array.blocks) VXLB_FREE(block.exchange(nullptr), "Data Array", -1);
    array.size.store(0, std::memory_order_release);
}

// Takes the figures of a slot at its mutex; `begin` makes them what they are at first. False: it was never
// used.
template <class Slot>
bool vxTakeFigures(Slot& slot, Slot& taken, std::initializer_list<std::int64_t Slot::*> figures,
                   void (*begin)(Slot&)) {
    const VXGuard guard(slot.mutex);
    if (!slot.isDirty) return false;
    for (const auto figure : figures) taken.*figure = slot.*figure;
    begin(slot);
    return true;
}

// a + b of figures that came over the wire: wraps round, never undefined.
inline std::int64_t vxSum(std::int64_t a, std::int64_t b) noexcept {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
// `pool`, made below `parent` if it is still null.
apr_pool_t* vxOwnPool(apr_pool_t*& pool, apr_pool_t* parent);
// "%s%c%s%c%s%c" of encoded tier, server and instance, and "%d|%d|" of tierID and appID.
void vxMakeVectorPrefix(const vxApplication& app, char* prefix, std::size_t prefixSize, char* prefixId,
                        std::size_t idSize);

// The value of `key` in a tag map; a key not seen before is added with the map's count as its sequence. Null
// without map or memory. The map's mutex held.
VXTagSequence* vxTagSequence(VXMap* map, const char* key);
void Free_Tag_Map();
void Free_BT_Tag_Map();
// Both tag maps: what a run leaves of its tags.
void freeTagStructures();

}  // namespace vx
