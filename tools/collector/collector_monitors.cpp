#include "tools/collector/collector_monitors.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "tools/collector/collector_instance.h"
#include "tools/collector/collector_summary.h"

namespace vx::collector {

namespace {

constexpr std::size_t kFieldsMax = 48;
constexpr double kMostTotal = 9e15, kMostCount = 1e12;  // what nobody comes near, and sums can hold
constexpr int kNone = -1;                               // a monitor has no such figure
constexpr auto kKindNames = std::to_array<const char*>({"BT ", "back-end ", "method ", "exception "});

// Where a record's figures stand, counted from 0 behind the name.
struct Layout {
    int record;
    Monitored kind;
    std::size_t fields;
    int count, average, least, most, normal, slow, verySlow, error;
};
constexpr auto kLayouts = std::to_array<Layout>({
    {74, Monitored::kBt, 40, 4, 1, 2, 3, 10, 14, 18, 22},
    {75, Monitored::kBackend, 22, 5, 2, 3, 4, kNone, kNone, kNone, 6},
    {61, Monitored::kMethod, 6, 5, 2, 3, 4, kNone, kNone, kNone, kNone},
    {63, Monitored::kException, 2, 0, kNone, kNone, kNone, kNone, kNone, kNone, kNone},
});

using Fields = std::array<double, kFieldsMax>;

struct DigestRow {
    int record;
    Monitored kind;
};
constexpr auto kDigests = std::to_array<DigestRow>({{793, Monitored::kBt}, {794, Monitored::kBackend}});

// Finite numbers separated by single blanks. How many there are; 0 for a text that holds something else.
std::size_t readFields(std::string_view text, Fields& fields) {
    while (text.ends_with(' ')) text.remove_suffix(1);
    std::size_t count = 0;
    const char *at = text.data(), *const end = at + text.size();
    while (at != end && count < kFieldsMax) {
        double& field = fields[count++];
        const auto done = std::from_chars(at, end, field);
        if (done.ec != std::errc() || !std::isfinite(field) || (done.ptr != end && *done.ptr != ' '))
            return 0;
        at = done.ptr == end ? end : done.ptr + 1;
    }
    return at == end ? count : 0;
}

double fieldAt(const Fields& fields, int place) {
    return place == kNone ? 0 : std::clamp(fields[static_cast<std::size_t>(place)], 0.0, kMostTotal);
}
std::uint64_t countAt(const Fields& fields, int place) {
    return static_cast<std::uint64_t>(std::min(fieldAt(fields, place), kMostCount));
}

Figures figuresOf(const Layout& layout, const Fields& fields) {
    Figures out;
    out.count = countAt(fields, layout.count);
    if (out.count == 0) return out;
    out.normal = countAt(fields, layout.normal);
    out.slow = countAt(fields, layout.slow);
    out.verySlow = countAt(fields, layout.verySlow);
    out.error = countAt(fields, layout.error);
    // Six decimals of an average give the sum back as long as the count has fewer digits than that.
    out.totalMs =
        std::llround(std::min(fieldAt(fields, layout.average) * static_cast<double>(out.count), kMostTotal));
    out.minMs = std::llround(fieldAt(fields, layout.least));
    out.maxMs = std::llround(fieldAt(fields, layout.most));
    return out;
}

// "3|4|12:Tier_Server_Instance_name|text of tags|figures": the name is what stands behind the third
// separator.
struct Head {
    std::int64_t id = 0;
    std::string_view name, figures;
};
bool readHead(std::string_view text, char separator, Head& head) {
    for (int ids = 0; ids < 2; ++ids) {
        const std::size_t bar = text.find('|');
        if (bar == std::string_view::npos) return false;
        text.remove_prefix(bar + 1);
    }
    const auto done = std::from_chars(text.data(), text.data() + text.size(), head.id);
    if (done.ec != std::errc() || done.ptr == text.data() + text.size() || *done.ptr != ':') return false;
    text.remove_prefix(static_cast<std::size_t>(done.ptr - text.data()) + 1);
    const std::size_t last = text.rfind('|');
    if (last == std::string_view::npos) return false;
    head.figures = text.substr(last + 1);
    head.name = text.substr(0, last);
    for (int part = 0; part < 3; ++part) {
        const std::size_t end = head.name.find(separator);
        if (end == std::string_view::npos) return false;
        head.name.remove_prefix(end + 1);
    }
    return true;
}

MonitorSide& sideOf(Monitored kind, std::int64_t id, const std::string& name, Summary& summary) {
    switch (kind) {
        case Monitored::kBt:
            return id == kAllTransactions ? summary.all.monitor : btRow(summary, name).monitor;
        case Monitored::kBackend:
            return backendRow(summary, name).monitor;
        case Monitored::kMethod:
            return methodRow(summary, name).monitor;
        case Monitored::kException:
            break;
    }
    return exceptionRow(summary, name).monitor;
}

// The name that the single records know an object by, which is that of its row.
std::string nameOfObject(const InstanceState& instance, Monitored kind, std::int64_t id,
                         std::string_view otherwise) {
    switch (kind) {
        case Monitored::kBt:
            return knownName(instance.bts, id, otherwise);
        case Monitored::kBackend:
            return plainName(knownName(instance.methods, id, otherwise));
        case Monitored::kMethod:
            return knownName(instance.methods, id, otherwise);
        case Monitored::kException:
            break;
    }
    const auto place = static_cast<std::size_t>(id - 1);
    return place < instance.run.exceptionNames.size() ? instance.run.exceptionNames[place]
                                                      : std::string(otherwise);
}

enum class Answer { kAgrees, kPartial, kDiffers };

bool hasKind(Monitored kind, const std::string& name, std::string_view prefix) {
    return kind == Monitored::kBackend && name.starts_with(prefix);
}

Answer compare(const Told& told, Monitored kind, const std::string& name, bool mayTellMore, bool changed) {
    const bool custom = hasKind(kind, name, "CUSTOM_");
    Figures singles = told.singles, monitor = told.monitor;
    if (custom) singles.error = monitor.error = 0;
    if (singles == monitor) return Answer::kAgrees;
    const bool more = monitor.count >= singles.count && monitor.normal >= singles.normal &&
                      monitor.slow >= singles.slow && monitor.verySlow >= singles.verySlow &&
                      monitor.error >= singles.error && monitor.totalMs >= singles.totalMs;
    const bool leavesNoItems = custom || hasKind(kind, name, "MQ_");
    return changed || ((mayTellMore || leavesNoItems) && more) ? Answer::kPartial : Answer::kDiffers;
}

void add(Answer answer, Answers& answers) {
    ++(answer == Answer::kAgrees    ? answers.agreed
       : answer == Answer::kPartial ? answers.partial
                                    : answers.differing);
}

bool isClass(const InstanceState& instance, const std::string& name) {
    const Names& classes = instance.exceptionParts[static_cast<std::size_t>(ExceptionPart::kClass)];
    return std::any_of(classes.begin(), classes.end(), [&](const auto& row) { return row.second == name; });
}

// Methods and exceptions are monitored by choice, and exceptions may be told under names that no class has;
// of the other kinds the monitor knows all or nothing.
bool isCompared(const InstanceState& instance, Monitored kind, const Told& told, const std::string& name) {
    if (told.singles.count == 0 && told.monitor.count == 0) return false;
    if (kind == Monitored::kMethod) return told.reported;
    if (kind == Monitored::kException) return told.reported && isClass(instance, name);
    return instance.run.reported[static_cast<std::size_t>(kind)];
}

// Adds a report to its row, and to its object of the run.
void takeReport(MonitorReport report, InstanceState& instance, Summary& summary) {
    if (report.overall) return;
    if (!report.tagged) instance.run.reported[static_cast<std::size_t>(report.kind)] = true;
    if (report.kind == Monitored::kException) report.id = exceptionId(instance.run, report.name);
    MonitorSide& side =
        sideOf(report.kind, report.id, nameOfObject(instance, report.kind, report.id, report.name), summary);
    side.reported = true;
    side.figures.add(report.figures);
    if (Told* told = toldOf(instance.run, report.kind, report.id)) {
        told->reported = true;
        told->monitor.add(report.figures);
    }
}

// "count min max percentile value percentile value ...". False for a record that cannot be read.
bool takeDigest(const DigestRow& row, std::string_view text, char separator, const InstanceState& instance,
                Summary& summary) {
    constexpr std::size_t kFirst = 3;
    Head head;
    Fields fields{};
    if (!readHead(text, separator, head)) return false;
    const std::size_t count = readFields(head.figures, fields);
    if (count < kFirst || (count - kFirst) % 2 != 0) return false;
    char part[96];
    std::snprintf(part, sizeof(part), "%.0f of %.0f to %.0f ms", fields[0], fields[1], fields[2]);
    std::string told = part;
    for (std::size_t at = kFirst; at < count; at += 2) {
        std::snprintf(part, sizeof(part), ", %g %% below %.1f", fields[at], fields[at + 1]);
        told += part;
    }
    sideOf(row.kind, head.id, nameOfObject(instance, row.kind, head.id, head.name), summary).percentiles =
        told;
    return true;
}

}  // namespace

void Figures::add(const Figures& more) {
    if (more.count == 0) return;
    minMs = count ? std::min(minMs, more.minMs) : more.minMs;
    maxMs = count ? std::max(maxMs, more.maxMs) : more.maxMs;
    count += more.count;
    normal += more.normal;
    slow += more.slow;
    verySlow += more.verySlow;
    error += more.error;
    addUpTo(totalMs, more.totalMs);
}

void addUpTo(std::int64_t& sum, std::int64_t more) {
    if (__builtin_add_overflow(sum, more, &sum)) sum = INT64_MAX;
}

Figures oneOf(std::int64_t durationMs, int category) {
    Figures out;
    out.count = 1;
    out.totalMs = out.minMs = out.maxMs = durationMs;
    out.normal = category == 10;
    out.slow = category == 11;
    out.verySlow = category == 12;
    out.error = category == 13;
    return out;
}

Told* toldOf(Run& run, Monitored kind, std::int64_t id) {
    if (id < 0 || id > kMaxId) return nullptr;
    return &run.objects[static_cast<std::size_t>(kind)][id];
}

void addSingle(Run& run, Monitored kind, std::int64_t id, const Figures& figures) {
    if (Told* told = toldOf(run, kind, id)) told->singles.add(figures);
}

std::int64_t exceptionId(Run& run, std::string_view className) {
    const auto found = run.exceptionIds.find(std::string(className));
    if (found != run.exceptionIds.end()) return found->second;
    if (run.exceptionIds.size() >= kMaxRows) return -1;
    const auto id = static_cast<std::int64_t>(run.exceptionIds.size()) + 1;
    run.exceptionIds.emplace(className, id);
    run.exceptionNames.emplace_back(className);
    return id;
}

ReportRead readReport(std::string_view line, char separator, MonitorReport& out) {
    int number = 0;
    const auto done = std::from_chars(line.data(), line.data() + line.size(), number);
    if (done.ec != std::errc() || done.ptr == line.data() + line.size() || *done.ptr != ',')
        return ReportRead::kOther;
    line.remove_prefix(static_cast<std::size_t>(done.ptr - line.data()) + 1);
    const auto layout = std::find_if(kLayouts.begin(), kLayouts.end(),
                                     [number](const Layout& row) { return row.record == number; });
    if (layout == kLayouts.end()) return ReportRead::kOther;
    Head head;
    Fields fields{};
    if (!readHead(line, separator, head) || readFields(head.figures, fields) != layout->fields)
        return ReportRead::kUnreadable;
    out = {layout->kind, head.id, head.name, false, false, figuresOf(*layout, fields)};
    out.overall = layout->kind == Monitored::kException && head.id == 0;
    const std::size_t tags = layout->kind == Monitored::kBt ? head.name.find('|') : std::string_view::npos;
    if (tags == std::string_view::npos) return ReportRead::kRead;
    out.tagged = true;  // ids are others then: counted, not compared
    out.name = head.name.substr(0, tags);
    if (out.id != kAllTransactions) out.id = -1;
    return ReportRead::kRead;
}

std::string reportedName(const InstanceState& instance, const MonitorReport& report) {
    if (report.kind == Monitored::kException) return std::string(report.name);
    return nameOfObject(instance, report.kind, report.id, report.name);
}

void takeMonitorRecord(std::string_view line, char separator, InstanceState& instance, Summary& summary) {
    int number = 0;
    const auto done = std::from_chars(line.data(), line.data() + line.size(), number);
    if (done.ec != std::errc() || done.ptr == line.data() + line.size() || *done.ptr != ',') return;
    ++summary.monitorRecords;
    MonitorReport report;
    const ReportRead answer = readReport(line, separator, report);
    if (answer == ReportRead::kUnreadable) ++summary.unreadable;
    if (answer == ReportRead::kRead) takeReport(report, instance, summary);
    line.remove_prefix(static_cast<std::size_t>(done.ptr - line.data()) + 1);
    for (const DigestRow& row : kDigests)
        if (row.record == number && !takeDigest(row, line, separator, instance, summary))
            ++summary.unreadable;
}

Answers judgeRun(InstanceState& instance, Summary& summary, bool sampled) {
    const Run& run = instance.run;
    const bool mayTellMore = sampled || run.broken;
    Answers answers;
    for (std::size_t at = 0; at < kMonitoredKinds; ++at) {
        const auto kind = static_cast<Monitored>(at);
        for (const auto& [id, told] : run.objects[at]) {
            const std::string name =
                nameOfObject(instance, kind, id, std::string(kKindNames[at]) + std::to_string(id));
            if (!isCompared(instance, kind, told, name)) continue;
            MonitorSide& side = sideOf(kind, id, name, summary);
            side.reported = true;
            const Answer answer = compare(told, kind, name, mayTellMore, run.changed);
            add(answer, side);
            add(answer, answers);
        }
    }
    if (answers.agreed + answers.partial + answers.differing > 0) ++summary.judgedRuns;
    instance.run = Run{};
    return answers;
}

}  // namespace vx::collector
