// The tables of a store, as one list of columns from which the statements of each dialect are made.
//
// Rows of a folding table with the same key become one: numbers are added, least and most kept, other
// columns take the later value. SQLite folds on insertion; an engine that only appends keeps all of them, and
// every query adds up either way.
//
// Threads   Any; no state.
#pragma once

#include <span>
#include <string>

namespace vx::collector {

// Grows with each change of the tables. A file of a newer version is refused, an older one is brought up when
// it is opened for writing (sqliteSteps()) and read as it is. 2: tagged lines of one BT have a row each.
inline constexpr int kSchemaVersion = 2;
// Of the tables in a server, where the order of rows and columns is all that there is to change.
inline constexpr int kServerVersion = 1;
inline constexpr int kApplicationId = 0x56585052;  // marks a database file as one of ours

enum class ColumnType { kNumber, kText };
enum class Fold { kKey, kAdd, kLeast, kMost, kLatest };
struct Column {
    const char* name;
    ColumnType type = ColumnType::kNumber;
    Fold fold = Fold::kLatest;
};
struct Table {
    const char* name;
    std::span<const Column> columns;
    bool folds;
    const char* time;  // the column by which old rows go; null: they go otherwise
};

// In the order in which they are written: no id is given out twice when only the first ones got there, and
// the names of an instance never come before it.
enum TableId {
    kTransactions,
    kRecords,
    kCallouts,
    kExceptions,
    kInstances,
    kNames,
    kSums,
    kBuckets,
    kMonitors,
    kLinks,
    kComparisons,
    kTables
};
const Table& tableOf(TableId id);
// The names of its columns, in their order.
std::string columnsOf(const Table& table, const char* separator = ", ");

// Statements of SQLite.
std::string sqliteCreate(const Table& table);
std::string sqliteInsert(const Table& table);
// What makes a file of the version before one of `version`, without its number.
std::span<const char* const> sqliteSteps(int version);
// A statement of ClickHouse.
std::string clickHouseCreate(const Table& table);
// Further statements of a new file: indexes.
std::span<const char* const> sqliteIndexes();

}  // namespace vx::collector
