// Method table: for every method name that agents report, what the method is to this system.
//
// The map is keyed by the method's name; a back-end's name is its prefix and the back-end's own name
// ("HTTP_host"). Ids count from 1 and never change, and records stay for the life of the instance. A method
// is described to the collector by its 5 record when it is first used while a data thread runs; what was
// written before the stream stands is repeated by the replay.
//
// Limits    Named back-ends: maxIPCount, then "Others" takes the rest.
// Errors    Null where no record can be had; a failed allocation leaves the map as it was.
// Threads   Method table lock (VXMethodLock) around every access to the map; functions take it unless
//           "held" is said. See VXMethodState.h. All on the current context.
#pragma once

#include <cstddef>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_guard.h"

namespace vx {

// Holds the method table lock of the current context (getMethodHashMapLock, releaseMethodHashMapLock).
class VXMethodLock {
public:
    VXMethodLock() : guard_(vxCurrent()->method.mapMutex) {}

private:
    VXGuard guard_;
};

// Makes node and map if absent, the pseudo-method and "DB_SQLDB"; sets the ready flag.
void hashMapForAgent();
// The record or null. vxFindMethod knows the length and is the one for the path of a record.
mPP* getMethodPropFromMethodName(const char* name);
mPP* vxFindMethod(const char* name, std::size_t length);
// The record of a reported method, made if the name is new (searchAndUpdateMethodHashMap of type 0): for the
// path of a record. `name` is terminated.
mPP* vxFindOrAddMethod(methodHashMapNode_t* table, const char* name, std::size_t length);
// A new record with the next id; its 5 record goes out when a data thread runs. Lock held. Type 6 takes the
// id behind that one, and the caller raises the counter past it.
mPP* createAndDumpMethodHashMap(const char* name, std::uint8_t type, std::uint8_t subtype);
// The same, and inserted under its name.
mPP* updateMethodHashMap(const char* name, std::uint8_t type, VXMap* map, std::uint8_t subtype);
// Back-end half of the method table: finds or creates by (type, subtype, name); null where type 1 has no
// name. updateFlag 1 counts a new back-end against maxIPCount.
mPP* searchAndUpdateMethodHashMap(const char* name, methodHashMapNode_t* table, int updateFlag,
                                  std::uint8_t type, std::uint8_t subtype);
// usedFlag := 1; the change from 0 writes the 5 record while a data thread runs.
void announceMethod(mPP* method);
inline void markMethodUsed(mPP* method) {
    if (method->usedFlag.load(std::memory_order_relaxed) == 0) announceMethod(method);
}
void dumpMetataFor5Record(const mPP* method);
// References of flowpaths on the table.
void takeMethodTable(vxTD* slot);
void releaseMethodTable(vxTD* slot);
// Callout table: sets type, subtype and flag bits by the text of an entry line; an unknown text changes
// nothing. `value` is the log level of "CUSTOM_LOG". Always 0.
int updateEntryMap(mPP* method, const char* calloutText, int value);
// Before a text is read again, by kind of text: 1 profile, 2 method monitor, 3 entry points. Lock held.
void resetmethodHashMapNode(methodHashMapNode_t* node, int kind);

}  // namespace vx
