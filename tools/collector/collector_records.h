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

// One item of a sequence blob.
struct BlobItem {
    enum class Kind { kEntry, kExit, kCallout, kException } kind;
    std::int64_t methodId;  // entry, exit; callout: of the back-end
    std::int64_t ms;        // entry: since the start; exit: wall time
    std::int64_t us;        // callout: wall time
    std::int64_t target;    // callout: 1 HTTP, 8 custom, 13 message queue, others a data base
    bool failed;            // callout: written as an E item
};
// Takes the item at the front of `blob`; false at its end or where no item can be read.
bool takeBlobItem(std::string_view& blob, BlobItem& item);

}  // namespace vx::collector
