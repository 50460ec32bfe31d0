// What the records of all instances add up to: business transactions, methods, back-ends, callers, losses.
//
// Business transactions, methods and back-ends of one name are one row, whichever instance they came from.
//
// Limits    At most kMaxRows names of a kind; what comes beyond is counted under "(more)".
// Units     Durations and method times in milliseconds, callouts in microseconds.
// Threads   One.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>

namespace vx::collector {

inline constexpr std::size_t kMaxRows = 65536;

struct BtRow {
    std::uint64_t count = 0, normal = 0, slow = 0, verySlow = 0, error = 0;
    std::uint64_t discarded = 0;  // taken back by the sender, or excluded: not in `count`
    std::int64_t totalMs = 0, minMs = 0, maxMs = 0;
};
struct MethodRow {
    std::uint64_t entries = 0, exits = 0;
    std::int64_t totalMs = 0, maxMs = 0;
};
struct BackendRow {
    const char* target = "";  // "HTTP", "DB", "MQ" or "custom"
    std::uint64_t count = 0, errors = 0;
    std::int64_t totalUs = 0, maxUs = 0;
};
struct CallerRow {
    std::uint64_t announced = 0;  // once by each instance that it calls
};
struct Summary {
    std::map<std::string, BtRow, std::less<>> bts;
    std::map<std::string, MethodRow, std::less<>> methods;
    std::map<std::string, BackendRow, std::less<>> backends;
    std::map<std::string, CallerRow, std::less<>> callers;
    std::uint64_t transactions = 0;  // 4 records that count
    std::uint64_t records = 0;       // lines of data streams
    std::uint64_t unreadable = 0;    // lines that are no record
    std::uint64_t bytes = 0;
    std::map<int, std::uint64_t> byNumber;  // lines by record number
};

BtRow& btRow(Summary& summary, std::string_view name);
MethodRow& methodRow(Summary& summary, std::string_view name);
BackendRow& backendRow(Summary& summary, std::string_view name);
CallerRow& callerRow(Summary& summary, std::string_view name);
// Counts one ended transaction: category 10 normal, 11 slow, 12 very slow, 13 error.
void addTransaction(Summary& summary, BtRow& row, int category, std::int64_t durationMs);
// Prints the table; at most `most` rows of a kind, those with the most transactions first.
void printSummary(const Summary& summary, std::FILE* out, std::size_t most);

}  // namespace vx::collector
