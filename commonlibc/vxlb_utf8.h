// What is UTF-8: for messages that a peer may close on when they are said to be text and are not.
//
// Threads   Any; no state.
#pragma once

#include <cstddef>

namespace vx {

// True for whole sequences only: none overlong, none outside of Unicode, none of half a pair.
bool vxlb_is_utf8(const char* text, std::size_t length);

}  // namespace vx
