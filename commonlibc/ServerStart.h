// Start of instrumentation: from the collector's start line to a running data thread.
//
//     line --> stored for late joiners --> former run ended, its transactions dropped
//          --> tables and monitors made --> keywords applied --> epoch base --> run flags, threads
//          --> answer --> relay to the agents
//
// A start is given up, with the connection, when threads of the former run will not end within 15 s or a
// critical file does not come, and without an answer when closeCtrlConFlag was set meanwhile.
//
// Threads   Control thread of the instance; current context. Server.instrumentationStarted is set under the
//           message mutex: a process that registers before finds it cleared and is reached by the relay,
//           one that registers later is told by the registration itself.
#pragma once

namespace vx {

// "vx_control_req:action=start_instrumentation". Ignored while a run has all its threads and connections.
void handleStartInstrumentation(char* line);
// Counts and flags of a fresh run.
void setAllFlagAndCountVars();

}  // namespace vx
