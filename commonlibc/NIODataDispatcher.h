// Auto-sensor channel of an instance: the buffer chain of the monitor records.
//
// The chain has the shape of the data channel's and its rules (VXDataDispatcher.h); it begins with a few
// large nodes and grows by need, from dumpASData alone.
//
// Limits    ASDataBufferMinCount nodes of ASDataBufferSize bytes at the start and with each step, at most
//           ASDataBufferMaxCount in all. Sizes and counts below 1 count as the defaults (2, 262,144, 16).
// Losses    As in the data channel: each line counts once as accepted or dropped in the chain.
// Lifetime  The chain outlives its threads; what a former run left is thrown away, and counted, by
//           vxDiscardChain() at the start of the next.
// Threads   dumpASData any; the others as their locks say. All on the current context.
#pragma once

#include <cstdint>

#include "commonlibc/context/vx_application.h"

namespace vx {

// The one entry for producers: any bytes that end in a newline. 0 copied; 1 dropped (no room and no more
// buffers, no data, no run).
int dumpASData(const char* data, std::int64_t length);
// The same in two halves, for a caller that can make room: 0 copied and counted, below 0 a code of
// VXDataDispatcher.h (kChainCut: its beginning is stored, no second attempt); and the count of a record that
// is given up.
int vxTryDumpAS(const char* data, std::int64_t length);
void vxRefuseAS(const char* data, std::int64_t length);
// Copies into the node being written; dumpMutex held, nothing counted. 0 or a code of VXDataDispatcher.h.
int addDataInASSendBuffer(const char* data, std::int64_t length);
// Makes sure that there is a node to write: 0 when there is one, 1 without memory, 2 when no more are
// allowed.
int buff_list_init_as();
void moveToASReadList();   // dumpMutex held
void moveToASWriteList();  // sender; the node is empty
// Hands the node being written to the sender if it holds anything.
void moveCommonPartialToReadList();

}  // namespace vx
