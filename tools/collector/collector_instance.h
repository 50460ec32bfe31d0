// What the collector remembers of one instance: the names of its ids, and its run.
//
// Threads   One.
#pragma once

#include <array>
#include <cstdint>

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
    int connections = 0;       // of any kind, that stand now
    std::int64_t leftAt = 0;   // when the last one went; steady ms
    bool namesWanted = false;  // it refers to ids of which no name has come: asked for, once
};

}  // namespace vx::collector
