// What libwebsockets calls back for connections of agents.
//
//     ESTABLISHED -> messages of lines, whole -> registered -> lines, or bytes of the record stream -> CLOSED
//
// A message of lines is handled when it is whole, in whatever parts it comes; a line does not go on in the
// next message. What comes on a data or a discovery connection is a stream: its messages are not told apart.
// What waits for an agent goes out at WRITEABLE.
//
// Limits    A message of lines has at most kMaxMessage bytes. A connection that has not registered after
//           kUnknownSeconds is closed, and so is one that takes nothing of what waits for kSlowSeconds.
// Threads   The listener, in its turn of the library.
#pragma once

#include <libwebsockets.h>

namespace vx {

inline constexpr int kUnknownSeconds = 30;
inline constexpr int kSlowSeconds = 60;

// "VX_ws", "raw_control" and "ws_control"; a peer that names none gets the first. Behind them the listening
// descriptor's.
extern const lws_protocols kAgentProtocols[];

int callback_proxy_ws(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len);
// Logs and serves nobody.
int callback_proxy_raw(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len);

// Looks at the connections that others have made ready: has their messages written, closes the overfull.
void vxServeReadyWebSockets();

}  // namespace vx
