// Who is told when the trace cannot be written: the disk is full, the folder is gone or not ours.
//
// Lines are dropped meanwhile. The first of such a time is told here; how many it were stands in the file
// behind it.
//
// Threads   Called by the thread that traces, with the trace's mutex held: the callee must not trace. Set
//           before the start.
#pragma once

namespace vx {

using VXTraceFailure = void (*)(const char* file, int systemError);
extern VXTraceFailure vxTraceFailure;  // null: nobody

}  // namespace vx
