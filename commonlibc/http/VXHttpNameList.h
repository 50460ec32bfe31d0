// Lists of header names, as a setting gives them.
//
// Names are compared without regard to case, as HTTP does. A list is one heap block; zero-filled is empty.
//
// Limits    kMaxListedNames names of at most kHeaderNameMax bytes; others are left out, with a trace line.
// Errors    Without memory a list cannot be made; the one in force stays.
// Threads   A list is only read while it is in force; who replaces it frees the former one.
#pragma once

#include <cstddef>

#include "commonlibc/context/VXHttpState.h"

namespace vx {

inline constexpr int kMaxListedNames = 1024;
inline constexpr std::size_t kHeaderNameMax = 255;  // bytes

// Names gathered for a list; they belong to the text that they stand in.
struct VXGatheredNames {
    char* names[kMaxListedNames];
    int count;
};
// Adds a name, with the blanks around it taken off; an empty one is passed over.
void vxGatherName(VXGatheredNames& gathered, char* name);
// Makes `list` of them. False without memory, and `list` is unchanged.
bool vxMakeNameList(VXHttpNameList& list, VXGatheredNames& gathered);
bool vxNameListed(const VXHttpNameList& list, const char* name);
void vxFreeNameList(VXHttpNameList& list);

}  // namespace vx
