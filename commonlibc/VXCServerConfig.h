// The collectors an instance may use: records, choice of the active one, retry policy, failover.
//
// Record 0 is the master, record 1 the backup (or the target of a reroute); the records behind them stay
// empty. `activeVXC` is the record of the connection at hand, `activeVXCIndex` the one that the next choice
// starts from.
//
// Each record is reached over a protocol of its own: the first of the configured ones, until its collector's
// reply names another. So the way back from a backup that speaks TCP leads over the master's WSS again.
//
// Errors    An index outside the array answers a zeroed record and changes nothing.
// Threads   Records are copied under the collectors' mutex; choosing is the control thread's.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Makes the array (five zeroed records) if missing, or grows an empty one.
void vxMakeCollectorArray(vxApplication& app);
// Copy of the record at activeVXCIndex; a zeroed record when there is none.
VXCollectorRecord get_active_vxc();
// Copy of the record of the connection at hand (activeVXC), where an instance's other connections go, too;
// before the first choice, of the one that the choice starts from.
VXCollectorRecord vxCollectorInUse();
// Copy of record `index`; zeroed outside the array.
VXCollectorRecord vxCollectorAt(int index);
inline constexpr int kLeavePort = -1;
// Host and port of record 0 (primary) and record 1 (backup). A null host leaves the host, an empty one
// takes it away; kLeavePort leaves the port.
void setPrimaryVXC(const char* host, int port);
void setBackupVXC(const char* host, int port);
void vxSetCollectorPort(int index, int port);
// Its collector's reply named this protocol, or it is reached over the one in use: from now on over that one,
// at the protocol's port (`port` above 0).
void vxSetCollectorProtocol(int index, int protocol, int port);
// Nothing is reached any more at the record in use: back to the configured protocol and the given port, where
// negotiation had changed them, and for a master that the service endpoint had named, to that endpoint.
void vxForgetNegotiated();
void vxSetCollectorSaas(int index, int isSaas, const char* host);
// Marks `index` as the record in use (state 1, activeVXC) or clears its state.
void vxSetCollectorState(int index, int state);
// At the end of a settings pass, which also makes every record one to be reached as configured: record 0
// takes vxcHost and the active protocol's port (vxcPort where no protocol list was given; in SaaS mode the
// SaaS host and port), record 1 stays the backup, num_vxc_config counts the records with a host, dr_enabled
// follows record 1.
void vxFinishCollectorRecords();
// Chooses the endpoint of a connect attempt, marks it and makes its protocol the one in use. Copy of the
// record. `limitHit`: the retry limit was reached.
VXCollectorRecord vxChooseEndpoint(bool limitHit);
// The same for the record in use, whose collector named another protocol: none is chosen.
VXCollectorRecord vxKeepEndpoint();
void lookup_for_next_vxc();
void connection_retry_failed();
void clear_vxc_server_setting();
// Reads state, retryPolicy and ProtoVersion of a connect reply (the first five fields, at most 512 bytes).
// 0, or 1 when the reply is refused. A number below 1 in the policy keeps the former value.
int parse_policy_from_clientMsg(const char* buffer);

}  // namespace vx
