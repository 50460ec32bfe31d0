// What the records of all instances add up to: business transactions, methods, back-ends, exceptions,
// callers, losses; and beside it what the monitors tell of the same.
//
// Business transactions, methods and back-ends of one name are one row, whichever instance they came from.
//
// Limits    At most kMaxRows names of a kind; what comes beyond is counted under "(more)".
// Units     Durations and method times in milliseconds, callouts in microseconds.
// Threads   One.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "tools/collector/collector_details.h"
#include "tools/collector/collector_monitors.h"

namespace vx::collector {

inline constexpr std::size_t kMaxRows = 65536;
inline constexpr std::size_t kMaxBtsOfException = 64;

struct BtRow : Figures {
    std::uint64_t discarded = 0;  // taken back by the sender, or excluded: not in `count`
    MonitorSide monitor;
};
struct MethodRow {
    std::uint64_t entries = 0, exits = 0;
    std::int64_t totalMs = 0, maxMs = 0;
    MonitorSide monitor;
};
struct BackendRow {
    const char* target = "";  // "HTTP", "DB", "MQ" or "custom"
    std::uint64_t count = 0, errors = 0;
    std::int64_t totalUs = 0, maxUs = 0;
    MonitorSide monitor;
};
struct ExceptionRow {
    std::uint64_t count = 0;
    std::string lastText;                      // where it was thrown last, and its message
    std::string lastStack;                     // lines, each with its newline
    std::map<std::string, std::uint64_t> bts;  // of ended transactions, at most kMaxBtsOfException
    MonitorSide monitor;
};
struct CallerRow {
    std::uint64_t announced = 0;  // once by each instance that it calls
};
struct Summary {
    std::map<std::string, BtRow, std::less<>> bts;
    std::map<std::string, MethodRow, std::less<>> methods;
    std::map<std::string, BackendRow, std::less<>> backends;
    std::map<std::string, CallerRow, std::less<>> callers;
    std::map<std::string, ExceptionRow, std::less<>> exceptions;
    BtRow all;  // of all business transactions
    KeptTransactions kept;
    std::uint64_t transactions = 0;    // 4 records that count
    std::uint64_t records = 0;         // lines of data streams
    std::uint64_t monitorRecords = 0;  // lines of auto-sensor streams
    std::uint64_t unreadable = 0;      // lines that are no record, or one that cannot be read
    std::uint64_t judgedRuns = 0;      // ended runs of instances, compared with their monitors
    std::uint64_t bytes = 0;
    std::map<int, std::uint64_t> byNumber;  // lines by record number
};

BtRow& btRow(Summary& summary, std::string_view name);
MethodRow& methodRow(Summary& summary, std::string_view name);
BackendRow& backendRow(Summary& summary, std::string_view name);
CallerRow& callerRow(Summary& summary, std::string_view name);
ExceptionRow& exceptionRow(Summary& summary, std::string_view name);

}  // namespace vx::collector
