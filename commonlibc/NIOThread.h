// Auto-sensor thread of an instance: owns the auto-sensor connection while a run lasts.
//
//     connecting --> reporting --> waiting (60 s) --> connecting ...
//          |             |             |
//          +-------------+-------------+--> gone
//
// A lost connection, or an order of the collector (autosensorConnState 0), leads through waiting back to
// connecting. The thread goes when the run, the control link, the instance or the service ends.
//
// Turns     While it reports, the monitors' cycle (monitorCycle) is told of every ten seconds that have
//           passed; while it waits, too.
// Stop      Every wait but a connect (10 s, over libwebsockets 20 s) ends within a second of a stop word. A
//           run that ends while the connection stands gets a last report of the monitors; where nobody ended
//           it in order, the data thread gets 2 s to count what is open. What the chain holds then gets half
//           a second to go out; the rest is thrown away and counted.
// Lifetime  Joined by the next start. Its pools are remade by each start and each connect attempt: nothing
//           grows.
// Threads   ASNioInit, create_autoSensor_thread, vxJoinAutoSensorThread: the control thread.
//           setToStopThread, stopNIO: any that serves the instance. The rest: the thread itself. All on the
//           current context.
#pragma once

#include <apr_thread_proc.h>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Makes the channel's pool, once.
void ASNioInit();
// Starts the thread. 0, or 1 if one exists already or none could be made.
int create_autoSensor_thread();
// Waits for the last thread, if one was ever started, and gives its pool back. It must have ended or been
// told to.
void vxJoinAutoSensorThread(vxApplication& app);
// 1 orders the thread to end, 0 lets the next one run.
void setToStopThread(int stop);
// Orders the end and breaks the connection off, so that a send that waits for the peer ends too, and over
// libwebsockets a connect of this thread or the data thread.
void stopNIO();
void* start_autoSensor_thread(apr_thread_t* thread, void* application);  // APR_THREAD_FUNC body
// What the sampling of stack traces needs at the start of a session: nothing is sampled, the intervals are
// traced.
void VXAutoSensorUsingStackTraceSetup();
// Closes the connection, throws away what is left and clears the running flag: the thread's last act.
void cleanAutoSensorThread();

}  // namespace vx
