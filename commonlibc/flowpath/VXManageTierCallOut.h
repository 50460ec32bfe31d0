// Tier callouts: the chain that ties a flowpath to its caller, and the callers that were announced.
//
// A chain is text with fields at "_": 0 the caller's flowpath, 1 its time, 2 the sequence there, 3 the
// caller's id ("NA": not to be announced), 6 to 8 its tier, instance and server names; others are not read.
// A caller is met for the first time when the text of its fields 3, 6, 7 and 8 is; then a 91 record names
// it, once in the life of the instance; when there is no room for that record, its next flowpath brings it.
//
// Limits    A field of the 91 record and the sequence are cut at 1,023 bytes, a caller's text at 4,095.
// maxCallers callers;
//           beyond them none is announced, and that is traced once per run. A caller takes its text and a
//           map entry.
// Threads   Under the decode lock.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Takes the chain text apart in place. 0, or -1: with fewer than 4 fields the slot is unchanged, with an
// empty field 1 it keeps prevFlowpath.
int setTierCallOut(vxTD* slot, char* chainText);

// What a 91 record tells of a caller, decoded.
struct VXCaller {
    const char *id, *tier, *instance, *server;
};
[[nodiscard]] bool dumpRecord91(const VXCaller& caller);  // false: there was no room

}  // namespace vx
