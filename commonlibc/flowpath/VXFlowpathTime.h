// Times of a flowpath: from the agent's microseconds to milliseconds in the instance's base.
//
// Times come from the wire and may hold any value: sums wrap in 64 bits instead of overflowing.
//
// Threads   Any; no state.
#pragma once

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

// Milliseconds in the instance's base, of a Unix time in microseconds.
inline std::int64_t vxBaseMs(const vxApplication& app, std::int64_t epochUs) noexcept {
    return vxWrapSub(epochUs / 1000, app.Server.zorEpochDiff.load(std::memory_order_relaxed));
}
// Milliseconds since the flowpath's start, of a Unix time in microseconds; negative before it.
inline std::int64_t vxSinceStartMs(const vxApplication& app, const vxTD& slot,
                                   std::int64_t epochUs) noexcept {
    return vxWrapSub(vxBaseMs(app, epochUs), slot.startTimeRel);
}

}  // namespace vx
