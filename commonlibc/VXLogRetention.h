// Old files of the logs folder: trace files by their age, crash dumps by their number.
//
//     vx_trace_ProxyName_DotNetAgent_20250214181624_4711.log_0
//                                    \____________/ start of the run: what counts as the file's age
//
// Limits    Age is counted in local calendar days, 1 to 36,500 of them. The newest kKeptCrashDumps dumps
//           stay, so a service that falls again and again fills no disk.
// Errors    A folder that cannot be opened is traced; a file that cannot be removed stays.
// Threads   Start-up.
#pragma once

#include <cstdint>

namespace vx {

inline constexpr int kDefaultRetentionDays = 7;
inline constexpr int kKeptCrashDumps = 20;

// Removes trace files of runs that began on or before today minus the context's retention days.
void vx_check_log_file();
// The day that many days before today, as yyyymmdd. 0 when the time is unknown.
std::int64_t get_Previous_Date(int days);
// Removes all but the newest crash dumps of a folder.
void vxDropOldCrashDumps(const char* folder, int kept);

}  // namespace vx
