// Questions about sums: overview, back-ends, exceptions, monitors.
#include <algorithm>
#include <map>
#include <unordered_map>
#include <utility>

#include "tools/collector/store_query.h"
#include "tools/collector/store_sqlite.h"
#include "tools/collector/store_sums.h"

namespace vx::collector {

namespace {

constexpr std::size_t kMostNames = 500;
constexpr std::size_t kMostBts = 20;
constexpr const char* kMoreName = "(more)";
constexpr const char* kAllName = "(all)";

// What figureColumns() asks for, from `at` on; `totalMs` stands elsewhere.
Figures figuresOf(const ResultRow& row, int at, std::int64_t totalMs) {
    Figures out;
    for (std::uint64_t* count : {&out.count, &out.normal, &out.slow, &out.verySlow, &out.error})
        *count = static_cast<std::uint64_t>(row.number(at++));
    if (out.count == 0) return {};
    out.minMs = row.number(at++);
    out.maxMs = row.number(at);
    out.totalMs = totalMs;
    return out;
}

// Least and most are never out of range; what monitors tell may add up to anything.
std::string figureColumns(const Database& database) {
    std::string out;
    for (const char* column : {"count", "normal", "slow", "very_slow", "error"})
        out += database.sum(column) + ", ";
    return out + "min(least), max(most)";
}

using Places = std::unordered_map<std::string, std::size_t>;
// Where a name's figures go; the row behind the named ones takes the rest.
std::size_t placeOf(const Places& places, const std::string& name) {
    const auto found = places.find(name);
    return found == places.end() ? places.size() : found->second;
}

void addConditions(Sql& sql, const SumsQuery& query, bool stepped) {
    sql.add(" WHERE kind = ?", static_cast<std::int64_t>(query.kind));
    if (stepped) sql.add(" AND step = ?", query.stepMs % kLongSumStep == 0 ? kLongSumStep : kSumStep);
    sql.add(" AND at >= ?", query.span.from).add(" AND at < ?", query.span.to);
    if (query.instance) sql.add(" AND instance = ?", query.instance);
}

using Counts = std::map<int, std::uint64_t>;
// The middle of a bucket may lie beyond all that is in it.
double p95Of(const Counts& counts, const Figures& figures) {
    const double middle = percentileOf({counts.begin(), counts.end()}, 95);
    return figures.count == 0 ? middle
                              : std::clamp(middle, static_cast<double>(figures.minMs),
                                           static_cast<double>(std::max(figures.minMs, figures.maxMs)));
}

std::size_t stepsOf(const SumsQuery& query) {
    return static_cast<std::size_t>((query.span.to - query.span.from + query.stepMs - 1) / query.stepMs);
}

// Figures by name and step: its column `bin` is the begin of the step.
Sql binsOf(const Database& database, const std::string& columns, const char* table, const SumsQuery& query,
           bool stepped) {
    Sql sql(std::string("SELECT name, ") + kBin + ", " + columns + ", " + figureColumns(database) + " FROM " +
            table);
    sql.add("", query.span.from).add("", query.stepMs);
    addConditions(sql, query, stepped);
    return sql.add(" GROUP BY name, bin");
}

}  // namespace

// What the span and the step come to: what is kept in short steps, and bounds that are there.
Answered StoreQuery::round(SumsQuery& query) {
    Answered answer = Answered::kOk;
    const std::int64_t now = epochNow();
    std::int64_t first = 0;
    if (query.span.from <= 0)
        ask(
            Sql("SELECT min(at) FROM sums WHERE step = ?").add("", kLongSumStep),
            [&](const ResultRow& row) { first = row.number(0); }, answer);
    const bool goesOn = query.span.to > now - kSumStep;
    query.span.to = std::clamp<std::int64_t>(query.span.to, 0, now + 86'400'000);
    query.span.from = std::clamp(query.span.from <= 0 ? (first ? first : now) : query.span.from,
                                 std::int64_t{0}, query.span.to);
    std::int64_t step = std::max(query.stepMs, kSumStep);
    step = std::max(step, (query.span.to - query.span.from) / static_cast<std::int64_t>(kMostSteps - 1) + 1);
    const bool isLong = step >= kLongSumStep || query.span.from < now - kShortSumsMs;
    const std::int64_t unit = isLong ? kLongSumStep : kSumStep;
    query.stepMs = (step + unit - 1) / unit * unit;
    if (!isLong && query.stepMs % kLongSumStep == 0) query.stepMs += kSumStep;
    query.span.from -= query.span.from % (goesOn ? query.stepMs : unit);
    query.span.to += (unit - query.span.to % unit) % unit;
    covered_ = query.span;
    return answer;
}

Answered StoreQuery::sums(const SumsQuery& asked, Sums& out) {
    const Question question(*this);
    out = {};
    SumsQuery query = asked;
    Answered answer = round(query);
    out.span = query.span;
    out.stepMs = query.stepMs;
    out.steps.resize(stepsOf(query));

    Places places;
    Sql top("SELECT name FROM sums");
    addConditions(top, query, true);
    top.add(" GROUP BY name ORDER BY sum(count) DESC, name LIMIT ?",
            static_cast<std::int64_t>(kMostNames + 1));
    ask(
        top,
        [&](const ResultRow& row) {
            if (places.size() < kMostNames) {
                out.rows.push_back({row.text(0), {}, 0, 0, 0, std::vector<Figures>(out.steps.size())});
                places.emplace(out.rows.back().name, places.size());
            } else {
                out.rows.push_back({kMoreName, {}, 0, 0, 0, std::vector<Figures>(out.steps.size())});
                answer = std::max(answer, Answered::kCut);
            }
        },
        answer);

    ask(
        binsOf(*database_, "sum(discarded), " + database_->sum("total_us"), "sums", query, true),
        [&](const ResultRow& row) {
            const std::size_t place = placeOf(places, row.text(0));
            const auto step = static_cast<std::size_t>((row.number(1) - query.span.from) / query.stepMs);
            if (place >= out.rows.size() || step >= out.steps.size()) return;
            const Figures figures = figuresOf(row, 4, row.number(3) / 1000);
            SumsRow& into = out.rows[place];
            into.discarded += static_cast<std::uint64_t>(row.number(2));
            addUpTo(into.totalUs, row.number(3));
            for (Figures* sum : {&into.figures, &into.steps[step], &out.steps[step], &out.all})
                sum->add(figures);
        },
        answer);

    std::vector<Counts> counts(out.rows.size());
    Counts all;
    Sql buckets("SELECT name, bucket, sum(count) FROM buckets");
    addConditions(buckets, query, true);
    buckets.add(" GROUP BY name, bucket");
    ask(
        buckets,
        [&](const ResultRow& row) {
            const std::size_t place = placeOf(places, row.text(0));
            const auto count = static_cast<std::uint64_t>(row.number(2));
            all[static_cast<int>(row.number(1))] += count;
            if (place < counts.size()) counts[place][static_cast<int>(row.number(1))] += count;
        },
        answer);
    for (std::size_t at = 0; at < out.rows.size(); ++at)
        out.rows[at].p95Ms = p95Of(counts[at], out.rows[at].figures);
    out.p95Ms = p95Of(all, out.all);
    if (answer == Answered::kFailed) out = {};
    return answer;
}

Answered StoreQuery::backends(TimeSpan span, Backends& out) {
    const Question question(*this);
    out = {};
    SumsQuery query;
    query.kind = Monitored::kBackend;
    query.span = span;
    Sums sums;
    Answered answer = this->sums(query, sums);
    if (answer == Answered::kFailed) return answer;
    query.span = sums.span;
    query.stepMs = sums.stepMs;
    std::size_t pairs = 0;
    Sql calls("SELECT instance, name, sum(count), sum(error), " + database_->sum("total_us") + " FROM sums");
    addConditions(calls, query, true);
    calls.add(" GROUP BY instance, name ORDER BY sum(count) DESC, instance, name LIMIT ?",
              static_cast<std::int64_t>(kMostRows));
    ask(
        calls,
        [&](const ResultRow& row) {
            const std::int64_t count = row.number(2), us = row.number(4);
            ++pairs;
            if (count == 0) return;
            out.edges.push_back({row.number(0), 0, row.text(1), static_cast<std::uint64_t>(count),
                                 static_cast<std::uint64_t>(row.number(3)),
                                 static_cast<double>(us) / 1000 / static_cast<double>(count)});
        },
        answer);
    if (pairs == kMostRows) answer = std::max(answer, Answered::kCut);
    for (const SumsRow& row : sums.rows) {
        BackendSums& backend = out.rows.emplace_back();
        backend.name = row.name;
        backend.count = row.figures.count;
        backend.errors = row.figures.error;
        if (backend.count)
            backend.averageMs = static_cast<double>(row.totalUs) / 1000 / static_cast<double>(backend.count);
        backend.maxMs = static_cast<double>(row.figures.maxMs);
        backend.p95Ms = row.p95Ms;
    }
    answer = std::max(answer, tierEdges(sums.span, out.edges));
    answer = std::max(answer, kindsOf(sums.span, out.rows));
    if (answer == Answered::kFailed) out = {};
    return answer;
}

// One look at all calls of the span, or one at an index for each back-end.
Answered StoreQuery::kindsOf(TimeSpan span, std::vector<BackendSums>& rows) {
    Answered answer = Answered::kOk;
    if (database_->findsByTime()) {
        std::unordered_map<std::string, std::string> kinds;
        Sql all("SELECT backend, max(target) FROM callouts WHERE at >= ?");
        all.add("", span.from)
            .add(" AND at < ?", span.to)
            .add(" GROUP BY backend LIMIT ?", static_cast<std::int64_t>(kMostRows));
        ask(
            all, [&](const ResultRow& row) { kinds[row.text(0)] = row.text(1); }, answer);
        for (BackendSums& row : rows) row.kind = kinds[row.name];
        return answer;
    }
    for (BackendSums& row : rows)
        ask(
            Sql("SELECT target FROM callouts WHERE backend = ?").add("", row.name).add(" LIMIT 1"),
            [&](const ResultRow& found) { row.kind = found.text(0); }, answer);
    return answer;
}

// Transactions that another tier has called, by both instances: of the latest kMostRows.
Answered StoreQuery::tierEdges(TimeSpan span, std::vector<CallEdge>& edges) {
    struct Called {
        std::int64_t previous, instance, category, duration;
    };
    std::vector<Called> called;
    std::unordered_map<std::int64_t, std::int64_t> instances;  // by flowpath
    Answered answer = Answered::kOk;
    const std::string condition = " FROM transactions WHERE previous <> 0 AND at >= ?";
    const auto limit = static_cast<std::int64_t>(kMostRows);
    Sql list("SELECT previous, instance, category, duration" + condition);
    list.add("", span.from).add(" AND at < ?", span.to).add(" ORDER BY at DESC LIMIT ?", limit);
    ask(
        list,
        [&](const ResultRow& row) {
            called.push_back({row.number(0), row.number(1), row.number(2), row.number(3)});
        },
        answer);
    if (called.empty()) return answer;
    Sql callers("SELECT flowpath, instance FROM transactions WHERE flowpath IN (SELECT previous" + condition);
    callers.add("", span.from).add(" AND at < ?", span.to).add(" ORDER BY at DESC LIMIT ?)", limit);
    ask(
        callers, [&](const ResultRow& row) { instances[row.number(0)] = row.number(1); }, answer);
    std::map<std::pair<std::int64_t, std::int64_t>, Figures> found;
    for (const Called& one : called)
        if (const auto caller = instances.find(one.previous); caller != instances.end())
            found[{caller->second, one.instance}].add(oneOf(one.duration, static_cast<int>(one.category)));
    for (const auto& [pair, figures] : found)
        edges.push_back({pair.first, pair.second, "", figures.count, figures.error,
                         static_cast<double>(figures.totalMs) / static_cast<double>(figures.count)});
    if (called.size() == kMostRows) answer = std::max(answer, Answered::kCut);
    return answer;
}

Answered StoreQuery::exceptions(TimeSpan span, std::vector<ExceptionSums>& out) {
    const Question question(*this);
    out.clear();
    SumsQuery query;
    query.kind = Monitored::kException;
    query.span = span;
    Sums sums;
    Answered answer = this->sums(query, sums);
    for (const SumsRow& row : sums.rows) {
        ExceptionSums& sum = out.emplace_back();
        sum.name = row.name;
        sum.count = row.figures.count;
        answer = std::max(answer, lastOf(sum, sums.span));
    }
    if (answer == Answered::kFailed) out.clear();
    return answer;
}

Answered StoreQuery::lastOf(ExceptionSums& sum, TimeSpan span) {
    Answered answer = Answered::kOk;
    const std::string condition = " FROM exceptions WHERE class = ?";
    Sql last("SELECT at, tx, place, stack" + condition);
    last.add("", sum.name).add(" AND at >= ?", span.from).add(" AND at < ?", span.to);
    last.add(" ORDER BY at DESC, tx DESC, n DESC LIMIT 1");
    ask(
        last,
        [&](const ResultRow& row) {
            sum.lastAt = row.number(0);
            sum.lastTransaction = row.number(1);
            sum.lastText = row.text(2);
            sum.lastStack = row.text(3);
        },
        answer);
    Sql bts("SELECT bt, count(*)" + condition);
    bts.add("", sum.name).add(" AND at >= ?", span.from).add(" AND at < ?", span.to);
    bts.add(" GROUP BY bt ORDER BY count(*) DESC, bt LIMIT ?", static_cast<std::int64_t>(kMostBts));
    ask(
        bts,
        [&](const ResultRow& row) {
            sum.bts.emplace_back(row.text(0), static_cast<std::uint64_t>(row.number(1)));
        },
        answer);
    return answer;
}

Answered StoreQuery::monitors(const SumsQuery& asked, std::vector<MonitorRow>& out) {
    const Question question(*this);
    out.clear();
    Sums sums;
    Answered answer = this->sums(asked, sums);
    if (answer == Answered::kFailed) return answer;
    SumsQuery query = asked;
    query.span = sums.span;
    query.stepMs = sums.stepMs;
    const std::size_t steps = sums.steps.size();
    const auto newRow = [&](const std::string& name) {
        MonitorRow& row = out.emplace_back();
        row.name = name;
        for (std::size_t at = 0; at < steps; ++at)
            row.steps.push_back({sums.span.from + static_cast<std::int64_t>(at) * sums.stepMs, {}, {}});
    };
    Places places;
    ask(
        binsOf(*database_, database_->sum("total"), "monitors", query, false),
        [&](const ResultRow& row) {
            const std::string name = row.text(0);
            const auto step = static_cast<std::size_t>((row.number(1) - sums.span.from) / sums.stepMs);
            if (!places.contains(name) && places.size() >= kMostNames)
                answer = std::max(answer, Answered::kCut);
            if (!places.contains(name) && (places.size() >= kMostNames || step >= steps)) return;
            const auto [place, added] = places.try_emplace(name, out.size());
            if (added) newRow(name);
            if (step >= steps) return;
            const Figures figures = figuresOf(row, 3, row.number(2));
            out[place->second].monitor.add(figures);
            out[place->second].steps[step].monitor.add(figures);
        },
        answer);
    const auto addSingles = [&](const std::string& name, const Figures& all,
                                const std::vector<Figures>& bySteps) {
        const auto place = places.find(name);
        if (place == places.end()) return;
        out[place->second].singles = all;
        for (std::size_t at = 0; at < steps; ++at) out[place->second].steps[at].singles = bySteps[at];
    };
    for (const SumsRow& row : sums.rows) addSingles(row.name, row.figures, row.steps);
    addSingles(kAllName, sums.all, sums.steps);
    std::sort(out.begin(), out.end(), [](const MonitorRow& left, const MonitorRow& right) {
        return std::pair(right.monitor.count, left.name) < std::pair(left.monitor.count, right.name);
    });
    if (answer == Answered::kFailed) out.clear();
    return answer;
}

Answered StoreQuery::reports(const SumsQuery& asked, const std::string& name, std::vector<ReportRow>& out) {
    const Question question(*this);
    out.clear();
    SumsQuery query = asked;
    Answered answer = round(query);
    Sql told("SELECT at, instance, count, line FROM monitors");
    addConditions(told, query, false);
    told.add(" AND name = ?", name);
    told.add(" ORDER BY at DESC, instance, line LIMIT ?", static_cast<std::int64_t>(kMostReports));
    ask(
        told,
        [&](const ResultRow& row) {
            out.push_back(
                {row.number(0), row.number(1), static_cast<std::uint64_t>(row.number(2)), row.text(3)});
        },
        answer);
    if (out.size() == kMostReports) answer = std::max(answer, Answered::kCut);
    return answer;
}

}  // namespace vx::collector
