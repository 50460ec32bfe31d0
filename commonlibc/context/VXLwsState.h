// Connections to the collector that run over libwebsockets: handles of those without a subsystem here.
//
// The other handles stand with their sockets: controlWsi, dataWsi, asWsi, discoveryWsi.
//
// Owner     Each connection has one owner thread, which alone makes, uses and ends it; other threads may test
//           the handle for null.
#pragma once

#include <atomic>

namespace vx {

struct VXLwsConnection;  // lws_connection.h

using VXLwsHandle = std::atomic<VXLwsConnection*>;  // null: no connection

struct VXLwsState_t {
    VXLwsHandle bulkDataWsi, logWsi;
};

}  // namespace vx
