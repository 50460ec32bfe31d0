// What the collector wants to know of an agent process: thread dumps and the list of loaded classes.
//
// Both orders go to the first process of the instance, or, when that has ended, to nobody (traced). A thread
// dump comes back as a line of the agent's control connection and goes out on the collector's control
// connection; a class list comes over a connection of its own (proxyServer/vx_proxy_discovery).
//
// Limits    At most `maxLen` - 1 bytes of a text go out; the outbox ends it with a newline.
// Threads   The two orders: control thread of the instance. sendThreadDataToVXC: any. Current context.
#pragma once

#include <cstdint>

namespace vx {

inline constexpr std::int32_t kThreadDumpSize = 102400;

// "vx_meta_data_req:action=get_thread_dump;".
void handleThreadDumpRequest(char* line);
// "vxc_req:action=discover_loaded_classes": keeps the connection id ("...Id=%d") and passes the line on. An
// id below 1 is traced and the line goes nowhere.
void handleDiscoveryRequest(char* line);
// Leaves a text for the collector. The two log texts, when given, are traced.
void sendThreadDataToVXC(const char* logPrefix, const char* message, const char* logDetail,
                         std::int32_t maxLen);

}  // namespace vx
