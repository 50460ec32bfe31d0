// HTTP headers as one text of a record: "name=value&name=value", with other separators for some agent types.
//
// A separator inside a value is percent-encoded; what would be read as another header is so kept in one.
//
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <string_view>

#include "tools/agent/vxagent.h"

namespace vx::agent {

struct HeaderSeparators {
    char between, behindName;
};
HeaderSeparators headerSeparators(std::string_view agentType);

// Writes the headers that fit whole; those without a usable name are left out. The length written.
std::size_t joinHeaders(HeaderSeparators separators, const vxagent_header* headers, std::size_t count,
                        char* out, std::size_t size);

}  // namespace vx::agent
