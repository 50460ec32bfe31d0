// Commands that an operator types: one row each.
//
// Threads   One.
#pragma once

#include <string>

namespace vx::collector {

class CollectorServer;

// Runs one line of standard input; false for what is no command (the reason is printed).
bool runCommand(const std::string& line, CollectorServer& server);

}  // namespace vx::collector
