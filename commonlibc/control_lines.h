// Line splitter of the control connection: received bytes to lines for the dispatcher.
//
//     read_socket_buf  [consumed | readBytes unread ........ | free]
//                               ^readOffset                  ^writeOffset
//
// Whole lines are dispatched in order; what is left moves to the buffer's start and waits for the rest.
// Zero bytes between lines are skipped.
//
// Limits    A line that fills the buffer without a newline is dropped, with all that follows up to the next
//           newline.
// Threads   Control thread of the instance; current context. Serves both transports.
#pragma once

#include "commonlibc/context/VXControlState.h"

namespace vx {

// Dispatches every whole line. A connect reply that comes late (no reply stands yet) is judged first; when
// it is refused, its verdict is left in VXControlState_t::lateVerdict and the splitter stops.
void processControlConnectionMessage(ctrlBufInfo_t* info);

}  // namespace vx
