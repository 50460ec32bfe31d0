// Ends of the process: the stop control, the cleaning stop, the thread that waits for signals.
//
//     SIGTERM            the stop control: loops end, data threads get 2 s to send what they hold
//     SIGINT, SIGUSR1    the cleaning stop: every connection is shut down first
//     SIGHUP             told in the trace, nothing else
//
// The stops end by _exit(0), with nothing freed that a running thread may use.
//
// Threads   vxStartSignalThread: the first thread, before any other exists. resetAndCleanProxy: the signal
//           thread. vxStopService: the program's main thread, once the worker has ended.
#pragma once

#include "commonlibc/VXLosses.h"

namespace vx {

// Blocks these signals in the calling thread (and all it starts) and starts the thread that waits for
// them. `stopControl` is what the program does on a stop of any kind: it is told first. The process ends
// within 4 s of it, whether the program gets there itself or not. False when no thread could be made.
bool vxStartSignalThread(void (*stopControl)());
// What became of what was held: all of it was sent; the rest was lost and counted; a thread did not come to
// its end, and what it held is lost uncounted.
enum class VXStopEnd { kSent, kLost, kUncounted };
// Told at the end of a stop, with what was lost since the start, of the instances and functions that are
// there.
using VXStopReport = void (*)(VXStopEnd end, const VXLossTotals& lost);
// The stop control: ends every loop, waits for the data threads, tells, ends the process. A cleaning stop
// that is under way is left to end it.
[[noreturn]] void vxStopService(VXStopReport report);
// Cleaning stop: shuts down every connection of agents and towards collectors.
[[noreturn]] void resetAndCleanProxy(int sig);

}  // namespace vx
