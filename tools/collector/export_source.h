// Stored transactions with all that their records tell, a page at a time, for the export.
//
// A page is of one moment of a file: a transaction in it has all its records, or is not there. In a server
// the records come a little later than their transaction: one that has none yet is passed over and counted.
//
// Errors    kCut and kFailed with the reason in error(): what is asked for is not whole.
// Limits    kExportPage transactions in a page; names that are remembered: kMostNameBytes, then they are
//           asked for again. A server is not always asked for callers by a clock more than ten minutes off:
//           behind kMostVainLooks in a row that found none only once in so many times.
// Threads   One.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tools/collector/store_details.h"
#include "tools/collector/store_pager.h"
#include "tools/collector/store_rows.h"

namespace vx::collector {

inline constexpr std::size_t kExportPage = 200;
inline constexpr std::size_t kMostNameBytes = std::size_t{32} * 1024 * 1024;
inline constexpr int kMostTiers = 16;  // of a chain of callers
inline constexpr std::uint64_t kMostVainLooks = 50;

class ExportSource {
public:
    // The database outlives it.
    ExportSource(Database& database, TimeSpan span);
    // The next transactions; none at the end. The others answer for these, until the next are read.
    Answered next(std::vector<TransactionRow>& rows);
    Answered detailsOf(const TransactionRow& row, TransactionDetails& out);
    // The transactions of other tiers that led to this one, the nearest first.
    std::vector<const TransactionRow*> callersOf(const TransactionRow& row) const;
    // Null when nothing is known of its instance.
    const InstanceRow* instanceOf(std::int64_t key) const;
    std::uint64_t withoutRecords() const { return withoutRecords_; }
    const std::string& error() const { return error_; }

private:
    using NameId = std::tuple<std::int64_t, NameKind, std::int64_t>;        // instance, kind, id
    using NamesInTime = std::vector<std::pair<std::int64_t, std::string>>;  // by the transaction behind them

    Answered readPage(std::vector<TransactionRow>& rows);
    Answered readLines(const std::vector<TransactionRow>& rows);
    Answered readCallers(const std::vector<TransactionRow>& rows);
    Answered findCallers(const std::vector<std::int64_t>& flowpaths, TimeSpan around);
    Answered findFarCallers(const std::vector<std::int64_t>& flowpaths, TimeSpan around);
    Answered readInstances(const std::vector<TransactionRow>& rows);
    const NamesInTime& namesOf(const NameId& id, Answered& worst);
    void forgetYoungNames(std::int64_t at);

    Database& database_;
    StorePager pager_;
    std::map<std::int64_t, std::string> lines_;       // of the page, by transaction
    std::map<std::int64_t, TransactionRow> callers_;  // of the page, by flowpath
    std::map<std::int64_t, InstanceRow> instances_;
    std::map<NameId, NamesInTime> names_;
    std::size_t nameBytes_ = 0;
    std::int64_t namesAt_ = 0;                          // since when they are remembered
    std::uint64_t withoutRecords_ = 0, vainLooks_ = 0;  // the latter in a row
    std::string error_;
};

}  // namespace vx::collector
