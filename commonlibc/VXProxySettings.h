// The service's own settings file "config/proxysetting.conf", read once at start on the root context.
//
// Lines are "keyword=value"; a line belongs to the first keyword that its start matches without regard to
// case, so a longer word with a keyword as its head is taken too. An empty value counts as not matching. One
// table serves reading, the help text and the check of the configuration.
//
// Limits    Lines of at most 1,023 bytes; a longer one is traced and ignored.
// Errors    A missing or unreadable file leaves the defaults; bad values are traced, never fatal: the earlier
//           value stays. A memory limit out of its bounds is kept in its field all the same.
// Threads   Start-up, before any other thread exists.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "commonlibc/VXSettingReport.h"
#include "commonlibc/context/VXProxyState.h"

namespace vx {

inline constexpr const char* kProxyFileName = "proxysetting.conf";

struct VXProxyRow {
    const char* key;
    VXSettingVerdict (*take)(const VXProxyRow& row, const char* value);
    std::string (*show)(const VXProxyRow& row);  // what is in force
    const char* help;                            // ends with the default in brackets, where there is one
    std::int32_t VXCeilings::*ceiling = nullptr;
    int min = 0, max = 0;  // of a ceiling
};
std::span<const VXProxyRow> vxProxyRows();

// Reads the file into VXProxy and, for the collector's host, into record 0 of the root context; then asks
// for the server's own address, if a port was given.
void readVXProxyConfig();
// The first half: opens nothing but the file. True when it could be read.
bool vxReadProxyFile();
// The three memory keywords of one line: 1 when the line was one of them, good or bad, else 0.
int ParseProxyMemoryThreshold(const char* line);

}  // namespace vx
