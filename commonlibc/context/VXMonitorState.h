// Reporting cycle of an instance's monitors.
//
// Owner     The auto-sensor thread, while it runs.
#pragma once

#include <cstdint>

namespace vx {

// What the auto-sensor thread has come to; the cycle acts on it.
enum class VXMonitorPhase : std::uint8_t {
    kSession,  // a connection has been made
    kTurn,     // ten seconds with a connection have passed
    kIdle,     // ten seconds without one have passed
    kLast,     // the run ends and the connection stands
    kGone,     // the run has ended: what was not reported is lost
};

struct VXMonitorState_t {
    // Steady milliseconds.
    std::int64_t curTimeStamp;           // of the present turn
    std::int64_t nextLoggingBufferTime;  // of the next report
    std::int64_t nextBTDigestTime, nextBackendDigestTime;
    std::int32_t turns;  // since the last walk over idle transactions
};

}  // namespace vx
