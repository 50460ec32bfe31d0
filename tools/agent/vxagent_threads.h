// The threads of this process as a line for the proxy.
//
// Limits    At most kThreadDumpMax bytes; threads beyond are left out.
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <string>

namespace vx::agent {

inline constexpr std::size_t kThreadDumpMax = 65536;

// "thread_dump:" and a text whose newlines are written as "$", with a newline at the end.
std::string threadDumpLine();

}  // namespace vx::agent
