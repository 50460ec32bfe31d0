// Accepting agents for libwebsockets: the listening socket is ours and stands among the library's
// descriptors; what it brings is handed to the library.
//
// The library's own listening goes round without a pause while the process is out of descriptors. Here
// accepting then rests for a second at a time.
//
// Limits    As many connections as the context has descriptors; one more is closed at once.
// Threads   The listener.
#pragma once

#include <libwebsockets.h>

namespace vx {

inline constexpr const char* kAcceptProtocol = "accept";

// Has the library poll a copy of the listening descriptor. False when that is not possible.
bool vxLwsListen(lws_vhost* vhost, int listening);
// Nobody is served by this one.
int callback_proxy_accept(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len);

}  // namespace vx
