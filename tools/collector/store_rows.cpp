#include "tools/collector/store_rows.h"

#include <chrono>

namespace vx::collector {

namespace {

// What `least` is where nothing was counted: greater than any duration.
constexpr std::int64_t kNoLeast = (std::int64_t{1} << 53) - 1;

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

}  // namespace

void putRow(const StoredTransaction& stored, RowSink& out) {
    const TransactionRow& row = stored.row;
    putNumbers(out, row.id, row.instance, row.flowpath, row.at, row.start, row.duration, row.cpu, row.status,
               row.category, row.endReason);
    putTexts(out, row.bt, row.url, row.session);
    putNumbers(out, row.page, row.parent, row.previous);
    putTexts(out, row.correlation, row.traceId, row.callerSpan);
    putNumbers(out, row.callouts, row.exceptions);
}

void putLines(const StoredTransaction& stored, RowSink& out) {
    out.number(stored.row.id);
    out.number(stored.row.at);
    out.text(stored.lines);
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
    putNumbers(out, row.at, row.instance, row.records, row.monitorRecords, row.bytes, row.unreadable,
               row.dropped, row.incomplete, row.connects, row.disconnects);
}

void putRow(const InstanceRow& row, RowSink& out) {
    out.number(row.instance);
    putTexts(out, row.tier, row.server, row.app, row.agent);
    putNumbers(out, row.epochMs, row.firstAt, row.lastAt);
}

void putRow(const RunComparison& row, RowSink& out) {
    putNumbers(out, row.at, row.instance, row.agreed, row.partial, row.differing);
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
