// A slot's life between transactions: reset, and the map entry that finds it.
//
// The map points at the key that the slot owns (filedKey), so an entry never outlives its key: whatever
// empties a slot removes its entry first.
//
//     startFP -> vxFileSlot -> vxFindSlot for each message -> vxUnfileSlot, resetAllThreadLocals -> free
//
// Limits    A key is cut at 63 characters.
// Threads   Under the decode lock. All on the current context.
#pragma once

#include <cstddef>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Every field to zero or null except links, inUse, tlsIdx, tlThreadId, mutexes and the monitor block; then
// statusCode 200, startArgument -1. Gives back the method table reference and the map entry. Of big texts
// only the first byte is cleared, and of the counters only pages that were used.
void resetAllThreadLocals(vxTD* slot);
// Files the slot under `key` in fpi_tls_map (the slot owns the copy). A slot filed there already is reset
// and given back first, without records. An empty key, and a context without a map, file nothing.
void vxFileSlot(vxTD* slot, const char* key);
// Removes the slot's entry if the map holds this slot under it.
void vxUnfileSlot(vxTD* slot);
// The slot filed under the key (it need not be terminated) or null.
vxTD* vxFindSlot(const char* key, std::size_t length);

}  // namespace vx
