// Header stage of pattern rules: whether a request has the header that its rule asks for.
//
// Limits    The first 2,048 pairs of a request are looked at.
// Threads   Any; the machine is only read, the text is the caller's.
#pragma once

#include <cstddef>
#include <cstdint>

#include "commonlibc/context/VXRuleSet.h"

namespace vx {

// `id` came out of the URL machine and is above 1; `text` holds the pairs "name=value" joined by "&" (may be
// null), with escapes, which are decoded in place. `id` where no header rule of that id exists; -1 without a
// text; 0 when no pair is one that the rules of the id ask for.
std::int32_t getBTHeader(const vxlb_state_machine* machine, char* text, std::size_t length, std::int32_t id);

}  // namespace vx
