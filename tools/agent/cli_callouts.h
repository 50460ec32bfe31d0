// Callouts of vxagent load: what kinds there are, how often each, and the entry points that make the proxy
// see them as callouts.
//
// Threads   Any; no state.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace vx::agent {

struct CalloutKind {
    std::string_view name;   // in a mix, as in "db"
    const char* method;      // reported as the method that calls
    const char* entryPoint;  // its callout in the entry point file
    const char* backend;     // first part of the back-ends' names
};
inline constexpr auto kCalloutKinds = std::to_array<CalloutKind>({
    {"db", "com.example.client.Database.query", "SQL_CALLOUT", "orders-db"},
    {"http", "com.example.client.Web.send", "HTTP_CALLOUT", "payment.example"},
    {"mq", "com.example.client.Queue.publish", "RABBITMQ_CALLOUT", "mail-queue"},
    {"custom", "com.example.client.Ledger.post", "CUSTOM_CALLOUT", "ledger"},
});

// Weights by kind.
using CalloutMix = std::array<unsigned, kCalloutKinds.size()>;

// Reads "db=4,http=3"; kinds not named weigh nothing. False when it cannot be read or all weigh nothing.
bool readMix(std::string_view text, CalloutMix& mix);
// The entry point file for the methods above.
std::string entryPointText();

}  // namespace vx::agent
