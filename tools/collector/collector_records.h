// Decoder of the data stream: text records to figures of the summary.
//
// The stream of one instance starts with a 99 record and names what it uses: 7 records give BT ids their
// names, 5 records methods and back-ends, 6 headers, 32 to 36 what exceptions consist of. Ids belong to the
// instance, so each instance has a decoder state of its own.
//
// Limits    Ids above kMaxId have no name of their own; a line may have any length.
// Errors    A line that is no record adds one to `unreadable` and changes nothing else.
// Threads   One.
#pragma once

#include <cstdint>
#include <string_view>

#include "tools/collector/collector_instance.h"
#include "tools/collector/collector_summary.h"

namespace vx::collector {

// Takes one line of a data stream, without its newline; an empty line is a heartbeat.
void takeRecord(std::string_view line, InstanceState& instance, Summary& summary);

inline constexpr std::int64_t kMostMs = 100'000'000'000;  // three years: longer times are cut
inline constexpr std::int64_t kTakenBack = -99;           // as status or category of an end

// One item of a sequence blob; texts borrow from it.
struct BlobItem {
    enum class Kind { kEntry, kExit, kCallout, kException } kind;
    std::int64_t methodId;   // entry, exit; callout: of the back-end
    std::int64_t thread;     // entry, exit
    std::int64_t ms;         // entry, callout: since the start; exit: wall time
    std::int64_t cpu;        // exit: as the agent gave it
    std::int64_t us;         // callout: wall time
    std::int64_t target;     // callout: 1 HTTP, 8 custom, 13 message queue, others a data base
    std::int64_t seq;        // callout, exception
    std::int64_t status;     // callout
    bool failed;             // callout: written as an E item
    std::string_view query;  // callout: number of a data base's query, "-" for others
    std::string_view text;   // entry: URL; callout: parameters of a query
    const char* mark;        // of the blob: where its next "_0_" stands, or its end; null: not looked for yet
};
// Takes the item at the front of `blob`; false at its end or where no item can be read. A new blob begins
// with a new `item`.
bool takeBlobItem(std::string_view& blob, BlobItem& item);
// "HTTP", "custom", "MQ" or "DB".
const char* targetText(std::int64_t target);

// "instance,start,thread,thread.1,bt,url,correlation,parent,session,page,,endReason,startArgument,trace,span,
// flags,startRel": what stands behind "2,". The URL may hold commas.
struct HeaderRecord {
    std::int64_t flowpath, previous, bt, parent, page, startRelMs;
    std::string_view url, correlation, session, traceId, callerSpan;
};
bool readHeader(std::string_view rest, HeaderRecord& header);

// "instance,status,category,cpu,duration,bt,endReason,,endField[,tag],blob": what stands behind "4,".
struct EndRecord {
    std::int64_t flowpath, status, category, cpu, durationMs, bt, endReason;
    std::string_view blob;
    bool takenBack() const { return status == kTakenBack || category == kTakenBack; }
};
bool readEnd(std::string_view rest, EndRecord& end);

}  // namespace vx::collector
