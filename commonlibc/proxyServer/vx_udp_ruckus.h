// Ruckus messages: what the collector wants the datagram clients of an instance to have for a while.
//
// They come as lines of the control connection and go to the clients as they are, fields apart by ";":
//
//     VexalineMessage 2.0;RKMID=7;duration=60;funcName=pay;vxAppServerHost=host7;action=start;
//     VexalineMessage 2.0;RKMID=7;action=stop;
//
// `duration` is in seconds. tierName, vxAppServerHost and agentName name attached clients, funcName and
// vxAppServerHost functions; a name that is left out fits all. A message is stored under its RKMID until its
// duration and 2 seconds have passed; new clients are given what is stored. Answers of agents, and the end,
// go to the collector: "VexalineMessage 2.0;RKMID=7;status=Success;".
//
// Limits    64 messages a context, 2,047 bytes each; names are cut like those of an identity.
// Threads   Any, on the current context. The map's mutex guards it, also while clients are sent to.
#pragma once

#include <cstdint>
#include <string_view>

#include "commonlibc/context/vx_application.h"

namespace vx {

// A line of the collector. Without an RKMID it is traced and dropped.
void HandleVexalineMessage(char* line);
// Sends the message to the clients it is for. `isNew` 1: it is stored, replacing what stands under its RKMID;
// 0: the stored one has ended, new clients are not given it any more.
void handleRuckusMsgforUDPClient(const char* message, int isNew);
// An agent's answer, passed on to the collector when its message is stored.
void record_ruckus_response_from_agent(std::string_view text);
// Tells the clients the context's index, then what is stored for them.
void send_ruckus_to_new_connected_agent(std::int32_t index);
// Answers a heartbeat, with what is stored behind it in one text.
void send_heart_beat_to_new_connected_agent();

// Drops what has outlived its duration at `nowMs` (steady).
void vxUdpExpireRuckus(std::int64_t nowMs);
void vxUdpFreeRuckus(vxApplication& app);

}  // namespace vx
