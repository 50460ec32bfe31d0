#include "tools/collector/store_schema.h"

#include <array>
#include <cstring>

namespace vx::collector {

namespace {

constexpr ColumnType kText = ColumnType::kText;
constexpr ColumnType kNumber = ColumnType::kNumber;

constexpr Column key(const char* name, ColumnType type = kNumber) {
    return {name, type, Fold::kKey};
}
constexpr Column sum(const char* name) {
    return {name, kNumber, Fold::kAdd};
}
template <std::size_t... Sizes>
constexpr auto joined(const std::array<Column, Sizes>&... parts) {
    std::array<Column, (0 + ... + Sizes)> out{};
    std::size_t at = 0;
    const auto add = [&](const auto& part) {
        for (const Column& column : part) out[at++] = column;
    };
    (add(parts), ...);
    return out;
}

constexpr auto kTransactionColumns = std::to_array<Column>({
    key("id"),
    {"instance"},
    {"flowpath"},
    {"at"},
    {"start"},
    {"duration"},
    {"cpu"},
    {"status"},
    {"category"},
    {"end_reason"},
    {"bt", kText},
    {"url", kText},
    {"session", kText},
    {"page"},
    {"parent"},
    {"previous"},
    {"correlation", kText},
    {"trace_id", kText},
    {"caller_span", kText},
    {"callouts"},
    {"exceptions"},
});
constexpr auto kRecordColumns = std::to_array<Column>({key("tx"), {"at"}, {"lines", kText}});
constexpr auto kCalloutColumns = std::to_array<Column>({
    key("tx"),
    key("n"),
    {"instance"},
    {"at"},
    {"bt", kText},
    {"backend", kText},
    {"target", kText},
    {"us"},
    {"failed"},
    {"status"},
});
constexpr auto kExceptionColumns = std::to_array<Column>({
    key("tx"),
    key("n"),
    {"instance"},
    {"at"},
    {"bt", kText},
    {"class", kText},
    {"place", kText},
    {"stack", kText},
});
constexpr auto kNameColumns = std::to_array<Column>({
    key("instance"),
    key("kind"),
    key("id"),
    key("since"),
    {"name", kText},
});
// What sums are kept of, and what sums and monitors count.
constexpr auto kObject = std::to_array<Column>({
    key("step"),
    key("kind"),
    key("at"),
    key("instance"),
    key("name", kText),
});
constexpr auto kCounts = std::to_array<Column>({
    sum("count"),
    sum("normal"),
    sum("slow"),
    sum("very_slow"),
    sum("error"),
});
constexpr auto kRange = std::to_array<Column>({
    {"least", kNumber, Fold::kLeast},
    {"most", kNumber, Fold::kMost},
});
constexpr auto kSumColumns =
    joined(kObject, kCounts, std::to_array<Column>({sum("discarded"), sum("total_us")}), kRange);
constexpr auto kBucketColumns = joined(kObject, std::to_array<Column>({key("bucket"), sum("count")}));
constexpr auto kMonitorColumns =
    joined(std::to_array<Column>({key("at"), key("instance"), key("kind"), key("name", kText)}), kCounts,
           std::to_array<Column>({sum("total")}), kRange, std::to_array<Column>({key("line", kText)}));
constexpr auto kLinkColumns = std::to_array<Column>({
    key("at"),
    key("instance"),
    sum("records"),
    sum("monitor_records"),
    sum("bytes"),
    sum("unreadable"),
    sum("dropped"),
    sum("incomplete"),
    sum("connects"),
    sum("disconnects"),
});
constexpr auto kInstanceColumns = std::to_array<Column>({
    key("instance"),
    {"tier", kText},
    {"server", kText},
    {"app", kText},
    {"agent", kText},
    {"epoch"},
    {"first", kNumber, Fold::kLeast},
    {"last", kNumber, Fold::kMost},
});
constexpr auto kComparisonColumns = std::to_array<Column>({
    key("at"),
    key("instance"),
    sum("agreed"),
    sum("partial"),
    sum("differing"),
});

constexpr auto kTableRows = std::to_array<Table>({
    {"transactions", kTransactionColumns, false, nullptr},
    {"records", kRecordColumns, false, nullptr},
    {"callouts", kCalloutColumns, false, nullptr},
    {"exceptions", kExceptionColumns, false, nullptr},
    {"instances", kInstanceColumns, true, "last"},
    {"names", kNameColumns, true, nullptr},
    {"sums", kSumColumns, true, "at"},
    {"buckets", kBucketColumns, true, "at"},
    {"monitors", kMonitorColumns, true, "at"},
    {"links", kLinkColumns, true, "at"},
    {"comparisons", kComparisonColumns, true, "at"},
});
static_assert(kTableRows.size() == kTables, "every TableId needs one row");

// Lists are read latest first, of one BT, of what is not normal; chains over tiers by flowpaths.
constexpr auto kIndexes = std::to_array<const char*>({
    "CREATE INDEX transactions_at ON transactions(at)",
    "CREATE INDEX transactions_bt ON transactions(bt, at)",
    "CREATE INDEX transactions_bad ON transactions(category, at) WHERE category > 10",
    "CREATE INDEX transactions_flowpath ON transactions(flowpath)",
    "CREATE INDEX transactions_previous ON transactions(previous) WHERE previous <> 0",
    "CREATE INDEX callouts_backend ON callouts(backend, at)",
    "CREATE INDEX exceptions_class ON exceptions(class, at)",
});

// As the tables were then: what they are now is a matter of later steps.
constexpr auto kToVersion2 = std::to_array<const char*>({
    "ALTER TABLE monitors RENAME TO former_monitors",
    "CREATE TABLE monitors(at INTEGER NOT NULL, instance INTEGER NOT NULL, kind INTEGER NOT NULL, name TEXT "
    "NOT NULL, count INTEGER NOT NULL, normal INTEGER NOT NULL, slow INTEGER NOT NULL, very_slow INTEGER NOT "
    "NULL, error INTEGER NOT NULL, total INTEGER NOT NULL, least INTEGER NOT NULL, most INTEGER NOT NULL, "
    "line TEXT NOT NULL, PRIMARY KEY(at, instance, kind, name, line)) WITHOUT ROWID",
    "INSERT INTO monitors SELECT * FROM former_monitors",
    "DROP TABLE former_monitors",
});

// "a, b, c" of the columns that `wanted` picks, each as `form` makes it.
template <class Wanted, class Form>
std::string listOf(const Table& table, Wanted wanted, Form form, const char* separator = ", ") {
    std::string out;
    for (const Column& column : table.columns) {
        if (!wanted(column)) continue;
        if (!out.empty()) out += separator;
        out += form(column);
    }
    return out;
}
bool any(const Column&) {
    return true;
}
bool isKey(const Column& column) {
    return column.fold == Fold::kKey;
}
std::string nameOnly(const Column& column) {
    return column.name;
}

std::string folded(const Column& column) {
    const std::string name = column.name;
    switch (column.fold) {
        case Fold::kAdd:
            // A sum that is too great for a whole number would become another kind of number.
            return name + " = min(" + name + " + excluded." + name + ", 9223372036854775807)";
        case Fold::kLeast:
            return name + " = min(" + name + ", excluded." + name + ")";
        case Fold::kMost:
            return name + " = max(" + name + ", excluded." + name + ")";
        default:
            return name + " = excluded." + name;
    }
}

}  // namespace

const Table& tableOf(TableId id) {
    return kTableRows[id];
}

std::string columnsOf(const Table& table, const char* separator) {
    return listOf(table, any, nameOnly, separator);
}

std::string sqliteCreate(const Table& table) {
    const std::string keys = listOf(table, isKey, nameOnly);
    const bool rowId = keys.find(',') == std::string::npos;  // a single number is the row's own number
    return "CREATE TABLE " + std::string(table.name) + "(" +
           listOf(table, any,
                  [](const Column& column) {
                      return std::string(column.name) +
                             (column.type == ColumnType::kText ? " TEXT" : " INTEGER") + " NOT NULL";
                  }) +
           ", PRIMARY KEY(" + keys + "))" + (rowId ? "" : " WITHOUT ROWID");
}

std::string sqliteInsert(const Table& table) {
    std::string out = table.folds ? "INSERT INTO " : "INSERT OR REPLACE INTO ";
    out += std::string(table.name) + "(" + columnsOf(table) + ") VALUES(" +
           listOf(table, any, [](const Column&) { return "?"; }) + ")";
    if (!table.folds) return out;
    return out + " ON CONFLICT(" + listOf(table, isKey, nameOnly) + ") DO UPDATE SET " +
           listOf(
               table, [](const Column& column) { return column.fold != Fold::kKey; }, folded);
}

// Days are given up as a whole, so whatever has a time is divided by it. Single rows that come twice, since
// the answer to their insertion was lost, become one.
std::string clickHouseCreate(const Table& table) {
    std::string time;
    for (const Column& column : table.columns)
        if (!std::strcmp(column.name, "at") || !std::strcmp(column.name, "last")) time = column.name;
    return "CREATE TABLE IF NOT EXISTS " + std::string(table.name) + "(" +
           listOf(table, any,
                  [](const Column& column) {
                      return std::string(column.name) +
                             (column.type == ColumnType::kText ? " String" : " Int64");
                  }) +
           ") ENGINE = " + (table.folds ? "MergeTree" : "ReplacingMergeTree") +
           (time.empty() ? "" : " PARTITION BY toYYYYMMDD(toDateTime(intDiv(" + time + ", 1000), 'UTC'))") +
           " ORDER BY (" + (table.folds ? "" : "at, ") + listOf(table, isKey, nameOnly) + ")";
}

std::span<const char* const> sqliteSteps(int version) {
    if (version == 2) return kToVersion2;
    return {};
}

std::span<const char* const> sqliteIndexes() {
    return kIndexes;
}

}  // namespace vx::collector
