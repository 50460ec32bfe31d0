#include "tools/collector/store_rows.h"

#include <algorithm>
#include <array>
#include <chrono>

namespace vx::collector {

namespace {

// What `least` is where nothing was counted: greater than any duration.
constexpr std::int64_t kNoLeast = (std::int64_t{1} << 53) - 1;

// In the order of the columns.
constexpr auto kLinkCounts = std::to_array<std::int64_t LinkRow::*>(
    {&LinkRow::records, &LinkRow::monitorRecords, &LinkRow::bytes, &LinkRow::unreadable, &LinkRow::dropped,
     &LinkRow::incomplete, &LinkRow::connects, &LinkRow::disconnects});

template <class... Values>
void putNumbers(RowSink& out, Values... values) {
    (out.number(static_cast<std::int64_t>(values)), ...);
}
template <class... Texts>
void putTexts(RowSink& out, const Texts&... texts) {
    (out.text(texts), ...);
}
void putCounts(RowSink& out, const Figures& row) {
    putNumbers(out, row.count, row.normal, row.slow, row.verySlow, row.error);
}
void putRange(RowSink& out, const Figures& row) {
    putNumbers(out, row.count ? row.minMs : kNoLeast, row.count ? row.maxMs : 0);
}

void putRow(const StoredTransaction& stored, RowSink& out) {
    const TransactionRow& row = stored.row;
    putNumbers(out, row.id, row.instance, row.flowpath, row.at, row.start, row.duration, row.cpu, row.status,
               row.category, row.endReason);
    putTexts(out, row.bt, row.url, row.session);
    putNumbers(out, row.page, row.parent, row.previous);
    putTexts(out, row.correlation, row.traceId, row.callerSpan);
    putNumbers(out, row.callouts, row.exceptions);
}

void putRow(const StoredCallout& row, RowSink& out) {
    putNumbers(out, row.tx, row.n, row.instance, row.at);
    putTexts(out, row.bt, row.backend, row.target);
    putNumbers(out, row.us, row.failed, row.status);
}

void putRow(const StoredException& row, RowSink& out) {
    putNumbers(out, row.tx, row.n, row.instance, row.at);
    putTexts(out, row.bt, row.name, row.place, row.stack);
}

void putRow(const StoredName& row, RowSink& out) {
    putNumbers(out, row.instance, row.kind, row.id, row.since);
    out.text(row.name);
}

void putRow(const StoredSum& row, RowSink& out) {
    putNumbers(out, row.step, row.kind, row.at, row.instance);
    out.text(row.name);
    putCounts(out, row.figures);
    putNumbers(out, row.discarded, row.totalUs);
    putRange(out, row.figures);
}

void putRow(const StoredBucket& row, RowSink& out) {
    putNumbers(out, row.step, row.kind, row.at, row.instance);
    out.text(row.name);
    putNumbers(out, row.bucket, row.count);
}

void putRow(const StoredMonitor& row, RowSink& out) {
    putNumbers(out, row.at, row.instance, row.kind);
    out.text(row.name);
    putCounts(out, row.figures);
    putNumbers(out, row.figures.totalMs);
    putRange(out, row.figures);
    out.text(row.line);
}

void putRow(const LinkRow& row, RowSink& out) {
    putNumbers(out, row.at, row.instance);
    for (const auto count : kLinkCounts) out.number(row.*count);
}

void putRow(const InstanceRow& row, RowSink& out) {
    out.number(row.instance);
    putTexts(out, row.tier, row.server, row.app, row.agent);
    putNumbers(out, row.epochMs, row.firstAt, row.lastAt);
}

void putRow(const RunComparison& row, RowSink& out) {
    putNumbers(out, row.at, row.instance, row.agreed, row.partial, row.differing);
}

template <class Row>
bool putEach(const std::vector<Row>& rows, RowSink& out) {
    return std::all_of(rows.begin(), rows.end(), [&out](const Row& row) {
        putRow(row, out);
        return out.endRow();
    });
}

bool putLines(const std::vector<StoredTransaction>& rows, RowSink& out) {
    return std::all_of(rows.begin(), rows.end(), [&out](const StoredTransaction& stored) {
        putNumbers(out, stored.row.id, stored.row.at);
        out.text(stored.lines);
        return out.endRow();
    });
}

template <class... Texts>
std::size_t sizes(const Texts&... texts) {
    return (std::size_t{0} + ... + texts.size());
}

}  // namespace

bool LinkRow::any() const {
    return std::any_of(kLinkCounts.begin(), kLinkCounts.end(),
                       [this](const auto count) { return this->*count; });
}

void LinkRow::add(const LinkRow& more) {
    for (const auto count : kLinkCounts) this->*count += more.*count;
}

bool putRows(TableId table, const Batch& batch, RowSink& out) {
    switch (table) {
        case kTransactions:
            return putEach(batch.transactions, out);
        case kRecords:
            return putLines(batch.transactions, out);
        case kCallouts:
            return putEach(batch.callouts, out);
        case kExceptions:
            return putEach(batch.exceptions, out);
        case kNames:
            return putEach(batch.names, out);
        case kSums:
            return putEach(batch.sums, out);
        case kBuckets:
            return putEach(batch.buckets, out);
        case kMonitors:
            return putEach(batch.monitors, out);
        case kLinks:
            return putEach(batch.links, out);
        case kInstances:
            return putEach(batch.instances, out);
        default:
            return putEach(batch.comparisons, out);
    }
}

std::size_t bytesOf(const StoredTransaction& stored) {
    const TransactionRow& row = stored.row;
    return sizeof(stored) +
           sizes(row.bt, row.url, row.session, row.correlation, row.traceId, row.callerSpan, stored.lines);
}
std::size_t bytesOf(const StoredCallout& row) {
    return sizeof(row) + sizes(row.bt, row.backend);
}
std::size_t bytesOf(const StoredException& row) {
    return sizeof(row) + sizes(row.bt, row.name, row.place, row.stack);
}
std::size_t bytesOf(const StoredName& row) {
    return sizeof(row) + row.name.size();
}

std::int64_t epochNow() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// FNV-1a, folded to 53 bits: JSON and its readers keep it exact.
std::int64_t instanceKey(std::string_view identity) {
    std::uint64_t hash = 14695981039346656037U;
    for (const char byte : identity) hash = (hash ^ static_cast<unsigned char>(byte)) * 1099511628211U;
    return static_cast<std::int64_t>((hash ^ (hash >> 53)) & ((std::uint64_t{1} << 53) - 1));
}

}  // namespace vx::collector
