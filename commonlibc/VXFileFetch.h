// File exchange: asks the collector for a file on the control connection and receives it, in the midst of
// the handling of a line.
//
//     proxy      vx_control_req:action=send_file;keyword=BTRuleConfig;
//     collector  vx_control_rep:action=file;keyword=BTRuleConfig;size=4096;lmd=1700000000;
//                4096 bytes as they are
//
// The bytes come through the connection's own read buffer, so none is lost between the exchange and the read
// loop. Lines that arrive before the head are dropped. An answer that says the file failed is asked for once
// more, 2 s later. A head of another file (a late answer) is passed over with its content.
//
// Limits    A file has 1 byte to kMaxFileSize; exactly as many bytes as the head says are taken.
//           fileReadTimeout bounds the wait for the head and each pause within the content; a stop of
//           instance or service ends the exchange within a second.
// Errors    Nothing came: traced, and a warning for the answer to the start line. When the connection was
//           lost, it is ordered closed.
// Threads   Control thread of the instance, without any lock; current context.
#pragma once

#include <cstdint>
#include <memory>

#include "commonlibc/vxlb_mem.h"

namespace vx {

struct VXFileFree {
    void operator()(char* content) const noexcept { VXLB_FREE(content, "file content", -1); }
};
using VXFileText = std::unique_ptr<char, VXFileFree>;
// A block of size + 1 bytes for a file's content, terminated; null without memory.
VXFileText vxMakeFileText(std::int64_t size);

struct VXFetchedFile {
    VXFileText content;  // null: nothing came
    std::int64_t size = 0, lmd = 0;
};

VXFetchedFile vxFetchFile(const char* keyword);
VXFetchedFile vxFetchProfile(const char* name);

}  // namespace vx
