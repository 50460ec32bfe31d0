// Sums over what agents send: times since a flowpath's start, counts.
//
// Numbers come from the wire and may hold any value: sums of times wrap in 64 bits instead of overflowing,
// and counts stay between 0 and their end.
//
// Threads   Any; no state.
#pragma once

#include <limits>

#include "commonlibc/context/vx_application.h"

namespace vx {

inline std::int64_t vxWrapAdd(std::int64_t a, std::int64_t b) noexcept {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
inline std::int64_t vxWrapSub(std::int64_t a, std::int64_t b) noexcept {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}
inline std::int64_t vxWrapMul(std::int64_t a, std::int64_t b) noexcept {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

inline void vxRaise(std::int32_t& count) noexcept {
    if (count < std::numeric_limits<std::int32_t>::max()) ++count;
}
// A call that was left by an exception may send its exit too. A depth that then went below 0 would take
// each nested call that follows for an outer one.
inline void vxLower(std::int32_t& depth) noexcept {
    if (depth > 0) --depth;
}

// Milliseconds since the flowpath's start, of a Unix time in microseconds; negative before it. The instance's
// base has no part in it: the collector may move it while the flowpath is open.
inline std::int64_t vxSinceStartMs(const vxTD& slot, std::int64_t epochUs) noexcept {
    return vxWrapSub(epochUs / 1000, slot.startTimeUs / 1000);
}

}  // namespace vx
