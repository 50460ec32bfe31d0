// The end of all flowpaths at once: the end of a run, and what a new run finds left over.
//
// Threads   Take the decode lock for one slot at a time, so that a decoding thread waits for one slot at
//           most. All on the current context.
#pragma once

namespace vx {

// Ends all flowpaths that are busy now, oldest first, then flushCommonData().
void dumpFpFromBusyList();
// Resets all busy slots without records, clears the map and what the former run has told of full tables
// (Start).
void vxDropBusyList();

}  // namespace vx
