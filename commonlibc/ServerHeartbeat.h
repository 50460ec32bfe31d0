// Heartbeat of the collector: the pulse goes on to the agents, connection states are taken over.
//
// Threads   Control thread of the instance; current context.
#pragma once

namespace vx {

inline constexpr const char* kHeartbeatPrefix = "vx_control_req:action=reconnect;";

// A heartbeat line in the read loop. Fewer than 3 fields carry no states.
void handleHeartbeat(char* line);
// Takes "dataConnState" and "AutosensorConnState" of a line, which is taken apart. A zero orders the
// connection closed. False, and nothing taken, when the line has fewer than 3 fields.
bool takeConnectionStates(char* line);

}  // namespace vx
