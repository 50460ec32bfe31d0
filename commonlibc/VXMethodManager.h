// Method table: for every method name that agents report, what the method is to this system.
//
// The map is keyed by the method's name; a back-end's name is its prefix and the back-end's own name
// ("HTTP_host"). Ids count from 1 and never change, and records stay for the life of the instance. A method
// is described to the collector by its 5 record when it is first used while a data thread runs, or, when
// there was no room for that record, with a later use; what was written before the stream stands is repeated
// by the replay.
//
// Limits    A name is cut at 1,023 bytes. Named back-ends: maxIPCount, then "Others" takes the rest.
//           Records: maxMethods; beyond it none is made, traced once in a run. The fixed records are made
//           all the same.
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
// The node, made if absent; null without memory. Lock held.
methodHashMapNode_t* vxMethodTable();
// The pseudo-method at the start of every transaction, and the entry of database calls without a name:
// found or made, and described. Lock held.
mPP* vxFixBeginRequest(methodHashMapNode_t* table);
mPP* vxFixSqlDb(methodHashMapNode_t* table);
// The record or null. vxFindMethod knows the length and is the one for the path of a record.
mPP* getMethodPropFromMethodName(const char* name);
mPP* vxFindMethod(const char* name, std::size_t length);
// The same in a table. Lock held.
mPP* vxSearchMethod(const methodHashMapNode_t* table, const char* name);
// The record of a reported method, made if the name is new (searchAndUpdateMethodHashMap of type 0): for the
// path of a record. `name` is terminated.
mPP* vxFindOrAddMethod(methodHashMapNode_t* table, const char* name, std::size_t length);
// A new record with the next id (type 6: the id behind that one), not yet in the map; null beyond the
// ceiling. Lock held.
mPP* vxNewMethod(const char* name, std::uint8_t type, std::uint8_t subtype);
// Puts a new record into the map, under its name. Lock held.
void vxFileMethod(mPP* method, VXMap* map);
// A new record whose 5 record goes out when a data thread runs; not yet in the map. Lock held.
mPP* createAndDumpMethodHashMap(const char* name, std::uint8_t type, std::uint8_t subtype);
// The same, and inserted under its name.
mPP* updateMethodHashMap(const char* name, std::uint8_t type, VXMap* map, std::uint8_t subtype);
// Back-end half of the method table: finds or creates by (type, subtype, name); null where its kind needs a
// name and has none. updateFlag 1 counts a new back-end against maxIPCount. Every back-end it answers has a
// slot in the back-end monitor.
mPP* searchAndUpdateMethodHashMap(const char* name, methodHashMapNode_t* table, int updateFlag,
                                  std::uint8_t type, std::uint8_t subtype);
// Values of usedFlag.
inline constexpr std::uint32_t kMethodUsed = 1, kMethodUntold = 2;
// usedFlag := 1; the change to it writes the 5 record while a data thread runs, and kMethodUntold stays where
// there was no room for that.
void announceMethod(mPP* method);
inline void markMethodUsed(mPP* method) {
    if (method->usedFlag.load(std::memory_order_relaxed) != kMethodUsed) announceMethod(method);
}
// A long name is cut in front of the id. False when there was no room for the record.
[[nodiscard]] bool dumpMetataFor5Record(const char* name, std::uint32_t methodId);
// References of flowpaths on the table.
void takeMethodTable(vxTD* slot);
void releaseMethodTable(vxTD* slot);

}  // namespace vx
