// The modes of vxagent, and what they share.
//
// Each mode answers the exit code: 0, 1 when it could not do its work (the proxy never asked for records), 2
// for bad options.
#pragma once

#include <string>
#include <vector>

#include "tools/agent/cli_options.h"
#include "tools/agent/vxagent.h"

namespace vx::agent {

inline constexpr int kExitOk = 0, kExitFailed = 1, kExitUsage = 2;

int runAccessLog(int argc, char** argv);
int runLoad(int argc, char** argv);

// True once SIGINT or SIGTERM came; both are caught from here on.
void catchSignals();
bool stopRequested();

std::vector<Option> commonOptions(CommonOptions& common);
// Prints the mode's usage when asked to, and reads its options. True when the mode may go on; else `code`.
bool readOptions(const char* mode, const std::vector<Option>& options, int argc, char** argv, int& code);
// False, with the reason printed, for names that cannot be sent, or several transports at once.
bool checkCommon(const char* mode, const CommonOptions& common);
// Null, with a line about it, when the agent cannot be made.
vxagent* openAgent(const CommonOptions& common);
// Waits until the data connection stands. False after `seconds` (0: never) or a signal.
bool waitUntilSending(const vxagent* agent, double seconds);
// Waits while the queue is more than half full.
void waitForRoom(const vxagent* agent);

}  // namespace vx::agent
