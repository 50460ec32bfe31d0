// Bodies of POST requests: JSON objects with texts.
//
// Limits    As the server's; nesting as the JSON library's.
// Threads   Any; no state.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vx::collector {

// What a request on rules may say; members that are not there are empty.
struct RuleBody {
    std::optional<std::string> text, url, method, query, digest;
    std::optional<std::string> headers;  // as "name=value&name=value&"
};
// False with the reason in `error`: no JSON object, or a member that is no text. Unknown members are passed
// over.
bool readRuleBody(std::string_view body, RuleBody& out, std::string& error);

}  // namespace vx::collector
