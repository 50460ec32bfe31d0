// Metadata replay: what a new data connection has to learn again.
//
// Each collector function notes names and ids under the lock of its table, 256 records at a time, and writes
// them without it. What is added while it runs is told too.
//
// Threads   The data thread behind a 99 record, the control thread at a run-time change. Current context.
#pragma once

#include <array>

#include "commonlibc/context/VXExceptionState.h"

namespace vx {

// The 5 records of every method in use, the 6 records of every header name in use, and the 7 records of every
// live BT. The arguments are those of all collectors and carry nothing here.
void collectAndSendOnlyCached5Records(int first, int second);
void collectAndSendOnlyCached6Records(int first, int second);
void collectAndSendOnlyCached7Records(int first, int second);
// The metadata records of one table of exceptions' names (32 to 36).
void collectAndSendExceptionNames(ExceptionName kind);
template <ExceptionName kind>
void collectAndSendOnlyCachedExceptionRecords(int /*first*/, int /*second*/) {
    collectAndSendExceptionNames(kind);
}
struct VXReplayRow {
    int recordNumber;
    void (*collect)(int first, int second);
};
// In the order of the wire: 5, 6, 7, 22, 26, 32 to 36, 112. A number without a row has no content.
inline constexpr auto kReplayRows = std::to_array<VXReplayRow>({
    {5, collectAndSendOnlyCached5Records},
    {6, collectAndSendOnlyCached6Records},
    {7, collectAndSendOnlyCached7Records},
    {32, collectAndSendOnlyCachedExceptionRecords<ExceptionName::kClass>},
    {33, collectAndSendOnlyCachedExceptionRecords<ExceptionName::kThrowingClass>},
    {34, collectAndSendOnlyCachedExceptionRecords<ExceptionName::kThrowingMethod>},
    {35, collectAndSendOnlyCachedExceptionRecords<ExceptionName::kMessage>},
    {36, collectAndSendOnlyCachedExceptionRecords<ExceptionName::kCause>},
});

// The "11" record: "11,%d\n" with the number of the record that follows.
void dump11Record(int recordNumber);
// Everything behind a 99 record: all rows.
void replayMetaData();

}  // namespace vx
