// Slot pool: slots come in blocks of 64 and move between the process's free stack and the busy list of an
// instance (oldest first).
//
//     free   gFreeTLSHead -> free_next -> ...                      last released, first taken: few are warm
//     busy   gBusyTLSHead <-> busy_next/busy_prev <-> gBusyTLSTail  one per instance
//
// Limits    maxSlots slots in flight in all instances together; blocks are made when the free stack is empty
//           and never freed. A block is one zeroed piece of which only the first page of each slot is
//           written here.
// Errors    At the ceiling (traced once per run) and without memory (traced) there is no slot; what exists
//           goes on.
// Threads   The mutexes inside; held for pointer work only. All on the current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Puts the 64 slots of a new block on the free stack. The first of them, null without memory.
vxTD* create_tls_pool(std::int32_t busyCount);
// Takes a slot: on the busy list, inUse 1, contents as the last reset left them. Null at the ceiling and
// without memory.
vxTD* get_free_tls_slot();
void free_tls_slot(vxTD* slot);  // a second release is traced and ignored
void initVXManageTIdToTLocal();  // agent-side builds only; nothing in the service
void vxFreeSlotPools();          // releases all blocks, none of them in use (tests only)

}  // namespace vx
