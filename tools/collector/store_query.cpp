#include "tools/collector/store_query.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <unordered_map>

#include "tools/collector/store_clickhouse.h"
#include "tools/collector/store_schema.h"

namespace vx::collector {

namespace {

constexpr const char* kNotInTime = "not found in the time given";
constexpr std::size_t kMostCallees = 100, kMostRequests = 5000;
constexpr int kQuestionTimes = 2;  // of a statement's time: a browser waits 15 s
constexpr std::int64_t kHourMs = 3'600'000, kDayMs = 24 * kHourMs;

std::string selectTransactions() {
    return "SELECT " + columnsOf(tableOf(kTransactions)) + " FROM transactions WHERE ";
}

void addSpan(Sql& sql, TimeSpan span) {
    sql.add(" AND at >= ?", span.from).add(" AND at < ?", span.to);
}

// Conditions of a list, each behind an " AND ".
void addFilters(Sql& sql, const TransactionsQuery& query, const Database& database) {
    addSpan(sql, query.span);
    if (!query.bt.empty()) sql.add(" AND bt = ?", query.bt);
    if (!query.url.empty()) sql.add(" AND ").add(database.contains("url"), query.url);
    if (!query.session.empty()) sql.add(" AND session = ?", query.session);
    if (query.category > 0) sql.add(" AND category = ?", query.category);
    if (query.category < 0) sql.add(" AND category > 10");
    if (query.status >= 0) sql.add(" AND status = ?", query.status);
    if (query.minMs > 0) sql.add(" AND duration >= ?", query.minMs);
    if (query.maxMs < INT64_MAX) sql.add(" AND duration <= ?", query.maxMs);
    if (query.instance) sql.add(" AND instance = ?", query.instance);
    if (query.flowpath) sql.add(" AND flowpath = ?", query.flowpath);
    if (!query.backend.empty()) {
        sql.add(" AND id IN (SELECT tx FROM callouts WHERE backend = ?", query.backend);
        addSpan(sql, query.span);
        if (query.failedCalls) sql.add(" AND failed <> 0");
        if (query.leastCallMs > 0) sql.add(" AND us >= ?", query.leastCallMs * 1000);
        sql.add(")");
    }
    if (!query.exception.empty()) {
        sql.add(" AND id IN (SELECT tx FROM exceptions WHERE class = ?", query.exception);
        addSpan(sql, query.span);
        sql.add(")");
    }
    if (query.caller) {
        sql.add(" AND previous <> 0 AND previous IN (SELECT flowpath FROM transactions WHERE instance = ?",
                query.caller);
        sql.add(" AND flowpath IN (SELECT previous FROM transactions WHERE previous <> 0");
        addSpan(sql, query.span);
        sql.add("))");
    }
    if (query.beforeAt < INT64_MAX)
        sql.add(" AND (at < ?", query.beforeAt)
            .add(" OR (at = ?", query.beforeAt)
            .add(" AND id < ?))", query.beforeId);
}

}  // namespace

TransactionRow transactionOf(const ResultRow& row) {
    TransactionRow out;
    int at = 0;
    for (std::int64_t* number : {&out.id, &out.instance, &out.flowpath, &out.at, &out.start, &out.duration,
                                 &out.cpu, &out.status, &out.category, &out.endReason})
        *number = row.number(at++);
    for (std::string* text : {&out.bt, &out.url, &out.session}) *text = row.text(at++);
    for (std::int64_t* number : {&out.page, &out.parent, &out.previous}) *number = row.number(at++);
    for (std::string* text : {&out.correlation, &out.traceId, &out.callerSpan}) *text = row.text(at++);
    out.callouts = row.number(at++);
    out.exceptions = row.number(at);
    return out;
}

StoreQuery::StoreQuery() = default;
StoreQuery::~StoreQuery() = default;

bool StoreQuery::openClickHouse(const std::string& url, int timeMs) {
    HttpAddress address;
    error_ = "not an address of a ClickHouse server";
    database_.reset();
    timeMs_ = timeMs;
    if (readAddress(url, address)) database_ = collector::openClickHouse(address, timeMs, error_);
    return database_ != nullptr;
}

bool StoreQuery::openFile(const std::string& path, int timeMs) {
    timeMs_ = timeMs;
    database_ = openSqlite(path, timeMs, error_);
    return database_ != nullptr;
}

StoreQuery::Question::Question(StoreQuery& query) : query_(query) {
    if (query_.questions_++ > 0) return;
    query_.error_.clear();
    query_.end_ =
        std::chrono::steady_clock::now() + kQuestionTimes * std::chrono::milliseconds(query_.timeMs_);
}

Answered StoreQuery::ask(const Sql& sql, const Database::Take& take, Answered& worst) {
    const bool over = std::chrono::steady_clock::now() >= end_;
    const Answered answer = over ? Answered::kCut : database_->select(sql, take, error_);
    worst = std::max(worst, answer);
    return answer;
}

Answered StoreQuery::transactions(const TransactionsQuery& query, std::vector<TransactionRow>& out) {
    const Question question(*this);
    out.clear();
    Answered answer = Answered::kOk;
    Sql sql(selectTransactions() + "1 = 1");
    addFilters(sql, query, *database_);
    const std::size_t limit = std::min(query.limit, kMostRows);
    sql.add(" ORDER BY at DESC, id DESC LIMIT ?", static_cast<std::int64_t>(limit));
    ask(
        sql, [&](const ResultRow& row) { out.push_back(transactionOf(row)); }, answer);
    return answer;
}

Answered StoreQuery::count(const TransactionsQuery& query, std::uint64_t& out) {
    const Question question(*this);
    out = 0;
    Answered answer = Answered::kOk;
    TransactionsQuery all = query;
    all.beforeAt = INT64_MAX;
    Sql sql("SELECT count(*) FROM transactions WHERE 1 = 1");
    addFilters(sql, all, *database_);
    ask(
        sql, [&](const ResultRow& row) { out = static_cast<std::uint64_t>(row.number(0)); }, answer);
    return answer;
}

// The name that was in force when the transaction ended: the latest before it. One that was told to another
// collector may stand behind it.
std::string StoreQuery::nameOf(std::int64_t instance, NameKind kind, std::int64_t id,
                               std::int64_t transaction, Answered& worst) {
    std::string name;
    for (const char* which :
         {" AND since <= ? ORDER BY since DESC LIMIT 1", " AND since > ? ORDER BY since LIMIT 1"}) {
        Sql sql("SELECT name FROM names WHERE instance = ?");
        sql.add("", instance).add(" AND kind = ?", static_cast<std::int64_t>(kind)).add(" AND id = ?", id);
        ask(
            sql.add(which, transaction), [&](const ResultRow& row) { name = row.text(0); }, worst);
        if (!name.empty()) break;
    }
    return name;
}

// From when on to look, one after the other until it is found: what is asked for is young as a rule.
std::vector<std::int64_t> StoreQuery::beginnings() const {
    const std::int64_t now = epochNow();
    if (!database_->findsByTime()) return {0};
    return {now - kHourMs, now - kDayMs, 0};
}

// The one row of that value, the latest when there are several. Found is found, however long it took; what is
// not found in time may be there.
Answered StoreQuery::latestOf(const char* column, std::int64_t value, TransactionRow& out) {
    out = {};
    Answered answer = Answered::kOk;
    for (const std::int64_t from : beginnings()) {
        Sql sql(selectTransactions() + column);
        sql.add(" = ?", value).add(" AND at >= ?", from).add(" ORDER BY id DESC LIMIT 1");
        ask(
            sql, [&](const ResultRow& row) { out = transactionOf(row); }, answer);
        if (answer == Answered::kFailed) return answer;
        if (out.id != 0) return Answered::kOk;
    }
    if (answer == Answered::kCut) error_ = kNotInTime;
    return Answered::kFailed;
}

Answered StoreQuery::transactionRow(std::int64_t id, TransactionRow& out) {
    const Question question(*this);
    return latestOf("id", id, out);
}

Answered StoreQuery::callerOf(const TransactionRow& row, TransactionRow& out) {
    const Question question(*this);
    out = {};
    return row.previous ? latestOf("flowpath", row.previous, out) : Answered::kFailed;
}

Answered StoreQuery::transaction(std::int64_t id, TransactionDetails& out) {
    const Question question(*this);
    out = {};
    Answered answer = transactionRow(id, out.row);
    if (answer != Answered::kFailed) answer = readLines(out);
    if (answer != Answered::kFailed) answer = std::max(answer, neighbours(out));
    if (answer == Answered::kFailed) out = {};
    return answer;
}

Answered StoreQuery::readLines(TransactionDetails& out) {
    Answered answer = Answered::kOk;
    std::string lines;
    std::int64_t epochMs = 0;
    ask(
        Sql("SELECT lines FROM records WHERE tx = ?").add("", out.row.id).add(" AND at = ?", out.row.at),
        [&](const ResultRow& row) { lines = row.text(0); }, answer);
    ask(
        Sql("SELECT epoch FROM instances WHERE instance = ?")
            .add("", out.row.instance)
            .add(" ORDER BY last DESC LIMIT 1"),
        [&](const ResultRow& row) { epochMs = row.number(0); }, answer);
    if (answer != Answered::kOk) return answer;
    std::map<std::pair<NameKind, std::int64_t>, std::string> known;
    const NameLookup lookup = [&](NameKind kind, std::int64_t id) {
        const auto [at, added] = known.try_emplace({kind, id});
        if (added) at->second = nameOf(out.row.instance, kind, id, out.row.id, answer);
        return at->second;
    };
    readDetails(lines, out.row.duration, epochMs, lookup, out);
    return out.cut ? std::max(answer, Answered::kCut) : answer;
}

Answered StoreQuery::neighbours(TransactionDetails& out) {
    Answered answer = Answered::kOk;
    TransactionRow caller;
    if (out.row.previous && callerOf(out.row, caller) == Answered::kOk)
        out.caller = caller.id;
    else if (!error_.empty())
        answer = Answered::kCut;
    if (out.row.flowpath)
        ask(
            Sql("SELECT id FROM transactions WHERE previous = ?")
                .add("", out.row.flowpath)
                .add(" AND previous <> 0 AND at >= ?",
                     out.row.start - kDayMs)  // clocks differ by a day at most
                .add(" AND at < ?", out.row.at + kDayMs)
                .add(" ORDER BY id LIMIT ?", static_cast<std::int64_t>(kMostCallees)),
            [&](const ResultRow& row) { out.callees.push_back(row.number(0)); }, answer);
    return answer;
}

Answered StoreQuery::comparisons(TimeSpan span, std::vector<RunComparison>& out) {
    const Question question(*this);
    out.clear();
    Answered answer = Answered::kOk;
    Sql sql("SELECT at, instance, agreed, partial, differing FROM comparisons WHERE 1 = 1");
    addSpan(sql, span);
    sql.add(" ORDER BY at DESC, instance LIMIT ?", static_cast<std::int64_t>(kMostRows));
    ask(
        sql,
        [&](const ResultRow& row) {
            out.push_back({row.number(0), row.number(1), static_cast<std::uint64_t>(row.number(2)),
                           static_cast<std::uint64_t>(row.number(3)),
                           static_cast<std::uint64_t>(row.number(4))});
        },
        answer);
    return answer;
}

Answered StoreQuery::instances(std::vector<InstanceRow>& out) {
    const Question question(*this);
    out.clear();
    Answered answer = Answered::kOk;
    Sql sql(
        "SELECT instance, max(tier), max(server), max(app), max(agent), max(epoch), min(first), max(last) "
        "FROM instances GROUP BY instance ORDER BY max(last) DESC, instance LIMIT ?");
    sql.add("", static_cast<std::int64_t>(kMostRows));
    ask(
        sql,
        [&](const ResultRow& row) {
            out.push_back({row.number(0), row.text(1), row.text(2), row.text(3), row.text(4), row.number(5),
                           row.number(6), row.number(7)});
        },
        answer);
    return answer;
}

Answered StoreQuery::links(TimeSpan span, std::int64_t instance, std::int64_t stepMs,
                           std::vector<LinkRow>& out) {
    const Question question(*this);
    out.clear();
    Answered answer = Answered::kOk;
    Sql sql(std::string("SELECT ") + kBin +
            ", instance, sum(records), sum(monitor_records), sum(bytes), sum(unreadable), sum(dropped), "
            "sum(incomplete), sum(connects), sum(disconnects) FROM links WHERE 1 = 1");
    sql.add("", std::int64_t{0}).add("", stepMs);
    addSpan(sql, span);
    if (instance) sql.add(" AND instance = ?", instance);
    sql.add(" GROUP BY bin, instance ORDER BY bin, instance LIMIT ?", static_cast<std::int64_t>(kMostRows));
    ask(
        sql,
        [&](const ResultRow& row) {
            LinkRow link;
            int at = 0;
            for (std::int64_t* number :
                 {&link.at, &link.instance, &link.records, &link.monitorRecords, &link.bytes,
                  &link.unreadable, &link.dropped, &link.incomplete, &link.connects, &link.disconnects})
                *number = row.number(at++);
            out.push_back(link);
        },
        answer);
    if (answer == Answered::kOk && out.size() == kMostRows) answer = Answered::kCut;
    return answer;
}

Answered StoreQuery::names(std::size_t most, std::int64_t nextId, std::vector<StoredName>& out) {
    const Question question(*this);
    out.clear();
    Answered answer = Answered::kOk;
    std::set<std::tuple<std::int64_t, std::int64_t, std::int64_t>> seen;
    const std::int64_t first = nextId >> kCollectorShift << kCollectorShift;
    Sql sql("SELECT instance, kind, id, since, name FROM names ORDER BY CASE WHEN since >= ?");
    sql.add("", first).add(" AND since < ?", first + (std::int64_t{1} << kCollectorShift));
    sql.add(" THEN 0 ELSE 1 END, since DESC LIMIT ?", static_cast<std::int64_t>(most));
    ask(
        sql,
        [&](const ResultRow& row) {
            if (seen.emplace(row.number(0), row.number(1), row.number(2)).second)
                out.push_back({row.number(0), row.number(1), row.number(2), row.number(3), row.text(4)});
        },
        answer);
    return answer;
}

Answered StoreQuery::requests(std::size_t most, std::vector<RequestRow>& out) {
    const Question question(*this);
    out.clear();
    Answered answer = Answered::kOk;
    std::vector<std::int64_t> instances;
    const auto limit = static_cast<std::int64_t>(std::min(most, kMostRequests));
    std::int64_t first = INT64_MAX;
    for (const std::int64_t from : beginnings()) {
        if (out.size() == static_cast<std::size_t>(limit) || answer == Answered::kFailed) break;
        out.clear();
        instances.clear();
        Sql sql("SELECT id, instance, bt, url, at FROM transactions WHERE at >= ?");
        sql.add("", from).add(" ORDER BY at DESC, id DESC LIMIT ?", limit);
        ask(
            sql,
            [&](const ResultRow& row) {
                RequestRow& request = out.emplace_back();
                request.id = row.number(0);
                instances.push_back(row.number(1));
                first = std::min(first, row.number(4));
                request.bt = row.text(2);
                const std::string url = row.text(3);
                const std::size_t mark = url.find('?');
                request.url = url.substr(0, mark);
                if (mark != std::string::npos) request.query = url.substr(mark + 1);
            },
            answer);
    }
    if (out.empty() || answer == Answered::kFailed) return answer;
    std::unordered_map<std::int64_t, std::size_t> places;
    for (std::size_t at = 0; at < out.size(); ++at) places[out[at].id] = at;
    std::map<std::tuple<std::int64_t, std::int64_t, std::int64_t>, std::string> known;
    std::vector<std::pair<std::size_t, std::string>> lines;
    ask(
        Sql("SELECT tx, lines FROM records WHERE tx IN (SELECT id FROM transactions WHERE at >= ?")
            .add("", first)
            .add(" ORDER BY at DESC, id DESC LIMIT ?)", limit)
            .add(" AND at >= ?", first),
        [&](const ResultRow& row) {
            const auto place = places.find(row.number(0));
            if (place != places.end()) lines.emplace_back(place->second, row.text(1));
        },
        answer);
    for (const auto& [place, text] : lines) {
        const NameLookup lookup = [&, at = place](NameKind kind, std::int64_t id) {
            if (kind != NameKind::kHeader) return std::string();
            const auto [found, added] =
                known.try_emplace({instances[at], static_cast<std::int64_t>(kind), id});
            if (added) found->second = nameOf(instances[at], kind, id, out[at].id, answer);
            return found->second;
        };
        out[place].headers = readRequestHeaders(text, lookup);
    }
    return answer;
}

}  // namespace vx::collector
