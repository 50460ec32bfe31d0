// Run-time change: keywords of a modify line, and the merge of the line into the stored start line.
//
// Threads   Control thread of the instance; current context. The stored line is replaced under the message
//           mutex.
#pragma once

namespace vx {

// "vx_control_req:action=modify": relayed in any case; applied and answered only while instrumentation is
// started, else refused.
void handleModify(char* line);
// Merges the fields behind "action=modify;" (which `text` begins with) into the stored start line, so that
// an agent that registers later gets the present settings. A field of the line takes the value of the modify;
// new fields stand behind. "numInstrProfile" and the "instrProfile", "lmd" and "size" fields behind it are
// one block, replaced whole. Nothing happens without a stored line or without memory.
void update_instrument_profile(const char* text);

}  // namespace vx
