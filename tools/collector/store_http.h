// Requests over HTTP to the engine that stores: one connection each, bounded in time and size.
//
// Version 1.0 of the protocol: an answer ends with its connection.
//
// Errors    Answer::status 0: no answer, and `body` tells why.
// Limits    kHttpSeconds for each step (connecting, sending, receiving); an answer of kMostAnswer bytes.
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <string>

namespace vx::collector {

inline constexpr int kHttpSeconds = 20;
inline constexpr std::size_t kMostAnswer = std::size_t{256} * 1024 * 1024;

// "http://[user:password@]host[:port][/database]"; an address of IPv6 stands in brackets.
struct HttpAddress {
    std::string host;
    std::string port = "8123";
    std::string database = "default";
    std::string credentials;  // "user:password", or empty
};
bool readAddress(const std::string& url, HttpAddress& out);

struct HttpAnswer {
    int status = 0;
    std::string body;
};
// Posts a statement, which stands in the address, with a body behind it.
HttpAnswer postStatement(const HttpAddress& address, const std::string& statement,
                         const std::string& settings, const std::string& body);

}  // namespace vx::collector
