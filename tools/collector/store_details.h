// One transaction out of its records: fields, call tree, callouts, headers, exceptions.
//
// A store keeps the lines that told of a transaction as they came; the ids in them are names in the store's
// table of names. This unit reads the lines again when somebody looks.
//
// Limits    kMostItems items; what comes behind is cut, and `cut` says so. Lines that cannot be read are
//           passed over.
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vx::collector {

inline constexpr std::size_t kMostItems = 20000;

struct NameValue {
    std::string name, value;
};

// What is known of each transaction without reading its records.
struct TransactionRow {
    std::int64_t id = 0;        // of the store, below 2^53; grows in the order of arrival
    std::int64_t instance = 0;  // key of its instance
    std::int64_t flowpath = 0;  // its number in the records, up to 2^63: a text in JSON
    std::int64_t at = 0;        // its end, by which lists are ordered; ms since the epoch
    std::int64_t start = 0;
    std::int64_t duration = 0, cpu = 0;  // ms; CPU as the agent gave it
    std::int64_t status = 0, category = 0, endReason = 0;
    std::string bt, url;  // the URL with its parameters
    std::string session;  // digits, as the records have it: more than 64 bits hold
    std::int64_t page = 0, parent = 0;
    std::int64_t previous = 0;  // flowpath of the calling tier's transaction; 0: none
    std::string correlation;
    std::string traceId, callerSpan;  // hex digits of the trace context; empty: none
    std::int64_t callouts = 0, exceptions = 0;
};

struct TransactionItem {
    enum class Kind { kMethod, kCallout, kException } kind = Kind::kMethod;
    std::string name;  // method, back-end, or exception's class
    int parent = -1;   // place of the method that it ran in; -1: none
    int depth = 0;
    double startMs = 0;       // since the start of the transaction
    double durationMs = 0;    // wall time
    double selfMs = 0;        // without the methods and callouts inside
    double cpuMs = 0;         // method: as the agent gave it
    bool open = false;        // method: its exit did not come; the duration is up to the last item seen
    bool failed = false;      // callout
    std::int64_t seq = 0;     // callout, exception
    std::int64_t status = 0;  // callout
    std::string target;       // callout: "HTTP", "DB", "MQ", "custom"
    std::string query;        // callout of a data base, or the URL of a method
};

struct TransactionException {
    std::int64_t at = 0;  // ms since the epoch, whole seconds
    std::int64_t seq = 0;
    std::string name, throwingClass, throwingMethod, message, cause;
    std::string stack;  // lines, each with its newline
};

struct Argument {
    std::string method, name, value;
};

struct TransactionDetails {
    TransactionRow row;
    std::vector<TransactionItem> items;  // in the order of their starts: a tree by `parent`
    std::vector<NameValue> request, response;
    std::vector<TransactionException> exceptions;
    std::vector<Argument> arguments;
    std::vector<std::string> records;  // the lines themselves, in their order
    bool cut = false;                  // not all of it is here
    // Neighbours over tiers: ids of stored transactions.
    std::int64_t caller = 0;  // 0: none, or not stored
    std::vector<std::int64_t> callees;
};

enum class NameKind : std::uint8_t {
    kBt = 7,
    kMethod = 5,
    kHeader = 6,
    kExceptionClass = 32,
    kThrowingClass = 33,
    kThrowingMethod = 34,
    kMessage = 35,
    kCause = 36,
};
// The name of an id, as it was when the transaction ended; empty when it is not known.
using NameLookup = std::function<std::string(NameKind kind, std::int64_t id)>;

// Stands among the lines of a transaction in place of those for which there was no room.
inline constexpr std::string_view kCutLine = "...";

// Fills items, headers, exceptions, arguments and records from the lines. `durationMs` is that of the
// transaction, `epochMs` the base of the times in its instance's records.
void readDetails(std::string_view lines, std::int64_t durationMs, std::int64_t epochMs,
                 const NameLookup& nameOf, TransactionDetails& out);
// Only the headers of the request.
std::vector<NameValue> readRequestHeaders(std::string_view lines, const NameLookup& nameOf);
// What stands behind "38,". False where it cannot be read.
bool readException(std::string_view rest, std::int64_t epochMs, const NameLookup& nameOf,
                   TransactionException& out);

}  // namespace vx::collector
