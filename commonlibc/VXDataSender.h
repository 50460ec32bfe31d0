// Sending side of the data channel: empties the read list, and ends a run of the data thread in good order.
//
// Limits    A send takes at most 1 s. flushCommonData() ends at the first send that took no bytes once a stop
//           is asked for and 5 s have passed since the thread first saw it; a service stop has 2 s.
// Errors    The codes of VXDataTransfer.h.
// Threads   The data thread; all on the current context.
#pragma once

#include "commonlibc/VXDataTransfer.h"
#include "commonlibc/context/vx_application.h"

namespace vx {

// Sends what the read list holds, on the connection that stands. One of those codes; kThreadEnds only with
// `checkStop` 1.
int dataConnService(int checkStop);
int processData(int checkStop);     // TCP
int processDataLws(int checkStop);  // libwebsockets
// A last attempt to drain; does nothing off the data thread and is not re-entered.
void flushCommonData();
// 0 to go on. Otherwise the run's end has been written (incomplete flowpaths, the 10 record once per stop,
// a flush; on a service stop only what the chain holds), and the answer is kThreadEnds.
int checkAndStopThread();
// True once a stop word of the instance or of the service is set, or a run flag is cleared.
bool dataStopSeen(const vxApplication& app);

}  // namespace vx
