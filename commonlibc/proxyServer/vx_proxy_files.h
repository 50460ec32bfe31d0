// File service: agents get the collector's files from the cache folder of their instance.
//
//     vx_control_rep:action=file;keyword=NAME%3Bsize%3DBYTES%3Blmd%3DDATE;\n             and the bytes
//     vx_control_rep:action=instrumentation_profile;instrProfile=NAME;size=BYTES;lmd=DATE;\n  likewise
//     vx_control_rep:action=FailedNAME - PATH\n
//     vx_control_rep:action=FailedInstrumentationProfile - PATH\n
//
// The size announced is that of the bytes that follow, whatever becomes of the file meanwhile; the date is
// the low 32 bits of the file's modification time in microseconds.
//
// Limits    A file of at most 64 MB, a keyword of at most 255 bytes, names that stay in their folder: else
//           the answer is that of a missing file. The answer goes out as one message (vx_proxy_send).
// Errors    An answer that does not go out costs the process its connections.
// Threads   The listener.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Answers the process of the pair. `name`: keyword, or name of a profile with any path in front.
void statAndSendFileContent(const char* name, epollPtr_t* address, int isProfile);

}  // namespace vx
