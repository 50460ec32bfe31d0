// Data thread of an instance: owns the data connection, sends full or aged buffers, ends with the run.
//
//     connecting --> announcing --> running --> waiting --> connecting ...
//          |             |             |           |
//          +-------------+-------------+-----------+--> gone
//
// A lost connection only leads through waiting (retryInterval) back to connecting. The thread goes when the
// run's end has been written (checkAndStopThread), when the control link has gone, when the instance or the
// service is stopped, or after more than 4 connection errors on announcing.
//
// Stop      Every wait but a connect (10 s) ends within a second of a stop word or a cleared run flag.
//           Service stop: set proxyStopFlag (and leave proxyCleaningFlag 0), wait at most 2 s for
//           vxDataThreadsDrained(), end the process. Each data thread then hands what its chain holds to its
//           connection for at most 2 s, without a 10 record, and ends; one that is connecting or waiting just
//           ends.
// Lifetime  Joined by the next start. Its pools are remade by each start and each connect attempt: nothing
//           grows.
// Threads   check_data_thread, free_agent_data: the control thread. vxDataThreadsDrained: any. Everything
//           else: the data thread itself.
#pragma once

#include <apr_thread_proc.h>

#include "commonlibc/VXDataConnection.h"
#include "commonlibc/VXDataSender.h"
#include "commonlibc/context/vx_application.h"

namespace vx {

// Starts the data thread of the current context. 0, or 1 if one exists already or none could be made.
int check_data_thread();
// Waits for the last thread, if one was ever started, and gives its pool back; a pool of its own for each
// start keeps any number of starts at the memory of one. The thread must have ended or been told to.
void vxJoinDataThread(vxApplication& app);
void* start_data_thread(apr_thread_t* thread, void* application);  // APR_THREAD_FUNC body
// Monitor data, tags and settings back to their defaults; passes over what does not exist yet. Only while no
// data thread of the current context runs.
void free_agent_data();
// True when no instance has a data or an auto-sensor thread any more.
bool vxDataThreadsDrained();

}  // namespace vx
