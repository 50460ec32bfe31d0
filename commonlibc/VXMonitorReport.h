// What the record writers of all monitors share: the buffer of a report, and the figures of a record.
//
// A report is written record by record into one buffer of kReportBufferSize bytes, from which it goes to the
// auto-sensor channel; a writer finds room for a whole record, always:
//
//     VXWriter out = vxBeginRecord(buffer, *length);
//     vxPutHead(out, 74, prefixId, id, prefix, name);
//     out.real(average).put(' ').number(vxInt32(count));
//     vxEndRecord(out, buffer, length);
//
// Limits    A record has kMonitorRecordMax bytes at most: its name is cut so that kMonitorFiguresMax bytes
//           are left for what follows.
// Errors    What the channel does not take is counted there; `length` is 0 again either way.
// Threads   The auto-sensor thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

#include "commonlibc/vxlb_writer.h"

namespace vx {

inline constexpr std::int32_t kReportBufferSize = 0x40000, kMonitorRecordMax = 4096;
inline constexpr std::int32_t kMonitorFiguresMax = 1536;  // behind the name: forty figures, and a tag
inline constexpr double kUnsetMin = 500000.0;             // a least value before the first one

// A writer over the place of the next record.
inline VXWriter vxBeginRecord(char* buffer, std::int32_t length) noexcept {
    return {buffer + length, static_cast<std::size_t>(kMonitorRecordMax)};
}
// "%d,%s%d:%s%s|": the record's number, prefix and id, prefix and name. The text of the vectors is not
// checked but for line ends, which become blanks.
void vxPutHead(VXWriter& out, int record, const char* prefixId, std::int64_t id, const char* prefix,
               const char* name) noexcept;
// Ends the record's line and adds it to `length`. When the next one might not fit, the buffer goes to the
// channel and `length` is 0.
void vxEndRecord(VXWriter& out, char* buffer, std::int32_t* length);
// Hands what the buffer holds to the channel; `length` is 0 afterwards.
void vxPassReport(char* buffer, std::int32_t* length);

// A count as a field of 32 bits shows it.
inline std::int32_t vxInt32(std::int64_t value) noexcept {
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, Limits::min(), Limits::max()));
}
// a / b in double, 0 where there is nothing to divide by.
inline double vxRatio(std::int64_t a, std::int64_t b) noexcept {
    return b == 0 ? 0.0 : static_cast<double>(a) / static_cast<double>(b);
}
// A least value as a record shows it; `start` is what it was before the first value.
inline double checkAndGetIntMinValue(std::int64_t min, std::int64_t start) noexcept {
    return min == start ? kUnsetMin : static_cast<double>(min);
}

}  // namespace vx
