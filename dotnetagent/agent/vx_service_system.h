// What the service asks of the system it runs on; one source file per system.
#pragma once

#include "dotnetagent/agent/vx_service.h"

namespace vx {

// Makes the system call `handler` with kServiceControlStop when the service is to stop, and prepares the
// process (descriptor limit, crash dump). Before any other thread exists. False when that failed.
bool vx_service_register(void (*handler)(int control));
// Tells the system the state.
void vx_service_report(const VXServiceStatus& status);
// Runs body(argument) on a thread of its own and waits for its end. False when no thread could be made.
bool vx_service_run_worker(void (*body)(void* argument), void* argument);
// One line of the shell for whoever watches it, while VX_SERVICE_DEBUG is set. The trace log does not exist
// yet.
void vx_service_debug(const char* line);

}  // namespace vx
