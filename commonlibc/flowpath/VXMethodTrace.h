// Method entry and exit: from a report by name to counts, blob items and monitors.
//
// An exit is taken only where an entry of the same method is open: exits of methods whose entry was
// filtered stay out. Nesting order is not checked.
//
// Threads   Under the decode lock. Hot path: one hash search under one method table lock and one append per
//           event, no allocation.
#pragma once

#include <cstddef>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Texts are terminated and borrowed for the call; methodNameLength is the name's.
struct VXMethodEntryArguments {
    const char* methodName;
    std::size_t methodNameLength;
    const char* url;
    const char* urlParameter;  // null: the flowpath's stay
    std::int64_t threadId;     // 0: the slot's (the Ex form takes it as it is)
    std::int64_t time;         // microseconds; below 1: now
    const char* queryParameter;
    int force;  // an item also where the flowpath is not captured
};
struct VXMethodExitArguments {
    const char* methodName;
    std::size_t methodNameLength;
    std::int64_t fpCPUTime;
    std::int32_t status;  // negative: keep the slot's
    const char* backendName;
    std::int64_t methodWallTime;  // microseconds
    std::int64_t threadId;        // 0: the slot's (the Ex form takes it as it is)
    std::int32_t calloutDone;
    const char* phase;
    std::int64_t endTime;  // microseconds; below 1: now
    int force;
};
int vxMethodEntry(vxTD* slot, const VXMethodEntryArguments& entry);  // 0
// `method` saves the search where it is known and the slot's method table is current. Null: not counted.
mPP* vxMethodEntryEx(mPP* method, vxTD* slot, const VXMethodEntryArguments& entry);
void vxMethodExit(vxTD* slot, const VXMethodExitArguments& exit);
void vxMethodExitEx(mPP* method, vxTD* slot, const VXMethodExitArguments& exit);

}  // namespace vx
