// Read loop of a control connection over a plain socket: lines in, liveness watched, heartbeats out.
//
// The loop runs until the connection ends. It polls for 10 s at a time, in steps of a second that look at
// the stop words; a poll without bytes is an idle round.
//
// Errors    1: the connection is to go (lost, silent, ordered closed, a late reply refused, the instance
//           stopped). 0: the instance's UDP agents have gone silent, or the service stops.
// Threads   Control thread of the instance; current context.
#pragma once

#include "commonlibc/context/VXControlState.h"

namespace vx {

void refreshBuild();                           // the build text of the next connect messages
int handle_msg_from_vxc(ctrlBufInfo_t* info);  // plain socket; 1 at once without one
int read_msg_from_vxc(ctrlBufInfo_t* info);    // one read and its lines; 1 ends the loop

}  // namespace vx
