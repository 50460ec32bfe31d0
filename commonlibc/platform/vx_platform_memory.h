// Memory of the process as the system sees it, and a dump of it.
//
// Threads   Any; no state. A dump is for one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx {

// Resident size of this process in MB (rounded down), -1 when the system does not tell.
std::int64_t vx_platform_resident_mb();
// The least memory limit in MB of the control groups that this process is in, 0 when there is none.
std::int64_t vx_platform_memory_limit_mb();
// The same for a process whose groups the file `list` names, with the groups' folders below `root`.
std::int64_t vx_cgroup_limit_mb(const char* list, const char* root);

// Writes a dump of this process, which stands still meanwhile, into the folder; its name begins with
// `prefix`. `command` gets the command line of the tool that does it. Its exit code, or -1 when it could not
// be run or did not end within kDumpSeconds.
inline constexpr int kDumpSeconds = 300;
int vx_platform_dump_process(const char* folder, const char* prefix, char* command, std::size_t size);
// Name of the tool.
extern const char* const kDumpTool;

}  // namespace vx
