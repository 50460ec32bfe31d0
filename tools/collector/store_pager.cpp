#include "tools/collector/store_pager.h"

#include <algorithm>
#include <cstring>

namespace vx::collector {

namespace {

constexpr std::int64_t kFirstWindowMs = 10'000, kWidestWindowMs = 10 * 86'400'000LL;
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
    if (!hasTime_ || (!database_.findsByTime() && !ofTransactions_)) return Answered::kOk;
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
    window_ = {span_.from, std::min(span_.from + kFirstWindowMs, span_.to)};
    return answer;
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

// A full page goes on behind its last row. False at the end.
bool StorePager::moveWindow(std::size_t taken) {
    const bool full = taken == rows_;
    if (!hasTime_ || !database_.findsByTime()) return full;
    std::int64_t width = window_.to - window_.from;
    if (full) {
        // The rows of the rest of a window are looked at for each of its pages.
        const std::int64_t last = std::get<std::int64_t>(last_[0]);
        window_ = {last, std::min(last + std::max<std::int64_t>(width / 2, 1), span_.to)};
        return true;
    }
    if (taken < rows_ / 2) width = std::min(std::max(width, std::int64_t{1}) * 2, kWidestWindowMs);
    last_.clear();
    window_ = {window_.to, std::min(window_.to + width, span_.to)};
    return window_.from < span_.to;
}

Answered StorePager::next(const Database::Take& take, std::string& error) {
    Answered answer = begun_ ? Answered::kOk : begin(error);
    for (std::size_t taken = 0; answer == Answered::kOk && !over_ && taken == 0;) {
        answer = page(take, taken, error);
        if (answer == Answered::kOk) over_ = !moveWindow(taken);
    }
    over_ = over_ || answer != Answered::kOk;
    return answer;
}

}  // namespace vx::collector
