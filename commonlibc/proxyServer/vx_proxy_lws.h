// Listener for agents over WebSocket (WS) or WebSocket over TLS (WSS): the main loop of the process in place
// of that over sockets, when the settings say so.
//
//     turn of the library (callbacks) -> connections made ready -> thread operations -> losses -> turn ...
//
// Registration, orders and records are those of the other listener; only reading and sending differ. The
// library is called on this thread alone; others append to send blocks and wake it.
//
// Limits    kPollsetSize connections, those within their handshake included; one more is closed at once. A
//           handshake has 20 s.
// Stop      proxyStopFlag and vxWakeListener(): the loop ends, and all connections with it.
// Errors    A port that cannot be bound, or a certificate that cannot be used, is tried again every 10 s.
// Threads   The listener (the service's worker).
#pragma once

namespace vx {

// Runs until proxyStopFlag is set, on the root context.
void vxProxyInitLws();
// Makes the listening context; 0, else the reason is traced. Port 0 takes a free one.
int create_proxy_server(int port);

}  // namespace vx
