// Keyword table: from a key of a collector line to the field or the parser it belongs to.
//
// One constant row per keyword. A row either names a parser, which gets (value, keyword, index), or a
// setter for its target structure of the current context together with a typed fill; the setter writes
// `length` bytes at `offset`. The order of the rows is settled: file keywords are told apart by index.
//
// Errors    An unknown name has the index -1. A value that does not parse counts as 0.
// Threads   Rows are applied by the control thread; what they store is read by any thread (see the typed
//           fills and the context headers). All on the current context.
#pragma once

#include <cstdint>

#include "commonlibc/VXKeywordText.h"

namespace vx {

struct VXKeywordRow {
    char name[32];
    std::int32_t offset;  // of the member in its structure, -1 when a parser handles the row
    std::int32_t length;  // bytes to write
    void (*parser)(char* value, const char* keyword, int index);
    void (*setter)(int index, const char* value);
    void (*fill)(void* target, const char* value, std::int32_t length);
};
extern const VXKeywordRow keywordsMap[];

int NameToIndex(const char* keyword);  // -1 when absent; case matters
// Applies a value to row `index`: its parser, else its setter. `value` may be taken apart in place.
void vxApplyKeyword(int index, char* value, const char* keyword);
// The defaults of what a start line sets for one run; trace levels, ids and what the settings file gives
// stay as they are.
void vxlb_init_all_keywords();
void setdefaultValues();  // the same, where an instance stops

}  // namespace vx
