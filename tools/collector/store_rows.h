// Rows of a store, and the batch in which they travel from the intake to the writer.
//
// Each row lists its values in the order of its table's columns (store_schema): putRows() is what all engines
// write from. What a column means stands in docs/collector.md.
//
// Units     Milliseconds since the Unix epoch, durations in milliseconds, `us` in microseconds.
// Threads   A batch belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/collector/collector_monitors.h"
#include "tools/collector/store_details.h"
#include "tools/collector/store_schema.h"

namespace vx::collector {

inline constexpr std::int64_t kSumStep = 10'000, kLongSumStep = 600'000;

// Takes rows: the values of each in the order of its columns, and its end.
class RowSink {
public:
    virtual ~RowSink() = default;
    virtual void number(std::int64_t value) = 0;
    virtual void text(std::string_view value) = 0;
    // False when the row cannot be taken: no further one comes.
    virtual bool endRow() = 0;
};

struct StoredTransaction {
    TransactionRow row;
    std::string lines;  // each with its newline
};
struct StoredCallout {
    std::int64_t tx = 0, n = 0, instance = 0, at = 0;
    std::string bt, backend;
    std::string target;
    std::int64_t us = 0, failed = 0, status = 0;
};
struct StoredException {
    std::int64_t tx = 0, n = 0, instance = 0, at = 0;
    std::string bt, name, place, stack;
};
struct StoredName {
    std::int64_t instance = 0, kind = 0, id = 0, since = 0;
    std::string name;
};
struct StoredSum {
    std::int64_t step = 0, kind = 0, at = 0, instance = 0;
    std::string name;
    Figures figures;
    std::int64_t discarded = 0, totalUs = 0;
};
struct StoredBucket {
    std::int64_t step = 0, kind = 0, at = 0, instance = 0;
    std::string name;
    std::int64_t bucket = 0, count = 0;
};
struct StoredMonitor {
    std::int64_t at = 0, instance = 0, kind = 0;
    std::string name;
    Figures figures;
    std::string line;
};
// What came over the links of an instance in an interval of kSumStep.
struct LinkRow {
    std::int64_t at = 0, instance = 0;
    std::int64_t records = 0, monitorRecords = 0, bytes = 0;  // of data and auto-sensor connections
    std::int64_t unreadable = 0;                              // lines that are no record
    std::int64_t dropped = 0;     // transactions that found no room on their way into the store
    std::int64_t incomplete = 0;  // transactions whose end did not come
    std::int64_t connects = 0, disconnects = 0;

    bool any() const;
    void add(const LinkRow& more);  // its counts
};
struct InstanceRow {
    std::int64_t instance = 0;  // its key, below 2^53
    std::string tier, server, app, agent;
    std::int64_t epochMs = 0;              // base of the times in its records
    std::int64_t firstAt = 0, lastAt = 0;  // of anything that came from it
};
// An ended run, each object of the monitors compared with its single records.
struct RunComparison {
    std::int64_t at = 0, instance = 0;
    std::uint64_t agreed = 0, partial = 0, differing = 0;
};

struct Batch {
    std::vector<StoredTransaction> transactions;
    std::vector<StoredCallout> callouts;
    std::vector<StoredException> exceptions;
    std::vector<StoredName> names;
    std::vector<StoredSum> sums;
    std::vector<StoredBucket> buckets;
    std::vector<StoredMonitor> monitors;
    std::vector<LinkRow> links;
    std::vector<InstanceRow> instances;
    std::vector<RunComparison> comparisons;
    std::size_t bytes = 0;  // about what it holds in memory

    bool empty() const { return bytes == 0; }
};

// All rows of a table; false when the sink did not take one.
bool putRows(TableId table, const Batch& batch, RowSink& out);

// About what a row takes in memory.
std::size_t bytesOf(const StoredTransaction& row);
std::size_t bytesOf(const StoredCallout& row);
std::size_t bytesOf(const StoredException& row);
std::size_t bytesOf(const StoredName& row);

// Milliseconds since the Unix epoch, now.
std::int64_t epochNow();
// The key of an instance: the same for the same identity, in every collector.
std::int64_t instanceKey(std::string_view identity);

}  // namespace vx::collector
