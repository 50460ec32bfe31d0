// Keyword texts: the raw values of keyword rows whose subsystem takes them later.
//
// Limits    A value is cut at kKeywordTextSize - 1 bytes.
// Errors    Without memory the earlier value stays.
// Threads   Kept by the control thread, copied by any thread; the process's text mutex inside. All on the
//           current context.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr std::size_t kKeywordTextSize = 4096;  // terminator included

// Replaces the text of row `index`; an index outside the table and a null value are ignored.
void vxKeepKeywordText(int index, const char* value);
// Copy of the text that row `index` received last, cut at size - 1; its length, 0 when none was given
// (`out` is then empty).
int vxKeywordText(int index, char* out, std::int32_t size);

}  // namespace vx
