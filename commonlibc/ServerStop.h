// Stop of instrumentation, and the orders that end a run or the connection.
//
// Threads   Control thread of the instance, except dumpNdDataOverRecord(): the data thread writes the end of
//           a run too. All on the current context.
#pragma once

namespace vx {

// "vx_control_req:action=stop_instrumentation": relays, frees the stored start line, ends the run when the
// status of the line says running or stopping, answers.
void handleStopInstrumentation(char* line);
// Ends the run: incomplete flowpaths first, then the 10 record, then the run flags.
void handleStoppingCaseAtStopInstrumentCase();
void dumpNdDataOverRecord();  // the 10 record
// Orders the end of the control connection; the read loop carries it out.
void closeCurrentControlConnection();

}  // namespace vx
