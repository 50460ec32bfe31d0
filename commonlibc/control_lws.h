// Read loop of a control connection over libwebsockets, and the choice between the loops: as control_loop.h,
// with a watch of its own over the collector's liveness.
//
// A round waits 10 s, in steps of a second that look at the stop words. Behind heartBeatRounds rounds without
// bytes a heartbeat goes out, whether there is a backup or not. The connection is given up with
// heartBeatMissCount heartbeats unanswered for more than 60 s, or after 600 s of silence.
//
// Errors    1: the connection is to go. 0: the instance's UDP agents have gone silent, or the service stops.
// Threads   Control thread of the instance; current context.
#pragma once

#include "commonlibc/context/VXControlState.h"

namespace vx {

// The loop of the transport in use.
int handle_msg_from_vxc_lws(ctrlBufInfo_t* info);
int start_control_connection_service(ctrlBufInfo_t* info);
// One read of what has come, and its lines; 1 ends the loop.
int process_message_from_vxc(ctrlBufInfo_t* info);

}  // namespace vx
