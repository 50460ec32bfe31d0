// Sending side of the data channel: empties the read list, and ends a run of the data thread in good order.
//
// Limits    A send takes at most 1 s. flushCommonData() ends at the first send that took no bytes once a stop
//           is asked for and 5 s have passed since the thread first saw it; a service stop has 2 s.
// Errors    The codes below. A lost connection leaves node and offset: the rest goes out on the next one.
// Threads   The data thread; all on the current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

inline constexpr int kSendLost = -1;    // connection unusable
inline constexpr int kSendDone = 0;     // nothing left to send
inline constexpr int kSendNoBytes = 1;  // the socket took no bytes; try again
inline constexpr int kThreadEnds = 2;   // the run's end has been written: return up to the thread's body

// Sends what the read list holds. One of the codes above; kThreadEnds only with `checkStop` 1, or over
// libwebsockets.
int dataConnService(int checkStop);
int processData(int checkStop);     // TCP
int processDataLws(int checkStop);  // libwebsockets; bytes of a failed send count as sent
// A last attempt to drain; does nothing off the data thread and is not re-entered.
void flushCommonData();
// 0 to go on. Otherwise the run's end has been written (incomplete flowpaths, the 10 record once per stop,
// a flush; on a service stop only what the chain holds), and the answer is kThreadEnds.
int checkAndStopThread();
// True once a stop word of the instance or of the service is set, or a run flag is cleared.
bool dataStopSeen(const vxApplication& app);

}  // namespace vx
