// Dispatch of collector lines: the one place where the collector steers an instance.
//
// A line is matched by prefix, first row first; one that matches nothing is ignored. The actions are units
// of their own: start, stop, modify, heartbeat, error rules; the others are reached through upcalls.
//
// Threads   The control thread of the instance; current context.
#pragma once

#include "commonlibc/ServerErrorRules.h"
#include "commonlibc/ServerModify.h"
#include "commonlibc/ServerReply.h"
#include "commonlibc/ServerStart.h"
#include "commonlibc/ServerStop.h"
#include "commonlibc/VXKeywordPass.h"

namespace vx {

// `line` is terminated, without its newline, and may be changed in place.
void handleReceivedClientMessageFromVXCollector(char* line);

}  // namespace vx
