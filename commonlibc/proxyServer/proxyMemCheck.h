// Memory watch: the service ends itself before it takes its host down, and whoever supervises it starts it
// again.
//
//     within both limits -> nothing
//     beyond either      -> alert to one collector -> mode 2: dump -> exit code 255
//
// The limits are memUsageThresholdSizeMB and memUsageThresholdPct, of TotalSystemMemory: what the host has,
// or what the control groups of the process leave of it.
//
// Limits    The alert has 2 s to go out. Dumps: three stay on the disk beside a new one, and there are three
//           an hour (ShouldGenerateCoreDump).
// Errors    What the system does not tell ends the check with a trace line.
// Threads   One thread of the process checks; vxLearnTotalMemory before it.
#pragma once

#include <cstdint>

namespace vx {

inline constexpr int kMemoryExitCode = 255;
inline constexpr const char* kDumpPrefix = "VXProxyService";

// Sets TotalSystemMemory; switches the watch off where it cannot be had.
void vxLearnTotalMemory();
// Does not come back when the process is beyond a limit.
void checkMemoryUsage();
// True when that much is beyond a limit.
bool vxBeyondMemoryLimit(std::int64_t usedMB);
// Tells the collector of the first instance, or else function, that is connected, and waits until it is on
// its way.
void sendAlertToVXC(int usedMB);
// Leaves a dump of the process in the home's logs folder, if there is not one too many.
void GenerateCoreDump();
// True when the folder may take another dump; removes all but the newest three.
bool ShouldGenerateCoreDump(const char* folder);

}  // namespace vx
