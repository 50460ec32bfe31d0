// The registry: instances, and under each instance its agent processes.
//
//     VXProxyInstance -> [0: root][1: instance][2: instance][ ]...      appIndex
//                              |
//                              +-> processInfo -> [0][1][2][ ]...       procIndex
//                                                  |  one record each, which never moves
//                                                  +-> control, data, auto-sensor, discovery socket
//
// An instance is never removed. A process record is free when its pid is -1; the first free one is taken
// again before a new one. Records are made when they are first used.
//
// Limits    32 instances, then 16 more each time; 500 processes an instance, grown ten before they are full
//           (at 490, 990, ... records by 510 more than are used). The ceilings maxInstances and maxProcesses
//           are the registration's to keep.
// Lifetime  A table that is replaced stays allocated: other threads may still read it.
// Threads   Written by the listener alone. Others read published tables (see vx_application.h).
#pragma once

#include <apr_network_io.h>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/proxyServer/vx_proxy_registration_line.h"

namespace vx {

inline constexpr std::int64_t kFreePid = -1;

enum class VXConnection : std::uint8_t { kControl, kData, kAutoSensor, kDiscovery, kCount };

// Makes both tables of contexts, VXProxy.instanceTableSize slots each; tables of that size that never held an
// instance are kept, with the root. False without memory.
bool vxMakeInstanceTables();
// Index of the first empty slot; both tables grow when there is none. -1 without memory.
std::int32_t vxFreeInstanceSlot();

// Prepares a fresh context: identity buffers, empty maps, counts 0. False without memory.
bool setVXProxyInstance(vxApplication& instance);
// Identity of the line, table and first record of processes (`singleBlock` 1: a table of one). False without
// memory.
bool populateVXProxyInstance(vxApplication& instance, const kwLocalStruct& line, std::int32_t index,
                             int singleBlock);
// Record `procIndex`, made if it was never used. Null without memory, and beyond the table.
processInfo_t* vxProcessRecord(vxApplication& instance, std::int32_t procIndex);
// Replaces the table of processes by a longer one when it is due. False without memory.
bool vxGrowProcessTable(vxApplication& instance);
// Index of the record with that pid, else -1.
std::int32_t vxFindProcess(const vxApplication& instance, std::int64_t pid);

// Puts a connection's socket, or its WebSocket, into its record, closing the one that stood there.
void vxAttachSocket(processInfo_t& process, VXConnection kind, apr_socket_t* socket,
                    VXAgentWs* wsi = nullptr);
bool vxConnectionStands(const processInfo_t& process, VXConnection kind);
// Closes a connection of the record, if it stands, and what belongs to it.
void vxCloseConnection(processInfo_t& process, VXConnection kind, bool removeFromPoll);
// Which connection of the record the socket or WebSocket is; kCount: none.
VXConnection vxConnectionOf(const processInfo_t& process, const apr_socket_t* socket,
                            const VXAgentWs* wsi = nullptr);
// Closes control, data and auto-sensor connection and frees the record. The discovery connection stays, and
// so does for a moment a data connection over WebSocket, which may have records on their way; the count of
// active processes is the caller's.
void closeAllConnectionsOfProcess(std::int32_t appIndex, std::int32_t procIndex);

// Process end: frees the identity strings of one instance, and of all whose threads have ended.
void freeclientdata(vxApplication& instance);
void proxyMemClean();

}  // namespace vx
