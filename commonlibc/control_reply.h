// The connect reply of the collector: received, judged, passed on to the agents.
//
// Errors    A verdict: kReplyGoOn, kReplyRefused (the connection is closed, unless a failed receive left
//           it to the read loop to find none) or kReplyChangeProtocol.
// Threads   Control thread of the instance; current context. Server.replyReceived is set under the message
//           mutex together with the count of processes to reach: who registers before is reached from
//           here, who registers later is told by the registration itself.
#pragma once

#include "commonlibc/context/VXControlState.h"

namespace vx {

inline constexpr int kReplyGoOn = 0, kReplyRefused = 1, kReplyChangeProtocol = 2;

// Receives until a newline is there (at most 20 s, and at most fileReadTimeout) and judges. TCP only.
int rec_control_con_rep_msg_from_vxc(ctrlBufInfo_t* info);
// Receives the same over libwebsockets, without judging. 0, or 1 when no reply came: the connection is
// closed.
int rec_control_conn_response_lws(ctrlBufInfo_t* info);
// Judges the bytes received so far: a heartbeat that came first, a SaaS answer, or the reply. A buffer that
// holds no more than a heartbeat is good; the reply then comes through the read loop.
int handle_vxc_con_res_msg(ctrlBufInfo_t* info);
// The same for one terminated line of the read loop.
bool isConnectReply(const char* line);
int handleConnectReply(char* line);

}  // namespace vx
