// The service's own settings file "config/proxysetting.conf", read once at start on the root context.
//
// Lines are "keyword=value"; a line belongs to the first keyword that its start matches without regard to
// case, so a longer word with a keyword as its head is taken too. An empty value counts as not matching.
//
// Limits    Lines of at most 1,023 bytes; a longer one is traced and ignored.
// Errors    A missing or unreadable file leaves the defaults; bad values are traced, never fatal. A memory
//           limit out of its bounds is kept in its field all the same.
// Threads   Start-up, before any other thread exists.
#pragma once

namespace vx {

// Reads the file into VXProxy and, for the collector's host, into record 0 of the root context.
void readVXProxyConfig();
// The three memory keywords of one line: 1 when the line was one of them, good or bad, else 0.
int ParseProxyMemoryThreshold(const char* line);

}  // namespace vx
