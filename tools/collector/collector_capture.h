// Records of what is captured with transactions: exceptions and headers.
//
// Each takes what stands behind the record's number. False for what cannot be read.
//
// Threads   One.
#pragma once

#include <string_view>

#include "tools/collector/collector_instance.h"
#include "tools/collector/collector_summary.h"

namespace vx::collector {

// "in Cart.show of Shop: message, because of cause"; texts may be empty.
std::string exceptionText(const std::string& throwingClass, const std::string& method,
                          const std::string& message, const std::string& cause);
// The stack of a 38 record: lines, each with its newline, cut at kKeptStack bytes.
std::string plainStack(std::string_view text);

// 12 and 13
bool takeRequestHeaders(std::string_view rest, InstanceState& instance, Summary& summary);
bool takeResponseHeaders(std::string_view rest, InstanceState& instance, Summary& summary);
// 32 to 36: a part of exceptions gets its id
template <ExceptionPart part>
bool takeExceptionPart(std::string_view rest, InstanceState& instance, Summary&) {
    const std::string_view id = takeUntil(rest, ',');
    return setName(instance.exceptionParts[static_cast<std::size_t>(part)], id, rest);
}
// 38
bool takeException(std::string_view rest, InstanceState& instance, Summary& summary);

}  // namespace vx::collector
