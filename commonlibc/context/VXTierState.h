// What a transaction's neighbours are called: calling tiers.
//
// Guards    The decode lock.
// Lifetime  As the instance; the table has a ceiling.
#pragma once

#include <cstdint>

namespace vx {

struct VXMap;

struct VXTierState_t {
    VXMap* callers;  // by the chain's key; made with the first caller
    std::uint32_t callerCount;
    std::uint8_t callersTraced;  // the full table was traced in this run
};

}  // namespace vx
