// One connection of a channel to the collector: opening, the connect line, closing in good order. A TCP
// socket is opened here; one over libwebsockets by its kind (lws_handler.h).
//
// Limits    A connect takes at most 10 s. A send waits at most the link's time; vxSendAll sends again as long
//           as nobody asks for a stop.
// Lifetime  Each connect attempt has a pool of its own, destroyed with the attempt or its connection.
// Threads   The thread that owns the connection. Others may test the handle for null and shut it down.
#pragma once

#include <cstdint>

#include "commonlibc/context/vx_application.h"

namespace vx {

// What a channel lends: its handles, the pool of the present connection and the pool above that.
struct VXDataLink {
    VXSharedSocket& socket;
    VXLwsHandle& wsi;
    apr_pool_t*& pool;
    apr_pool_t* parent;
};

// Connects; sends on the socket then wait at most `sendTimeUs`. False with the reason in `error`
// (kSockErrorSize bytes).
bool vxOpenLink(VXDataLink link, const VXCollectorRecord& collector, std::int64_t sendTimeUs, char* error);
// Sends everything, as long as `stop` answers false between two sends. False when it could not.
bool vxSendAll(apr_socket_t* socket, const char* data, std::int64_t length, bool (*stop)());
// Closes the connection and puts what has not arrived back to the front of the chain. The time until
// `untilUs` (steady) is used for what is on its way; a connection that is broken has nothing to wait for.
void vxCloseLink(VXDataLink link, VXBufferChain& chain, std::int64_t untilUs);

}  // namespace vx
