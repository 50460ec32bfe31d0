// Keyword pass: applies the key=value fields of one collector line.
//
// Limits    At most 1,024 fields of a line; a key is cut at 1,023 bytes.
// Errors    An unknown key is skipped. A field without "=" or without a key ends the pass: what stands
//           behind it keeps its former value.
// Threads   Control thread of the instance; current context.
#pragma once

namespace vx {

inline constexpr const char* kStartPrefix = "vx_control_req:action=start_instrumentation";
inline constexpr const char* kModifyPrefix = "vx_control_req:action=modify";

// Keeps every "status" field in Server.status. All other keys are applied on a modify line, and on a start
// line while no data connection stands; on any other line they are passed over. `line` is not changed.
void findStatusFromClientMsg(const char* line);

}  // namespace vx
