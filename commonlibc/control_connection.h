// The control connection: its buffer, making it, announcing on it, its heartbeats, its end.
//
// The connection runs over a plain socket, or over libwebsockets where lws_active is set.
//
// Limits    The read buffer has kControlBufSize bytes and a terminator for the life of the instance. A
//           connect takes at most 10 s; a send that is not taken within 10 s has failed.
// Lifetime  A socket lives in the pool given to create_control_conn() and is closed before that pool ends.
// Threads   Control thread of the instance; current context.
#pragma once

#include <apr_pools.h>

#include "commonlibc/context/vx_application.h"

namespace vx {

// The instance or the service is to end, or its datagram clients are silent: no further connection is made.
inline bool linkStopAsked(const vxApplication& app) noexcept {
    return app.control.proxyStopRequested != 0 || proxyStopFlag != 0 || app.identity.udpTimeoutFlag != 0;
}

// A connection stands, over whichever transport.
inline bool controlConnected(const VXControlState_t& control) noexcept {
    return control.controlSocket.get() || control.controlWsi.load(std::memory_order_acquire);
}

// The unread bytes of the buffer, terminated: info.readBytes of them.
inline char* unreadBytes(ctrlBufInfo_t* info) noexcept {
    return info->read_socket_buf + info->readOffset;
}
void controlSockBufInit(vxApplication& app);   // (re)allocates the read buffer and empties it
void controlSockBufReset(vxApplication& app);  // empties it

// Makes the connection to an endpoint. True when it stands; else the reason is in `error` (kSockErrorSize
// bytes). An empty host or a port below 1 fails without a connect call.
bool create_control_conn(const VXCollectorRecord& endpoint, apr_pool_t* pool, char* error);
bool send_control_con_req_msg_to_vxc();  // false on success
void send_control_conn_heartbeat_to_vxc();
// Both ends' addresses, for trace and for what other connections announce.
void get_ip_and_port();
// Notes destination and time of the connection, as the next connect message tells them.
void noteConnection(vxApplication& app);
// Transport and port of the active record by ActiveAgentProtocolIndex.
void setConnectionChannel();
// Closes the connection, over whichever transport, and nothing else; without one it does nothing.
void closeControlConnection(vxApplication& app);
// Closes the connection and ends the run: dumpData discards from here on, the threads stop by themselves.
void control_connection_cleanup();

}  // namespace vx
