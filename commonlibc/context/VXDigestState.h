// Digests of durations: whether they are kept, how often they are written and with which percentiles.
//
// Guards    Shared words: written by the control thread, read by whoever counts and by the auto-sensor
//           thread. A digest itself belongs to the monitor slot that points at it: the slot's mutex.
#pragma once

#include <atomic>
#include <cstdint>

namespace vx {

// What an instance begins with.
struct VXDigestDefaults {
    double percentileStep;         // percentiles are kept as multiples of it
    std::int32_t type;             // 0: no digests
    std::int32_t periodMs;         // distance of two reports
    std::int32_t decimals;         // of a value in the record
    std::int32_t compression;      // the greatest number of parts into which a digest divides its values
    std::int32_t group;            // number of the record
    std::int32_t percentileSlots;  // slots in use, each with the 95th percentile
};
inline constexpr VXDigestDefaults kDigestOfBt = {0.01, 0, 300000, 2, 100, 793, 1};
inline constexpr VXDigestDefaults kDigestOfBackend = {0.01, 0, 300000, 2, 100, 794, 1};

inline constexpr std::int32_t kDigestPercentiles = 4;  // slots for percentiles
inline constexpr std::uint64_t kPercentileDefault = 9500;

struct VXDigestSettings {
    std::atomic<std::int32_t> type;  // 0: off, 1: on
    std::atomic<std::int32_t> periodMs;
    std::atomic<std::uint64_t> percentiles;  // four slots of 16 bits from the lowest, 0.01 %; 0: none
};

struct VXDigestState_t {
    VXDigestSettings bt, backend;
};

}  // namespace vx
