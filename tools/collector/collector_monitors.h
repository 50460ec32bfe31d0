// What the monitors tell of a run, against what its single records add up to.
//
// A run of an instance begins with its first data connection and is over when its 10 record has come and its
// auto-sensor connection has ended: the last report is on its way until then. Then each object is compared:
//
//     kAgrees    the same figures on both sides
//     kPartial   the monitor tells more, which it may: not every transaction is recorded singly (sampling), a
//                connection broke, or calls leave no items (of message queues, where an exception ends them;
//                of back-ends that custom methods name); or what is monitored was changed in the run
//     kDiffers   anything else
//
// While a run goes on nothing is compared: reports come in intervals, records when a buffer is sent.
//
// Records 74 (BTs), 75 (back-ends), 61 (methods) and 63 (exceptions) tell figures; 793 and 794 tell
// percentiles of BTs and back-ends, of which the last period's are shown and nothing is compared.
//
// What is compared: of BTs counts per category, and the sum, least and greatest duration; of back-ends calls,
// errors and durations, but no errors of custom ones, which the monitor does not know; of methods in the
// method monitor calls and durations; of exceptions in the exception monitor their count, where they are told
// under the name of their class. Methods of transactions that rules exclude are counted by the monitor alone.
//
// Limits    Ids above kMaxId and names beyond kMaxRows are counted, not compared.
// Units     Milliseconds.
// Threads   One.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vx::collector {

inline constexpr std::int64_t kAllTransactions = 0;  // as a BT's id

struct InstanceState;
struct Summary;

enum class Monitored : std::uint8_t { kBt, kBackend, kMethod, kException };
inline constexpr std::size_t kMonitoredKinds = 4;

struct Figures {
    std::uint64_t count = 0, normal = 0, slow = 0, verySlow = 0, error = 0;
    std::int64_t totalMs = 0, minMs = 0, maxMs = 0;  // the last two only where count is above 0

    void add(const Figures& more);
    bool operator==(const Figures&) const = default;
};
// Neither sum nor addend is below 0; a sum that would be beyond what its type holds stays at its greatest.
void addUpTo(std::int64_t& sum, std::int64_t more);
// One occurrence: category 10 normal, 11 slow, 12 very slow, 13 error; 0 for what has none.
Figures oneOf(std::int64_t durationMs, int category = 0);

struct Answers {
    std::uint64_t agreed = 0, partial = 0, differing = 0;
};
// What the monitors say of a row of the table, and the answers of its ended runs.
struct MonitorSide : Answers {
    Figures figures;          // of all runs and instances
    std::string percentiles;  // of the last period, as text
    bool reported = false;
};

// One object of a run, told twice.
struct Told {
    Figures singles, monitor;
    bool reported = false;
};

struct Run {
    std::array<std::unordered_map<std::int64_t, Told>, kMonitoredKinds> objects;
    // Exceptions have one id in their records and another one in the monitor's: here they get a third.
    std::unordered_map<std::string, std::int64_t> exceptionIds;
    std::vector<std::string> exceptionNames;  // by that id
    std::array<bool, kMonitoredKinds> reported{};
    bool over = false;     // the 10 record has come
    bool broken = false;   // a connection was made anew
    bool changed = false;  // other objects are monitored than at its beginning
    int dataConnections = 0, sensorConnections = 0, sensorsOpen = 0;
};

// Adds to the side of the single records; ids out of range are passed over.
void addSingle(Run& run, Monitored kind, std::int64_t id, const Figures& figures);
Told* toldOf(Run& run, Monitored kind, std::int64_t id);
std::int64_t exceptionId(Run& run, std::string_view className);  // -1 when there is no room

// What a record of figures (74, 75, 61, 63) tells of one object; `name` borrows from the line.
struct MonitorReport {
    Monitored kind = Monitored::kBt;
    std::int64_t id = 0;                   // kAllTransactions; -1 where it is that of a tag
    std::string_view name;                 // as the monitor has it
    bool tagged = false, overall = false;  // of a tag; of all exceptions together
    Figures figures;
};
enum class ReportRead { kOther, kUnreadable, kRead };  // kOther: another record
ReportRead readReport(std::string_view line, char separator, MonitorReport& out);
// The name that the single records know the object by; of an exception, the monitor's.
std::string reportedName(const InstanceState& instance, const MonitorReport& report);

// Takes one line of an auto-sensor connection; one that is no monitor record is only counted. `separator` is
// that of the names (vxVectorSeparator).
void takeMonitorRecord(std::string_view line, char separator, InstanceState& instance, Summary& summary);

// Compares the run's objects, adds the answers to their rows, and makes the run a new one. The answers by
// object.
Answers judgeRun(InstanceState& instance, Summary& summary, bool sampled);

}  // namespace vx::collector
