// What the collector remembers of one instance: the names of its ids, and its run.
//
// Threads   One.
#pragma once

#include <array>

#include "tools/collector/collector_monitors.h"
#include "tools/collector/collector_text.h"

namespace vx::collector {

// What an exception's record refers to by ids: records 32 to 36.
enum class ExceptionPart : std::uint8_t { kClass, kThrowingClass, kThrowingMethod, kMessage, kCause };

struct InstanceState {
    std::string name;  // as in "Tier/host/app/agent"
    Names bts, methods, headers;
    std::array<Names, 5> exceptionParts;
    Run run;
};

}  // namespace vx::collector
