// Header names of an instance and the ids that stand for them in records.
//
// A name gets its id when it is first asked for; rows and ids stay for the life of the instance. There is no
// map until somebody captures headers (initHttpHashMapNode). Values that are written as ids have their rows
// in the same map.
//
//     6,<id>,<name>      with the first use on a data connection, and again by the replay
//
// Limits    maxHeaderNames rows of at most kHeaderNameMax bytes; beyond them a header is left out, and that
//           is traced once per run. New values take no more than half of the rows, so that a header whose
//           values never repeat leaves room for names.
// Errors    Null where no row can be had: no map, an empty or too long name, the ceiling, no memory.
// Threads   headerMutex inside, so that any may ask; rows are made under the decode lock. Current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

inline constexpr std::int32_t kNoHttpHeader = -1;

// Makes the instance's map if it has none. The map, null without memory.
VXMap* initHttpHashMapNode();
// The row of a name; a name not seen before gets one. `map` is the instance's.
VXHttpHeader* searchAndUpdatehttpHashMapNode(const char* name, VXMap* map);
// The same for a value; null, too, where a new one would take a row from the names.
VXHttpHeader* vxHttpValueRow(const char* value, VXMap* map);
// Adds a row with the next id. headerMutex held.
VXHttpHeader* updateHttpHashMapNode(const char* name, VXMap* map);
// The id of a name that is there already, announced, else kNoHttpHeader.
std::int32_t vxHttpHeaderId(const char* name);

// Tells the collector what the row's id stands for, unless it knows. What finds no room is told with the
// next use; what is used before a data connection stands is told by the replay.
void announceHttpHeader(VXHttpHeader* header);
// Writes the 6 record. False where there is no room for it.
bool dumpHttpHeaderName(const char* name, std::int32_t id);
// A new data connection knows no name.
void clearHeaderMetaDataFlags();

}  // namespace vx
