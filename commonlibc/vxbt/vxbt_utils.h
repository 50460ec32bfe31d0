// Small helpers of the rule and keyword parsers.
//
// Threads   Any; no state.
#pragma once

#include <cstdint>

namespace vx {

// The number at the start of a text as atoi reads it; beyond 32 bits the nearest limit. Null counts as 0.
std::int32_t vxbt_int(const char* text);

}  // namespace vx
