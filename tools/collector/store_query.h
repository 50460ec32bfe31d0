// Questions to a store: what the page shows.
//
// A StoreQuery has a connection of its own, which only reads; the writer goes on meanwhile. Every question is
// bounded: by its own limit of rows, and by time: the database gives a statement up behind kQueryTimeMs, and
// behind twice as long a question begins no further one.
//
// Units     Times are milliseconds since the Unix epoch (UTC), spans hold their `from` and not their `to`;
//           durations are milliseconds.
// Errors    kOk; kCut: a limit was met, what is there is true but not all; kFailed: error() tells why, and
// the
//           output is empty.
// Limits    kMostRows rows in an answer, kMostSteps steps in a series.
// Threads   One at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/collector/collector_monitors.h"
#include "tools/collector/store_database.h"
#include "tools/collector/store_details.h"
#include "tools/collector/store_rows.h"

namespace vx::collector {

inline constexpr std::size_t kMostRows = 10000;
inline constexpr std::size_t kMostSteps = 1000;
inline constexpr std::size_t kMostReports = 1000;

// --- overview and sums ---

// What is asked of sums. They are kept in intervals of 10 s (10 min for what is older than two days): the
// span is rounded outwards to these, and `stepMs` up to a multiple, so great that the span has at most
// kMostSteps. Steps of a span that goes on are at multiples of themselves, so that they stay while it moves.
struct SumsQuery {
    Monitored kind = Monitored::kBt;
    TimeSpan span;
    std::int64_t stepMs = 10000;
    std::int64_t instance = 0;  // 0: all
};
struct SumsRow {
    std::string name;
    Figures figures;              // of the whole span; figures.totalMs / figures.count is the average
    std::uint64_t discarded = 0;  // taken back by the sender, or excluded: not in the figures
    double p95Ms = 0;             // within 2 % of the true one; exact below 64 ms
    std::int64_t totalUs = 0;     // figures.totalMs, finer
    std::vector<Figures> steps;   // one for each step of the span; the last may be a part of one
};
struct Sums {
    TimeSpan span;  // as rounded
    std::int64_t stepMs = 0;
    std::vector<SumsRow> rows;   // most counted first; at most 500, the rest in one row "(more)"
    std::vector<Figures> steps;  // all rows together, by step: charts by category
    Figures all;
    double p95Ms = 0;  // of all
};

// --- single transactions ---

struct TransactionsQuery {
    TimeSpan span;                       // of their ends
    std::string bt, backend, exception;  // exact names; empty: any
    std::string url;                     // a part of it; empty: any
    bool failedCalls = false;            // with a back-end: calls that failed
    std::int64_t leastCallMs = 0;        // with a back-end: calls that took so long
    std::int64_t caller = 0;             // an instance whose transactions called them; 0: any
    int category = 0;                    // 10, 11, 12, 13; 0: any; -1: all but normal ones
    std::int64_t status = -1;            // -1: any
    std::int64_t minMs = 0, maxMs = INT64_MAX;
    std::string session;        // all its digits; empty: any
    std::int64_t instance = 0;  // 0: any
    std::int64_t flowpath = 0;  // the number in the records; 0: any
    // Paging, latest first: the `at` and `id` of the last row of the page before.
    std::int64_t beforeAt = INT64_MAX, beforeId = INT64_MAX;
    std::size_t limit = 100;
};
// TransactionRow and TransactionDetails: store_details.h

// --- back-ends ---

struct BackendSums {
    std::string name, kind;  // kind: "HTTP", "DB", "MQ", "custom"
    std::uint64_t count = 0, errors = 0;
    double averageMs = 0, maxMs = 0, p95Ms = 0;
};
// Who calls whom: an instance's transactions call a back-end, or go on in another instance.
struct CallEdge {
    std::int64_t fromInstance = 0;
    std::int64_t toInstance = 0;  // 0: to a back-end
    std::string backend;          // of that name
    std::uint64_t count = 0, errors = 0;
    double averageMs = 0;
};
struct Backends {
    std::vector<BackendSums> rows;
    std::vector<CallEdge> edges;
};

// --- exceptions ---

struct ExceptionSums {
    std::string name;  // class
    std::uint64_t count = 0;
    std::int64_t lastAt = 0;
    std::int64_t lastTransaction = 0;                        // id of the last one's transaction
    std::string lastText, lastStack;                         // stack: lines, each with its newline
    std::vector<std::pair<std::string, std::uint64_t>> bts;  // most counted first, at most 20
};

// --- monitors beside sums ---

// What the monitors told and what the single records add up to, per object and step. The monitors' figures
// stand at the time of their arrival, some seconds behind the ends that they count: neighbouring steps trade
// some, and what was not recorded singly (sampling) is in the monitors alone.
struct MonitorStep {
    std::int64_t at = 0;
    Figures monitor, singles;
};
struct MonitorRow {
    std::string name;
    Figures monitor, singles;  // of the whole span
    std::vector<MonitorStep> steps;
};
// A line of a monitor, as it came.
struct ReportRow {
    std::int64_t at = 0, instance = 0;
    std::uint64_t count = 0;
    std::string line;
};
// --- requests, for rules ---

struct RequestRow {
    std::int64_t id = 0;
    std::string bt;
    std::string url, query;          // split at the first "?"
    std::vector<NameValue> headers;  // of the request, as far as captured
};

// The columns of transactions in the order of the table.
TransactionRow transactionOf(const ResultRow& row);

class StoreQuery {
public:
    StoreQuery();
    ~StoreQuery();
    StoreQuery(const StoreQuery&) = delete;
    StoreQuery& operator=(const StoreQuery&) = delete;

    // A database file, which is there already (a StoreWriter makes it). False with the reason in error().
    bool openFile(const std::string& path, int timeMs = kQueryTimeMs);
    // The tables behind --clickhouse URL.
    bool openClickHouse(const std::string& url, int timeMs = kQueryTimeMs);
    const std::string& error() const { return error_; }

    Answered sums(const SumsQuery& query, Sums& out);
    Answered transactions(const TransactionsQuery& query, std::vector<TransactionRow>& out);
    // How many there are in all, whatever the limit and the page. kCut: not known.
    Answered count(const TransactionsQuery& query, std::uint64_t& out);
    // kFailed with an empty error() when there is none of that id.
    Answered transactionRow(std::int64_t id, TransactionRow& out);
    Answered transaction(std::int64_t id, TransactionDetails& out);
    // The transaction of another tier that called this one. kFailed with an empty error() when there is none.
    Answered callerOf(const TransactionRow& row, TransactionRow& out);
    // The span that the last answer on sums, back-ends, exceptions or monitors covers: as it was rounded.
    TimeSpan covered() const { return covered_; }
    Answered backends(TimeSpan span, Backends& out);
    Answered exceptions(TimeSpan span, std::vector<ExceptionSums>& out);
    Answered monitors(const SumsQuery& query, std::vector<MonitorRow>& out);
    // The lines behind the row of that name, latest first: at most kMostReports.
    Answered reports(const SumsQuery& query, const std::string& name, std::vector<ReportRow>& out);
    Answered comparisons(TimeSpan span, std::vector<RunComparison>& out);
    Answered instances(std::vector<InstanceRow>& out);
    // Oldest first, added up over steps of `stepMs` (a multiple of 10 s); of one instance, or of all (0).
    Answered links(TimeSpan span, std::int64_t instance, std::int64_t stepMs, std::vector<LinkRow>& out);
    // The names in force now, of all instances: at most `most`, the latest. Those that the
    // collector of `nextId` was told go before all others: what another one was told may be of another run.
    Answered names(std::size_t most, std::int64_t nextId, std::vector<StoredName>& out);
    // The latest, latest first.
    Answered requests(std::size_t most, std::vector<RequestRow>& out);

private:
    // Stands while a public function answers: its error and its time are those of the outermost.
    class Question {
    public:
        explicit Question(StoreQuery& query);
        ~Question() { --query_.questions_; }
        Question(const Question&) = delete;
        Question& operator=(const Question&) = delete;

    private:
        StoreQuery& query_;
    };

    Answered ask(const Sql& sql, const Database::Take& take, Answered& worst);
    std::vector<std::int64_t> beginnings() const;
    Answered latestOf(const char* column, std::int64_t value, TransactionRow& out);
    Answered round(SumsQuery& query);
    std::string nameOf(std::int64_t instance, NameKind kind, std::int64_t id, std::int64_t transaction,
                       Answered& worst);
    Answered readLines(TransactionDetails& out);
    Answered neighbours(TransactionDetails& out);
    Answered tierEdges(TimeSpan span, std::vector<CallEdge>& edges);
    Answered kindsOf(TimeSpan span, std::vector<BackendSums>& rows);
    Answered lastOf(ExceptionSums& row, TimeSpan span);

    std::unique_ptr<Database> database_;
    std::string error_;
    int timeMs_ = kQueryTimeMs, questions_ = 0;
    std::chrono::steady_clock::time_point end_{};  // of the question
    TimeSpan covered_;
};

}  // namespace vx::collector
