#include "tools/collector/store_pager.h"

#include <algorithm>
#include <cstring>

#include "tools/collector/store_rows.h"

namespace vx::collector {

namespace {

constexpr std::int64_t kWindowMs = 10'000;
constexpr std::int64_t kFirstStretchMs = 3'600'000, kWidestStretchMs = 30 * 86'400'000LL;
constexpr int kNoColumn = -1;

int placeOf(const Table& table, const char* name) {
    for (std::size_t at = 0; at < table.columns.size(); ++at)
        if (!std::strcmp(table.columns[at].name, name)) return static_cast<int>(at);
    return kNoColumn;
}

// How rows of one key become one, where they have not been folded yet.
std::string foldedColumn(const Table& table, const Column& column, const Database& database) {
    std::string name = column.name;
    if (column.fold == Fold::kKey || name == "at") return name;
    if (column.fold == Fold::kAdd) return database.sum(column.name);
    if (column.fold == Fold::kLeast) return "min(" + name + ")";
    if (column.fold == Fold::kMost) return "max(" + name + ")";
    const bool hasLast = placeOf(table, "last") != kNoColumn;
    return hasLast ? "argMax(" + name + ", last)" : "any(" + name + ")";
}

// Of a table in a file, by its keys alone: where others come before the time, it is asked below each of them.
Sql greatestTime(const Table& table) {
    const std::string greatest = "SELECT max(at) AS at FROM " + std::string(table.name);
    if (placeOf(table, "at") == 0) return Sql(greatest);
    std::string all;
    for (const std::int64_t step : {kSumStep, kLongSumStep})
        for (std::size_t kind = 0; kind < kMonitoredKinds; ++kind)
            all += (all.empty() ? "" : " UNION ALL ") + greatest + " WHERE step = " + std::to_string(step) +
                   " AND kind = " + std::to_string(kind);
    return Sql("SELECT max(at) FROM (" + all + ")");
}

}  // namespace

StorePager::StorePager(Database& database, const Table& table, TimeSpan span, std::size_t rows)
    : database_(database), table_(table), span_(span), rows_(rows) {
    const int time = placeOf(table, "at");
    hasTime_ = time != kNoColumn;
    ofTransactions_ = !table.folds;
    if (hasTime_ && database.findsByTime()) order_.push_back(time);
    for (std::size_t at = 0; at < table.columns.size(); ++at)
        if (table.columns[at].fold == Fold::kKey && (order_.empty() || order_[0] != static_cast<int>(at)))
            order_.push_back(static_cast<int>(at));
}

// What there is now: who reads slower than others write would never come to an end.
Answered StorePager::begin(std::string& error) {
    begun_ = true;
    if (!hasTime_) return Answered::kOk;
    if (!database_.findsByTime() && !ofTransactions_) return clipToNow(error);
    const bool byTime = database_.findsByTime();
    const std::string column = byTime ? "at" : "id", table = byTime ? table_.name : "transactions";
    Sql bounds("SELECT min(" + column + "), max(" + column + "), count(*) FROM " + table);
    bounds.add(" WHERE at >= ?", span_.from).add(" AND at < ?", span_.to);
    TimeSpan found;
    const auto take = [&](const ResultRow& row) {
        over_ = row.number(2) == 0;
        found = {row.number(0), row.number(1)};
    };
    const Answered answer = database_.select(bounds, take, error);
    if (!byTime) ids_ = found;
    if (byTime) span_ = {found.from, found.to + 1};
    window_ = windowAt(span_.from, kWindowMs);
    return answer;
}

// What adds up has no number of its own: later times stay out.
Answered StorePager::clipToNow(std::string& error) {
    const auto take = [this](const ResultRow& row) {
        if (row.number(0) < span_.to) span_.to = row.number(0) + 1;
    };
    return database_.select(greatestTime(table_), take, error);
}

// In a file each page has to find its first row by the keys. So behind the first page nothing else says where
// a key begins: of two such conditions the engine follows one, which may be the one that stays. And a time
// that is no key is not looked up in an index of its own.
void StorePager::addBounds(Sql& sql) const {
    if (database_.findsByTime()) {
        if (hasTime_) sql.add(" AND at >= ?", window_.from).add(" AND at < ?", window_.to);
        return;
    }
    const std::string first = table_.columns.front().name;
    if (ofTransactions_) {
        if (last_.empty()) sql.add(" AND " + first + " >= ?", ids_.from);
        sql.add(" AND " + first + " <= ?", ids_.to);
    }
    if (!hasTime_) return;
    const std::string time = first == "at" ? "at" : "+at";
    if (first != "at" || last_.empty()) sql.add(" AND " + time + " >= ?", span_.from);
    sql.add(" AND " + time + " < ?", span_.to);
}

Sql StorePager::statement() const {
    std::string columns, order, marks;
    for (const Column& column : table_.columns) {
        columns.append(columns.empty() ? "" : ", ");
        columns.append(database_.findsByTime() ? foldedColumn(table_, column, database_) : column.name);
    }
    for (const int place : order_) {
        order.append(order.empty() ? "" : ", ").append(table_.columns[static_cast<std::size_t>(place)].name);
        marks.append(marks.empty() ? "?" : ", ?");
    }
    Sql sql("SELECT " + columns + " FROM " + table_.name + " WHERE 1 = 1");
    addBounds(sql);
    if (!last_.empty()) {
        sql.add(" AND (" + order + ") > (" + marks + ")");
        for (const Sql::Value& value : last_) sql.bind(value);
    }
    if (database_.findsByTime()) sql.add(" GROUP BY " + order);
    return sql.add(" ORDER BY " + order + " LIMIT ?", static_cast<std::int64_t>(rows_));
}

void StorePager::remember(const ResultRow& row) {
    last_.clear();
    for (const int place : order_) {
        if (table_.columns[static_cast<std::size_t>(place)].type == ColumnType::kNumber)
            last_.emplace_back(row.number(place));
        else
            last_.emplace_back(row.text(place));
    }
}

Answered StorePager::page(const Database::Take& take, std::size_t& taken, std::string& error) {
    taken = 0;
    const auto takeOne = [&](const ResultRow& row) {
        if (++taken == rows_) remember(row);
        take(row);
    };
    return database_.select(statement(), takeOne, error);
}

TimeSpan StorePager::windowAt(std::int64_t from, std::int64_t width) const {
    return {from, from + std::min(width, span_.to - from)};
}

// A full page goes on behind its last row.
Answered StorePager::moveWindow(std::size_t taken, std::string& error) {
    const bool full = taken == rows_, few = taken < rows_ / 2;
    over_ = !full;
    if (!hasTime_ || !database_.findsByTime()) return Answered::kOk;
    const std::int64_t width = std::clamp<std::int64_t>(window_.to - window_.from, 1, kWindowMs);
    if (full) {
        // The rows of the rest of a window are looked at for each of its pages.
        window_ = windowAt(std::get<std::int64_t>(last_[0]), std::max<std::int64_t>(width / 2, 1));
        return Answered::kOk;
    }
    last_.clear();
    window_ = windowAt(window_.to, few ? std::min(width * 2, kWindowMs) : width);
    over_ = window_.from >= span_.to;
    return few && width == kWindowMs && !over_ ? findWindow(error) : Answered::kOk;
}

// Where few rows come: the window that holds a page of them. What ends a quiet time may be dense, so no
// window is made wide without a look: only times are read for it, and of stretches, not of all that is left.
Answered StorePager::findWindow(std::string& error) {
    Answered answer = Answered::kOk;
    std::size_t found = 0;
    std::int64_t width = kFirstStretchMs;
    for (TimeSpan stretch = window_; answer == Answered::kOk && !found && stretch.from < span_.to;) {
        stretch = windowAt(stretch.from, width);
        Sql sql("SELECT max(at), count(*) FROM (SELECT at FROM " + std::string(table_.name));
        sql.add(" WHERE at >= ?", stretch.from).add(" AND at < ?", stretch.to);
        sql.add(" ORDER BY at LIMIT ?)", static_cast<std::int64_t>(rows_));
        const auto take = [&](const ResultRow& row) {
            found = static_cast<std::size_t>(row.number(1));
            window_ = {stretch.from, found < rows_ ? stretch.to : row.number(0) + 1};
        };
        answer = database_.select(sql, take, error);
        stretch.from = stretch.to;
        width = std::min(width * 2, kWidestStretchMs);
    }
    over_ = !found;
    return answer;
}

Answered StorePager::next(const Database::Take& take, std::string& error) {
    Answered answer = begun_ ? Answered::kOk : begin(error);
    for (std::size_t taken = 0; answer == Answered::kOk && !over_ && taken == 0;) {
        answer = page(take, taken, error);
        if (answer == Answered::kOk) answer = moveWindow(taken, error);
    }
    over_ = over_ || answer != Answered::kOk;
    return answer;
}

}  // namespace vx::collector
