#include "tools/collector/collector_table.h"

#include <algorithm>
#include <string>
#include <vector>

namespace vx::collector {

namespace {

constexpr std::size_t kStackLines = 4;

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

// Prints the first `most` rows, each by `print(name, row)`.
template <class Row, class Weight, class Print>
void printRows(const std::map<std::string, Row, std::less<>>& rows, std::size_t most, std::FILE* out,
               Weight weight, Print print) {
    const auto order = sorted(rows, weight);
    for (std::size_t i = 0; i < order.size() && i < most; ++i)
        print(std::string(order[i].first).c_str(), *order[i].second);
    if (order.size() > most) std::fprintf(out, "... and %zu more\n", order.size() - most);
}

// "agrees", "DIFFERS in 1 of 3 runs": what comparing the ended runs has shown.
std::string answerOf(const MonitorSide& side) {
    const std::uint64_t runs = side.agreed + side.partial + side.differing;
    if (runs == 0) return "not compared yet";
    const auto inRuns = [runs](const char* word, std::uint64_t count) {
        return std::string(word) + " in " + std::to_string(count) + " of " + std::to_string(runs) + " runs";
    };
    if (side.differing) return inRuns("DIFFERS", side.differing);
    return side.partial ? inRuns("recorded in part", side.partial) : "agrees";
}

void printPercentiles(const MonitorSide& side, std::FILE* out) {
    if (!side.percentiles.empty()) std::fprintf(out, "  last period %s\n", side.percentiles.c_str());
}

void printFigures(const char* name, const Figures& row, std::FILE* out) {
    std::fprintf(out, "%-44.44s %8llu %8llu %6llu %9llu %6llu %10.1f %8lld %8lld", name, wide(row.count),
                 wide(row.normal), wide(row.slow), wide(row.verySlow), wide(row.error),
                 average(row.totalMs, row.count), static_cast<long long>(row.minMs),
                 static_cast<long long>(row.maxMs));
}

void printBt(const char* name, const BtRow& row, std::FILE* out) {
    printFigures(name, row, out);
    std::fputc('\n', out);
    if (row.monitor.reported) {
        printFigures("  monitor", row.monitor.figures, out);
        std::fprintf(out, "  %s\n", answerOf(row.monitor).c_str());
    }
    printPercentiles(row.monitor, out);
}

void printBts(const Summary& summary, std::FILE* out, std::size_t most) {
    std::fprintf(out, "%-44s %8s %8s %6s %9s %6s %10s %8s %8s\n", "BUSINESS TRANSACTION", "count", "normal",
                 "slow", "very slow", "error", "avg ms", "min ms", "max ms");
    printRows(
        summary.bts, most, out, [](const BtRow& row) { return row.count; },
        [out](const char* name, const BtRow& row) { printBt(name, row, out); });
    printBt("(all)", summary.all, out);
}

void printMethods(const Summary& summary, std::FILE* out, std::size_t most) {
    std::fprintf(out, "\n%-60s %10s %10s %10s %8s\n", "METHOD", "entries", "exits", "avg ms", "max ms");
    printRows(
        summary.methods, most, out, [](const MethodRow& row) { return row.exits; },
        [out](const char* name, const MethodRow& row) {
            std::fprintf(out, "%-60.60s %10llu %10llu %10.1f %8lld\n", name, wide(row.entries),
                         wide(row.exits), average(row.totalMs, row.exits), static_cast<long long>(row.maxMs));
            const Figures& told = row.monitor.figures;
            if (row.monitor.reported)
                std::fprintf(out, "%-60s %10s %10llu %10.1f %8lld  %s\n", "  monitor", "", wide(told.count),
                             average(told.totalMs, told.count), static_cast<long long>(told.maxMs),
                             answerOf(row.monitor).c_str());
        });
}

void printBackends(const Summary& summary, std::FILE* out, std::size_t most) {
    if (summary.backends.empty()) return;
    std::fprintf(out, "\n%-53s %6s %10s %10s %10s %8s\n", "BACK-END", "kind", "callouts", "errors", "avg ms",
                 "max ms");
    printRows(
        summary.backends, most, out, [](const BackendRow& row) { return row.count; },
        [out](const char* name, const BackendRow& row) {
            std::fprintf(out, "%-53.53s %6s %10llu %10llu %10.1f %8.1f\n", name, row.target, wide(row.count),
                         wide(row.errors), average(row.totalUs, row.count) / 1000,
                         static_cast<double>(row.maxUs) / 1000);
            const Figures& told = row.monitor.figures;
            if (row.monitor.reported)
                std::fprintf(out, "%-53s %6s %10llu %10llu %10.1f %8.1f  %s\n", "  monitor", "",
                             wide(told.count), wide(told.error), average(told.totalMs, told.count),
                             static_cast<double>(told.maxMs), answerOf(row.monitor).c_str());
            printPercentiles(row.monitor, out);
        });
}

void printLastException(const ExceptionRow& row, std::FILE* out) {
    if (!row.bts.empty()) {
        std::fputs("  in", out);
        for (const auto& [bt, count] : row.bts) std::fprintf(out, " %s (%llu)", bt.c_str(), wide(count));
        std::fputc('\n', out);
    }
    if (!row.lastText.empty()) std::fprintf(out, "  last %s\n", row.lastText.c_str());
    std::size_t at = 0;
    for (std::size_t line = 0; line < kStackLines && at < row.lastStack.size(); ++line) {
        const std::size_t end = std::min(row.lastStack.find('\n', at), row.lastStack.size());
        std::fprintf(out, "    %s\n", row.lastStack.substr(at, end - at).c_str());
        at = end + 1;
    }
    if (at < row.lastStack.size()) std::fputs("    ...\n", out);
}

void printExceptions(const Summary& summary, std::FILE* out, std::size_t most) {
    if (summary.exceptions.empty()) return;
    std::fprintf(out, "\n%-60s %10s\n", "EXCEPTION", "count");
    printRows(
        summary.exceptions, most, out, [](const ExceptionRow& row) { return row.count; },
        [out](const char* name, const ExceptionRow& row) {
            std::fprintf(out, "%-60.60s %10llu\n", name, wide(row.count));
            if (row.monitor.reported)
                std::fprintf(out, "%-60s %10llu  %s\n", "  monitor", wide(row.monitor.figures.count),
                             answerOf(row.monitor).c_str());
            printLastException(row, out);
        });
}

void printCallers(const Summary& summary, std::FILE* out, std::size_t most) {
    if (summary.callers.empty()) return;
    std::fprintf(out, "\n%-60s %10s\n", "CALLER", "announced");
    printRows(
        summary.callers, most, out, [](const CallerRow& row) { return row.announced; },
        [out](const char* name, const CallerRow& row) {
            std::fprintf(out, "%-60.60s %10llu\n", name, wide(row.announced));
        });
}

template <class Row>
std::uint64_t differing(const std::map<std::string, Row, std::less<>>& rows) {
    std::uint64_t count = 0;
    for (const auto& [name, row] : rows) count += row.monitor.differing > 0;
    return count;
}

}  // namespace

void printSummary(const Summary& summary, std::FILE* out, std::size_t most) {
    printBts(summary, out, most);
    printMethods(summary, out, most);
    printBackends(summary, out, most);
    printExceptions(summary, out, most);
    printCallers(summary, out, most);
    std::uint64_t discarded = 0;
    for (const auto& [name, row] : summary.bts) discarded += row.discarded;
    std::fprintf(
        out, "\nmonitors compared in %llu ended runs, rows that differ %llu\n", wide(summary.judgedRuns),
        wide((summary.all.monitor.differing > 0) + differing(summary.bts) + differing(summary.methods) +
             differing(summary.backends) + differing(summary.exceptions)));
    std::fprintf(out,
                 "transactions %llu, discarded by sender %llu, records %llu, of monitors %llu, unreadable "
                 "%llu, bytes %llu\n",
                 wide(summary.transactions), wide(discarded), wide(summary.records),
                 wide(summary.monitorRecords), wide(summary.unreadable), wide(summary.bytes));
    std::fputs("records by number:", out);
    for (const auto& [number, count] : summary.byNumber) std::fprintf(out, " %d=%llu", number, wide(count));
    std::fputc('\n', out);
    std::fflush(out);
}

}  // namespace vx::collector
