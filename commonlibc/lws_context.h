// Contexts of libwebsockets: made and ended one at a time, with one set-up of TLS for the process.
//
// Each connection has a context of its own, which its owner thread services; a context ends with its
// connection, so that nothing of one is left to the next. The set-up of TLS belongs to the first context,
// which stays: a second set-up would break handshakes under way elsewhere.
//
// Limits    A context holds kLwsDescriptors descriptors unless the creation block says otherwise: the
//           library's own choice takes megabytes for each.
// Threads   Any. A process-wide mutex guards making and ending.
#pragma once

#include <libwebsockets.h>

namespace vx {

inline constexpr unsigned kLwsDescriptors = 16;

// A context with one virtual host (`vhost`), by the creation block, whose options are those of the virtual
// host. Errors and warnings of the library go to the trace log. Null, with nothing left over, when either
// could not be made.
lws_context* vxMakeLwsContext(lws_context_creation_info info, lws_vhost** vhost);
// Ends its connections and the context. Not from within a callback; null is passed over.
void vxEndLwsContext(lws_context* context);

}  // namespace vx
