// Open methods of a flowpath: how many entries of each method still wait for their exit.
//
// The first 48 methods that a transaction meets are counted in a small hash table in the slot's first page
// (linear probing; a place keeps its method until the reset, so a method stays where it was first counted).
// Methods beyond those are counted in methodEntryCount, by id, a page of which is touched only then.
//
// Limits    Ids of kCountedMethods or above are not counted by the callers. A count stays at its maximum.
// Threads   Under the decode lock.
#pragma once

#include <cstring>
#include <limits>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Place of the method in the small table, or the free place where the probing for it ended.
inline std::uint32_t vxOpenMethodPlace(const vxTD& slot, std::uint32_t methodId) noexcept {
    const std::uint32_t key = methodId + 1;
    std::uint32_t place = methodId % kOpenMethodPlaces;
    while (slot.openMethodKey[place] && slot.openMethodKey[place] != key)
        place = (place + 1) % kOpenMethodPlaces;
    return place;
}

// The method's counter, null when it was never entered. `methodId` must be below kCountedMethods.
inline std::int32_t* vxOpenMethodCount(vxTD& slot, std::uint32_t methodId) noexcept {
    const std::uint32_t place = vxOpenMethodPlace(slot, methodId);
    if (slot.openMethodKey[place]) return &slot.openMethodCount[place];
    const bool counted = slot.methodEntryDirty >> methodId / kCountsPerPage & 1;
    return counted ? &slot.methodEntryCount[methodId] : nullptr;
}

// Counts an entry. The method's open entries.
inline std::int32_t vxOpenMethod(vxTD& slot, std::uint32_t methodId) noexcept {
    const std::uint32_t place = vxOpenMethodPlace(slot, methodId);
    std::int32_t* count = &slot.openMethodCount[place];
    if (!slot.openMethodKey[place]) {
        if (slot.openMethodsUsed < kOpenMethodLimit) {
            slot.openMethodKey[place] = static_cast<std::uint16_t>(methodId + 1);
            ++slot.openMethodsUsed;
        } else {
            slot.methodEntryDirty |= static_cast<std::uint8_t>(1U << methodId / kCountsPerPage);
            count = &slot.methodEntryCount[methodId];
        }
    }
    if (*count < std::numeric_limits<std::int32_t>::max()) ++*count;
    return *count;
}

// Takes one entry back. False when none is open.
inline bool vxCloseMethod(vxTD& slot, std::uint32_t methodId) noexcept {
    std::int32_t* count = vxOpenMethodCount(slot, methodId);
    if (!count || *count < 1) return false;
    --*count;
    return true;
}

// Forgets all of them; a page of counters that holds none is not touched.
inline void vxClearOpenMethods(vxTD& slot) noexcept {
    if (slot.openMethodsUsed) {
        std::memset(slot.openMethodKey, 0, sizeof(slot.openMethodKey));
        std::memset(slot.openMethodCount, 0, sizeof(slot.openMethodCount));
        slot.openMethodsUsed = 0;
    }
    for (std::uint32_t page = 0; slot.methodEntryDirty; ++page, slot.methodEntryDirty >>= 1)
        if (slot.methodEntryDirty & 1)
            std::memset(slot.methodEntryCount + page * kCountsPerPage, 0,
                        kCountsPerPage * sizeof(slot.methodEntryCount[0]));
}

}  // namespace vx
