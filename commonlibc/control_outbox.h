// Outbox of the control connection: texts for the collector that other threads leave.
//
//     listener --vxOutboxPut--> [text][text]... --vxOutboxSend--> collector      (the control thread's loop)
//
// The control thread, which owns the connection, alone writes to it: what the socket does not take at once
// waits, and the loop asks to be told when there is room again. A text of the control thread's own goes
// behind all that waits (vxOutboxFinish), so that no line is torn by another.
//
// Limits    kOutboxSize bytes. A text that finds no room is dropped whole, traced and counted; so is one
//           that comes while no connection is read.
// Lifetime  What waits is forgotten when the connection ends: its beginning may have gone out there.
// Threads   vxOutboxPut, vxOutboxWaiting: any. The others: control thread of the instance. The outbox mutex
// guards all; no
//           call waits under it.
#pragma once

#include <apr_poll.h>

#include <cstddef>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Leaves a text and wakes the control thread; a newline is added where it does not end with one, so that
// what follows on the connection is a line of its own. An empty text is passed over. False when it was
// dropped.
bool vxOutboxPut(vxApplication& app, const char* text, std::size_t length);

// Bytes that wait to be sent, -1 while no connection is read. Any thread.
std::int32_t vxOutboxWaiting(vxApplication& app);

// The connection is read from here on; `poll` (wakeable) is that of its loop.
void vxOutboxOpen(vxApplication& app, apr_pollset_t* poll);
void vxOutboxOpenLws(vxApplication& app, VXLwsConnection& connection);  // the same over libwebsockets
void vxOutboxClose(vxApplication& app);

enum class VXOutboxState { kEmpty, kWaits, kBroken };
// Offers what waits to the socket, without waiting.
VXOutboxState vxOutboxSend(vxApplication& app);
// The same for the current context: 1 while the connection stands, else 0.
int send_pending_control_data();
// Waits until everything has gone out: at most 30 s, and not beyond an order to stop. False when something
// is left; the connection is then to be given up.
bool vxOutboxFinish(vxApplication& app);

}  // namespace vx
