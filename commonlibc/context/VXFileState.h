// Files that the collector hands out: what an instance holds of them.
//
// Owner     The control thread.
// Lifetime  As the instance: names, sizes and dates survive a stop, so that an unchanged file is not asked
//           for again.
#pragma once

#include <cstddef>
#include <cstdint>

#include "commonlibc/context/VXKeywordState.h"

namespace vx {

inline constexpr std::size_t kFileNameSize = 2048;
inline constexpr std::size_t kProfileNameSize = 1025;
inline constexpr std::int64_t kMaxFileSize = 64 * 1024 * 1024;

// One per row of the keyword table.
struct kywdInfo_t {
    char fileName[kFileNameSize];
    char* content;  // heap, size + 1 bytes, terminated; null: none
    std::int64_t lmd;
    std::int64_t size;
    std::uint8_t parsed;  // its content went to its parser in this pass
};

// One per instrumentation profile of a line.
struct VXInstrProfRow_t {
    char name[kProfileNameSize];
    std::int64_t size, lmd;
    std::int32_t keywordIndex;
    std::uint8_t nameGiven, sizeGiven, lmdGiven;
};

struct VXFileState_t {
    kywdInfo_t kywdInfo[kKeywordRows];
    VXInstrProfRow_t* InstrProfTable;  // heap, instrProfRows of them; null: no profile line in this pass
    std::int32_t instrProfRows;
    std::int32_t instrProfCounter;  // the row being filled
    std::uint8_t startPass;         // the keyword pass is over a start line
};

}  // namespace vx
