// Reroute: the collector hands the instance to another collector.
//
//     vx_control_req:action=reroute_ctrl_con;vxcHost=H;vxcPort=P;tier=T;server=S;instance=I;clusterMode=0
//
// "ALL" (case ignored), like a key that is missing and a value that is not valid, leaves what is there; a
// new host without a port has port 443. With cluster mode 0 the target becomes the master and stands in
// the settings file from now on, otherwise it is the backup of this process's life. Then the run ends and
// the connection is closed; the next connect message tells of the reroute.
//
// Limits    10 fields.
// Errors    A line without fields is traced and changes nothing.
// Threads   Control thread of the instance; current context.
#pragma once

namespace vx {

inline constexpr int kRequestReroute = 2;  // requestType of the next connect message

// The whole order; the line is taken apart.
void handleReroute(char* line);
// Takes the line's values over. False, and nothing taken, when it has no fields.
bool parseReRouteMessageAndUpdateClientInfo(char* line);

}  // namespace vx
