// What is UTF-8: for messages that a peer may close on when they are said to be text and are not, and for
// texts that editors have saved.
//
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <string_view>

namespace vx {

// True for whole sequences only: none overlong, none outside of Unicode, none of half a pair.
bool vxlb_is_utf8(const char* text, std::size_t length);
// Bytes of the byte order mark that an editor has put in front of a text: 3, or 0 where there is none.
std::size_t vxlb_mark_length(std::string_view text) noexcept;

}  // namespace vx
