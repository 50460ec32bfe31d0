// Header names of an instance and the ids that stand for them in records.
//
// A name gets its id when it is first asked for; rows and ids stay for the life of the instance. There is no
// map until somebody captures headers (initHttpHashMapNode).
//
// Limits    maxHeaderNames names; beyond them a header is left out, and that is traced once per run.
// Errors    Null where no row can be had: no map, an empty name, the ceiling, no memory.
// Threads   headerMutex inside, so that any may ask. All on the current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

inline constexpr std::int32_t kNoHttpHeader = -1;

// Makes the instance's map if it has none. The map, null without memory.
VXMap* initHttpHashMapNode();
// The row of a name; a name not seen before gets one. `map` is the instance's.
VXHttpHeader* searchAndUpdatehttpHashMapNode(const char* name, VXMap* map);
// Adds a row with the next id. headerMutex held.
VXHttpHeader* updateHttpHashMapNode(const char* name, VXMap* map);
// The id of a name that is there already, else kNoHttpHeader.
std::int32_t vxHttpHeaderId(const char* name);

}  // namespace vx
