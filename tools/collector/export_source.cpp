#include "tools/collector/export_source.h"

#include <algorithm>
#include <set>

#include "tools/collector/store_query.h"

namespace vx::collector {

namespace {

constexpr std::int64_t kMinuteMs = 60'000, kDayMs = 86'400'000;
constexpr std::int64_t kMostNamesOfId = 1000;

// All that is asked while it stands is of one moment.
class Moment {
public:
    explicit Moment(Database& database) : database_(database) { database_.hold(); }
    ~Moment() { database_.release(); }
    Moment(const Moment&) = delete;
    Moment& operator=(const Moment&) = delete;

private:
    Database& database_;
};

// " IN (?, ?, ...)"; none of the lists is empty.
void addList(Sql& sql, const std::vector<std::int64_t>& values) {
    for (std::size_t at = 0; at < values.size(); ++at) sql.add(at ? ", ?" : " IN (?", values[at]);
    sql.add(")");
}

// From the first beginning to the last end.
TimeSpan spanOf(const std::vector<TransactionRow>& rows) {
    TimeSpan span{INT64_MAX, 0};
    for (const TransactionRow& row : rows) {
        span.from = std::min(span.from, row.start);
        span.to = std::max(span.to, row.at + 1);
    }
    return span;
}

}  // namespace

ExportSource::ExportSource(Database& database, TimeSpan span)
    : database_(database), pager_(database, tableOf(kTransactions), span, kExportPage) {}

Answered ExportSource::next(std::vector<TransactionRow>& rows) {
    for (;;) {
        const Answered answer = readPage(rows);
        const bool nothingLeft = rows.empty() && lines_.empty();  // else all of the page were passed over
        if (answer != Answered::kOk || !rows.empty() || nothingLeft) return answer;
    }
}

// Reads only, and lets go: what is done with a page may take any time.
Answered ExportSource::readPage(std::vector<TransactionRow>& rows) {
    const Moment moment(database_);
    rows.clear();
    lines_.clear();
    callers_.clear();
    Answered answer = pager_.next([&](const ResultRow& row) { rows.push_back(transactionOf(row)); }, error_);
    if (answer != Answered::kOk || rows.empty()) return answer;
    answer = readLines(rows);
    if (answer == Answered::kOk) answer = readCallers(rows);
    if (answer == Answered::kOk) answer = readInstances(rows);
    forgetYoungNames(spanOf(rows).to);
    withoutRecords_ += std::erase_if(rows, [this](const auto& row) { return lines_[row.id].empty(); });
    return answer;
}

Answered ExportSource::readLines(const std::vector<TransactionRow>& rows) {
    std::vector<std::int64_t> ids;
    TimeSpan ends{INT64_MAX, 0};
    for (const TransactionRow& row : rows) {
        ids.push_back(row.id);
        ends = {std::min(ends.from, row.at), std::max(ends.to, row.at + 1)};
    }
    Sql sql("SELECT tx, lines FROM records WHERE tx");
    addList(sql, ids);
    sql.add(" AND at >= ?", ends.from).add(" AND at < ?", ends.to);
    return database_.select(
        sql, [this](const ResultRow& row) { lines_[row.number(0)] = row.text(1); }, error_);
}

// Tier by tier, all of the page at once.
Answered ExportSource::readCallers(const std::vector<TransactionRow>& rows) {
    const TimeSpan span = spanOf(rows);
    std::set<std::int64_t> looked;
    std::vector<std::int64_t> wanted;
    for (const TransactionRow& row : rows)
        if (row.previous && looked.insert(row.previous).second) wanted.push_back(row.previous);
    Answered answer = Answered::kOk;
    for (int tier = 0; tier < kMostTiers && !wanted.empty() && answer == Answered::kOk; ++tier) {
        answer = findCallers(wanted, {span.from - 10 * kMinuteMs, span.to + 10 * kMinuteMs});
        std::vector<std::int64_t> missing, above;
        for (const std::int64_t flowpath : wanted)
            if (!callers_.contains(flowpath)) missing.push_back(flowpath);
        // Where that is not all there is anyway: clocks differ by a day at most.
        if (answer == Answered::kOk && !missing.empty() && database_.findsByTime())
            answer = findFarCallers(missing, {span.from - kDayMs, span.to + kDayMs});
        for (const std::int64_t flowpath : wanted) {
            const auto found = callers_.find(flowpath);
            if (found == callers_.end() || !found->second.previous) continue;
            if (looked.insert(found->second.previous).second) above.push_back(found->second.previous);
        }
        wanted = std::move(above);
    }
    return answer;
}

// Of several with one number the youngest.
Answered ExportSource::findCallers(const std::vector<std::int64_t>& flowpaths, TimeSpan around) {
    Sql sql("SELECT " + columnsOf(tableOf(kTransactions)) + " FROM transactions WHERE flowpath");
    addList(sql, flowpaths);
    if (database_.findsByTime()) sql.add(" AND at >= ?", around.from).add(" AND at < ?", around.to);
    sql.add(" ORDER BY id DESC LIMIT ?", static_cast<std::int64_t>(kMostRows));
    const auto take = [this](const ResultRow& found) {
        TransactionRow row = transactionOf(found);
        callers_.try_emplace(row.flowpath, std::move(row));
    };
    return database_.select(sql, take, error_);
}

// Reads two days for what mostly is stored nowhere: sampled out, or given up. All can be told without it, so
// a look that takes too long counts as many that found nothing.
Answered ExportSource::findFarCallers(const std::vector<std::int64_t>& flowpaths, TimeSpan around) {
    if (vainLooks_++ >= kMostVainLooks && vainLooks_ % kMostVainLooks != 0) return Answered::kOk;
    const std::size_t before = callers_.size();
    const Answered answer = findCallers(flowpaths, around);
    if (answer == Answered::kCut) {
        vainLooks_ = std::max(vainLooks_, kMostVainLooks);
        return Answered::kOk;
    }
    if (callers_.size() > before) vainLooks_ = 0;
    return answer;
}

Answered ExportSource::readInstances(const std::vector<TransactionRow>& rows) {
    const bool known = std::all_of(rows.begin(), rows.end(),
                                   [this](const auto& row) { return instances_.contains(row.instance); });
    if (known) return Answered::kOk;
    StorePager pager(database_, tableOf(kInstances), {}, kMostRows);
    bool more = true;
    const auto take = [&](const ResultRow& row) {
        more = true;
        instances_[row.number(0)] = {row.number(0), row.text(1),   row.text(2),   row.text(3),
                                     row.text(4),   row.number(5), row.number(6), row.number(7)};
    };
    while (std::exchange(more, false))
        if (const Answered answer = pager.next(take, error_); answer != Answered::kOk) return answer;
    for (const TransactionRow& row : rows) instances_.try_emplace(row.instance);  // not to be asked for again
    return Answered::kOk;
}

// What is younger than they are may mean others.
void ExportSource::forgetYoungNames(std::int64_t at) {
    if (at < namesAt_ - kMinuteMs && nameBytes_ <= kMostNameBytes) return;
    names_.clear();
    nameBytes_ = 0;
    namesAt_ = epochNow();
}

const ExportSource::NamesInTime& ExportSource::namesOf(const NameId& id, Answered& worst) {
    const auto [place, added] = names_.try_emplace(id);
    if (!added) return place->second;
    Sql sql("SELECT since, name FROM names WHERE instance = ?");
    sql.add("", std::get<0>(id)).add(" AND kind = ?", static_cast<std::int64_t>(std::get<1>(id)));
    sql.add(" AND id = ?", std::get<2>(id)).add(" ORDER BY since DESC LIMIT ?", kMostNamesOfId);
    NamesInTime& names = place->second;
    const auto take = [&](const ResultRow& row) {
        names.emplace_back(row.number(0), row.text(1));
        nameBytes_ += names.back().second.size() + sizeof(NamesInTime::value_type);
    };
    nameBytes_ += sizeof(NameId) + sizeof(NamesInTime);
    worst = std::max(worst, database_.select(sql, take, error_));
    return names;
}

Answered ExportSource::detailsOf(const TransactionRow& row, TransactionDetails& out) {
    Answered worst = Answered::kOk;
    // The latest before it; else the first behind it, which another collector was told.
    const NameLookup lookup = [&](NameKind kind, std::int64_t id) {
        std::string name;
        for (const auto& [since, told] : namesOf({row.instance, kind, id}, worst)) {
            name = told;
            if (since <= row.id) break;
        }
        return name;
    };
    const InstanceRow* instance = instanceOf(row.instance);
    out = {};
    out.row = row;
    readDetails(lines_[row.id], row.duration, instance ? instance->epochMs : 0, lookup, out);
    return worst;
}

std::vector<const TransactionRow*> ExportSource::callersOf(const TransactionRow& row) const {
    std::vector<const TransactionRow*> out;
    for (const TransactionRow* tier = &row; out.size() < kMostTiers && tier->previous;) {
        const auto caller = callers_.find(tier->previous);
        if (caller == callers_.end() || caller->second.id == tier->id) break;
        out.push_back(tier = &caller->second);
    }
    return out;
}

const InstanceRow* ExportSource::instanceOf(std::int64_t key) const {
    const auto found = instances_.find(key);
    return found == instances_.end() || found->second.instance == 0 ? nullptr : &found->second;
}

}  // namespace vx::collector
