// What libwebsockets calls back for a connection to the collector.
//
// Each callback moves bytes between the library and the connection's buffers, or changes its phase; nothing
// is ended from within. They run in a turn of the owner, or while it connects or ends.
//
// Threads   The connection's owner.
#pragma once

#include <libwebsockets.h>

namespace vx {

// The two protocols, by which a connection names its callback.
inline constexpr const char* kLwsRawProtocol = "VX_tcp";
inline constexpr const char* kLwsWsProtocol = "VX_ws";
extern const lws_protocols kLwsProtocols[];

}  // namespace vx
