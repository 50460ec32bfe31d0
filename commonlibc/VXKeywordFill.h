// Typed fills: from a keyword's text to a member of the row's width.
//
// Numbers are stored through the helpers for shared words, texts under the process's text mutex, so that
// any thread may read the member meanwhile.
//
// Limits    `length` is the width of the member: 1, 2 or 4 for fill_int_data, 8 for the longer numbers; any
//           other width stores nothing.
// Threads   Control thread.
#pragma once

#include <cstdint>

namespace vx {

void fill_int_data(void* target, const char* value, std::int32_t length);  // the low bytes of the number
void fill_long_long_data(void* target, const char* value, std::int32_t length);
void fill_double_data(void* target, const char* value, std::int32_t length);
// What the value holds, zeros behind it; a member longer than one byte always ends in a zero.
void fill_char_data(void* target, const char* value, std::int32_t length);

}  // namespace vx
