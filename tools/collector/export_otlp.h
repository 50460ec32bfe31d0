// Stored transactions as OpenTelemetry spans: OTLP in its JSON form.
//
// Each line of the output is a whole export request ({"resourceSpans": [...]}) with transactions of one page,
// as file exporters write them; a single line can be posted to a receiver as it is.
//
//     transaction   span of kind SERVER (2), named by its BT; the trace's own ids where the trace context was
//                   captured, else ids made of instance, number and start: the same in every export
//     method        span of kind INTERNAL (1) under the method or transaction that it ran in
//     callout       span of kind CLIENT (3); to a message queue PRODUCER (4)
//     exception     event "exception" of the transaction's span
//
// A transaction that another tier has called is in the trace of its caller, when that is stored.
//
// Units     Times are texts of nanoseconds since the Unix epoch.
// Threads   One.
#pragma once

#include <cstdint>
#include <string>

#include "tools/collector/store_query.h"

namespace vx::collector {

struct TraceIds {
    std::string trace;   // 32 hex digits
    std::string span;    // 16 hex digits: of the transaction
    std::string parent;  // 16 hex digits, or empty
};
// Adds the span of a transaction and those of its items, each behind a comma but the first.
void addSpans(std::string& out, const TransactionDetails& tx, const TraceIds& ids);
// Ids of a transaction that nobody has called, or whose caller is not stored.
TraceIds ownIds(const TransactionRow& row);
// The attributes of an instance's resource, as a JSON array.
std::string resourceOf(const InstanceRow& instance);

}  // namespace vx::collector
