#include "tools/collector/collector_summary.h"

#include <algorithm>
#include <vector>

namespace vx::collector {

namespace {

constexpr std::string_view kMore = "(more)";

template <class Row>
Row& rowOf(std::map<std::string, Row, std::less<>>& rows, std::string_view name) {
    auto found = rows.find(name);
    if (found != rows.end()) return found->second;
    if (rows.size() >= kMaxRows) name = kMore;
    return rows[std::string(name)];
}

// Rows with the greatest `weight` first.
template <class Row, class Weight>
std::vector<std::pair<std::string_view, const Row*>> sorted(
    const std::map<std::string, Row, std::less<>>& rows, Weight weight) {
    std::vector<std::pair<std::string_view, const Row*>> out;
    out.reserve(rows.size());
    for (const auto& [name, row] : rows) out.emplace_back(name, &row);
    std::stable_sort(out.begin(), out.end(),
                     [&](const auto& a, const auto& b) { return weight(*a.second) > weight(*b.second); });
    return out;
}

unsigned long long wide(std::uint64_t value) {
    return value;
}
double average(std::int64_t total, std::uint64_t count) {
    return count ? static_cast<double>(total) / static_cast<double>(count) : 0.0;
}

void printBts(const Summary& summary, std::FILE* out, std::size_t most) {
    std::fprintf(out, "%-44s %8s %8s %6s %9s %6s %10s %8s %8s\n", "BUSINESS TRANSACTION", "count", "normal",
                 "slow", "very slow", "error", "avg ms", "min ms", "max ms");
    auto rows = sorted(summary.bts, [](const BtRow& row) { return row.count; });
    for (std::size_t i = 0; i < rows.size() && i < most; ++i) {
        const BtRow& row = *rows[i].second;
        std::fprintf(out, "%-44.44s %8llu %8llu %6llu %9llu %6llu %10.1f %8lld %8lld\n",
                     std::string(rows[i].first).c_str(), wide(row.count), wide(row.normal), wide(row.slow),
                     wide(row.verySlow), wide(row.error), average(row.totalMs, row.count),
                     static_cast<long long>(row.minMs), static_cast<long long>(row.maxMs));
    }
    if (rows.size() > most) std::fprintf(out, "... and %zu more\n", rows.size() - most);
}

void printMethods(const Summary& summary, std::FILE* out, std::size_t most) {
    std::fprintf(out, "%-60s %10s %10s %10s %8s\n", "METHOD", "entries", "exits", "avg ms", "max ms");
    auto rows = sorted(summary.methods, [](const MethodRow& row) { return row.exits; });
    for (std::size_t i = 0; i < rows.size() && i < most; ++i) {
        const MethodRow& row = *rows[i].second;
        std::fprintf(out, "%-60.60s %10llu %10llu %10.1f %8lld\n", std::string(rows[i].first).c_str(),
                     wide(row.entries), wide(row.exits), average(row.totalMs, row.exits),
                     static_cast<long long>(row.maxMs));
    }
    if (rows.size() > most) std::fprintf(out, "... and %zu more\n", rows.size() - most);
}

void printBackends(const Summary& summary, std::FILE* out, std::size_t most) {
    if (summary.backends.empty()) return;
    std::fprintf(out, "\n%-53s %6s %10s %10s %10s %8s\n", "BACK-END", "kind", "callouts", "errors", "avg ms",
                 "max ms");
    auto rows = sorted(summary.backends, [](const BackendRow& row) { return row.count; });
    for (std::size_t i = 0; i < rows.size() && i < most; ++i) {
        const BackendRow& row = *rows[i].second;
        std::fprintf(out, "%-53.53s %6s %10llu %10llu %10.1f %8.1f\n", std::string(rows[i].first).c_str(),
                     row.target, wide(row.count), wide(row.errors), average(row.totalUs, row.count) / 1000,
                     static_cast<double>(row.maxUs) / 1000);
    }
    if (rows.size() > most) std::fprintf(out, "... and %zu more\n", rows.size() - most);
}

void printCallers(const Summary& summary, std::FILE* out, std::size_t most) {
    if (summary.callers.empty()) return;
    std::fprintf(out, "\n%-60s %10s\n", "CALLER", "announced");
    auto rows = sorted(summary.callers, [](const CallerRow& row) { return row.announced; });
    for (std::size_t i = 0; i < rows.size() && i < most; ++i)
        std::fprintf(out, "%-60.60s %10llu\n", std::string(rows[i].first).c_str(),
                     wide(rows[i].second->announced));
    if (rows.size() > most) std::fprintf(out, "... and %zu more\n", rows.size() - most);
}

}  // namespace

BtRow& btRow(Summary& summary, std::string_view name) {
    return rowOf(summary.bts, name);
}
MethodRow& methodRow(Summary& summary, std::string_view name) {
    return rowOf(summary.methods, name);
}

BackendRow& backendRow(Summary& summary, std::string_view name) {
    return rowOf(summary.backends, name);
}
CallerRow& callerRow(Summary& summary, std::string_view name) {
    return rowOf(summary.callers, name);
}

void addTransaction(Summary& summary, BtRow& row, int category, std::int64_t durationMs) {
    ++summary.transactions;
    row.minMs = row.count ? std::min(row.minMs, durationMs) : durationMs;
    row.maxMs = row.count ? std::max(row.maxMs, durationMs) : durationMs;
    ++row.count;
    row.totalMs += durationMs;
    switch (category) {
        case 10:
            ++row.normal;
            break;
        case 11:
            ++row.slow;
            break;
        case 12:
            ++row.verySlow;
            break;
        case 13:
            ++row.error;
            break;
        default:
            break;
    }
}

void printSummary(const Summary& summary, std::FILE* out, std::size_t most) {
    printBts(summary, out, most);
    std::fputc('\n', out);
    printMethods(summary, out, most);
    printBackends(summary, out, most);
    printCallers(summary, out, most);
    std::uint64_t discarded = 0;
    for (const auto& [name, row] : summary.bts) discarded += row.discarded;
    std::fprintf(out,
                 "\ntransactions %llu, discarded by sender %llu, records %llu, unreadable %llu, bytes %llu\n",
                 wide(summary.transactions), wide(discarded), wide(summary.records), wide(summary.unreadable),
                 wide(summary.bytes));
    std::fputs("records by number:", out);
    for (const auto& [number, count] : summary.byNumber) std::fprintf(out, " %d=%llu", number, wide(count));
    std::fputc('\n', out);
    std::fflush(out);
}

}  // namespace vx::collector
