// One entry or exit of a method: what the agent reports, and what the method's record says.
//
// Threads   Any; no state.
#pragma once

#include <cstddef>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Texts are terminated and borrowed for the call; methodNameLength is the name's.
struct VXMethodEntryArguments {
    const char* methodName;
    std::size_t methodNameLength;
    const char* url;
    const char* urlParameter;  // null: the flowpath's stay
    std::int64_t threadId;     // 0: the slot's (the Ex form takes it as it is)
    std::int64_t time;         // microseconds; below 1: now
    const char* queryParameter;
    int force;  // an item also where the flowpath is not captured
};
struct VXMethodExitArguments {
    const char* methodName;
    std::size_t methodNameLength;
    std::int64_t fpCPUTime;
    std::int32_t status;  // negative: keep the slot's
    const char* backendName;
    std::int64_t methodWallTime;  // microseconds
    std::int64_t threadId;        // 0: the slot's (the Ex form takes it as it is)
    std::int32_t calloutDone;
    const char* phase;
    std::int64_t endTime;  // microseconds; below 1: now
    int force;
};

// The record at the event, read once: it may change under a new text at any time.
struct VXMethodView {
    mPP* method;
    std::uint32_t id, flags, urlFlag;
    std::uint8_t type, subtype;
};

inline VXMethodView vxViewOf(mPP* method) noexcept {
    constexpr auto relaxed = std::memory_order_relaxed;
    return {method,
            method->methodId.load(relaxed),
            method->isEntryPointPtr.load(relaxed),
            method->urlFlag.load(relaxed),
            method->type.load(relaxed),
            method->subtype.load(relaxed)};
}

}  // namespace vx
