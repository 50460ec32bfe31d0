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
    std::uint8_t pending;     // place among the held files that go to their parsers behind the pass; 0: none
    std::uint8_t inForce;     // the parser has taken the content since the last start line
    std::uint8_t handedOver;  // for agents of type 4
    char keyword[32];         // as the pending line named it
};

// One per instrumentation profile of a line.
struct VXInstrProfRow_t {
    char name[kProfileNameSize];
    std::int64_t size, lmd;
    std::int64_t at, length;  // its part of the held text; length 0: it never came
    std::int32_t keywordIndex;
    std::uint8_t nameGiven, sizeGiven, lmdGiven;
};

struct VXFileState_t {
    kywdInfo_t kywdInfo[kKeywordRows];
    VXInstrProfRow_t* InstrProfTable;  // heap, instrProfRows of them; null: no profile line in this pass
    std::int32_t instrProfRows;
    std::int32_t instrProfCounter;   // the row being filled
    std::uint8_t profilesChanged;    // one of this line was fetched
    VXInstrProfRow_t* heldProfiles;  // heap: what the text in kywdInfo[55] consists of
    std::int32_t heldProfileCount;
    std::uint8_t pendingCount;
    std::uint8_t startPass;  // the keyword pass is over a start line
};

}  // namespace vx
