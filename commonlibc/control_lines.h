// Line splitter of the control connection: received bytes to lines for the dispatcher.
//
// Whole lines are dispatched in order, each as a copy of its own: the handler of a line may read on, for the
// answer to a request, and lines that it takes are not dispatched. What is left waits for the rest.
//
// Limits    Those of the read buffer.
// Threads   Control thread of the instance; current context. Serves both transports.
#pragma once

#include "commonlibc/context/VXControlState.h"

namespace vx {

// Dispatches every whole line. A connect reply that comes late (no reply stands yet) is judged first; when
// it is refused, its verdict is left in VXControlState_t::lateVerdict and the splitter stops.
void processControlConnectionMessage(ctrlBufInfo_t* info);

}  // namespace vx
