// What the command line tells of the configuration: --check-config, and the settings in --help.
//
// The check makes the root context as a start does, by the same readers, which report each line and variable
// they meet; it can therefore neither accept nor refuse what a start would not. It writes nothing, opens no
// socket and no log, and needs no more than reading rights.
//
// Threads   The main thread, with no service running in this process.
#pragma once

#include <string>

namespace vx {

inline constexpr int kCheckPassed = 0, kCheckFailed = 2;

// Reads the configuration and puts into `report` what was understood, with values and where they come from,
// notes, and every fault with file and line. kCheckPassed, or kCheckFailed with at least one fault.
int vxCheckConfig(std::string* report);
// The settings of both files, one line each, for the help text.
std::string vxSettingsHelp();

}  // namespace vx
