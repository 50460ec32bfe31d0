#include "tools/collector/store_clickhouse.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <ctime>
#include <utility>

#include "tools/collector/store_schema.h"

namespace vx::collector {

namespace {

constexpr int kHttpOk = 200;
// Codes of the server's exceptions that tell of rows which it cannot read, now or later.
constexpr auto kUnreadable = std::to_array<int>({6, 25, 26, 27, 38, 41, 72, 117});
constexpr std::int64_t kRetainEvery = 600'000;

// What stands behind a backslash in place of a byte. A line's end of any system in a text would end the row.
struct Escape {
    char byte, code;
};
constexpr auto kEscapes = std::to_array<Escape>(
    {{'\\', '\\'}, {'\t', 't'}, {'\n', 'n'}, {'\r', 'r'}, {'\0', '0'}, {'\b', 'b'}, {'\f', 'f'}});

// A row as tab-separated text.
class TabWriter : public RowSink {
public:
    explicit TabWriter(std::string& out) : out_(out) {}
    void number(std::int64_t value) override { separate().append(std::to_string(value)); }
    void text(std::string_view value) override {
        separate();
        for (const char byte : value) {
            const auto* const row = std::find_if(kEscapes.begin(), kEscapes.end(),
                                                 [byte](const Escape& e) { return e.byte == byte; });
            if (row == kEscapes.end())
                out_ += byte;
            else
                out_.append("\\").append(1, row->code);
        }
    }
    bool endRow() override {
        out_ += '\n';
        return first_ = true;
    }

private:
    std::string& separate() {
        if (!first_) out_ += '\t';
        first_ = false;
        return out_;
    }
    std::string& out_;
    bool first_ = true;
};

// The first line of an error, which may be long.
std::string firstLine(const std::string& text) {
    return text.substr(0, std::min<std::size_t>(text.find('\n'), 300));
}

// "Code: 27, e.displayText() = ..."
bool isOfRows(std::string_view fault) {
    constexpr std::string_view kCode = "Code: ";
    int code = 0;
    if (fault.starts_with(kCode))
        std::from_chars(fault.data() + kCode.size(), fault.data() + fault.size(), code);
    return std::find(kUnreadable.begin(), kUnreadable.end(), code) != kUnreadable.end();
}

std::string undone(std::string_view text) {
    std::string out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\' || at + 1 == text.size()) {
            out += text[at];
            continue;
        }
        const char code = text[++at];
        const auto* const row = std::find_if(kEscapes.begin(), kEscapes.end(),
                                             [code](const Escape& e) { return e.code == code; });
        out += row == kEscapes.end() ? code : row->byte;
    }
    return out;
}

class TabRow : public ResultRow {
public:
    explicit TabRow(std::string_view line) {
        for (std::size_t at = 0; at != std::string_view::npos;) {
            const std::size_t tab = line.find('\t', at);
            fields_.push_back(line.substr(at, tab == std::string_view::npos ? tab : tab - at));
            at = tab == std::string_view::npos ? tab : tab + 1;
        }
    }
    std::int64_t number(int column) const override {
        std::int64_t value = 0;
        const std::string_view text = field(column);
        std::from_chars(text.data(), text.data() + text.size(), value);
        return value;
    }
    std::string text(int column) const override { return undone(field(column)); }

private:
    std::string_view field(int column) const {
        const auto at = static_cast<std::size_t>(column);
        return at < fields_.size() ? fields_[at] : std::string_view();
    }
    std::vector<std::string_view> fields_;
};

// A text as a literal: nothing in it can end it.
std::string quoted(const std::string& text) {
    constexpr char kHex[] = "0123456789ABCDEF";
    std::string out = "'";
    for (const char byte : text) {
        const bool plain = (byte >= ' ' && byte < 127 && byte != '\'' && byte != '\\' && byte != '?');
        if (plain)
            out += byte;
        else
            out.append("\\x").append({kHex[(byte >> 4) & 0xF], kHex[byte & 0xF]});
    }
    return out + "'";
}

// "'transactions', 'records', ...": the database may hold tables of others.
std::string ownTables() {
    std::string out;
    for (int id = 0; id < kTables; ++id)
        out.append(id ? ", '" : "'").append(tableOf(static_cast<TableId>(id)).name).append("'");
    return out;
}

class ClickHouseDatabase : public Database {
public:
    ClickHouseDatabase(HttpAddress address, int timeMs) : address_(std::move(address)), timeMs_(timeMs) {}

    Answered select(const Sql& sql, const Take& take, std::string& error) override {
        const auto begin = std::chrono::steady_clock::now();
        const std::string seconds = std::to_string(std::max(1, timeMs_ / 1000));
        const HttpAnswer answer =
            postStatement(address_, "",
                          "&readonly=1&database=" + address_.database + "&max_execution_time=" + seconds +
                              "&timeout_overflow_mode=break",
                          rendered(sql) + " FORMAT TabSeparated");
        if (answer.status != kHttpOk) {
            error = firstLine(answer.body);
            return Answered::kFailed;
        }
        std::string_view rest = answer.body;
        while (!rest.empty()) {
            const std::size_t end = std::min(rest.find('\n'), rest.size());
            take(TabRow(rest.substr(0, end)));
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
        const auto took = std::chrono::steady_clock::now() - begin;
        return took >= std::chrono::milliseconds(timeMs_) ? Answered::kCut : Answered::kOk;
    }
    std::string contains(const char* column) const override {
        return "position(" + std::string(column) + ", ?) > 0";
    }
    // Whole numbers would begin again below zero.
    std::string sum(const char* column) const override {
        return "toInt64(least(sum(toFloat64(" + std::string(column) + ")), 9.2e18))";
    }
    bool findsByTime() const override { return true; }

private:
    static std::string rendered(const Sql& sql) {
        std::string out;
        std::size_t next = 0;
        for (const char byte : sql.text()) {
            if (byte != '?' || next == sql.values().size()) {
                out += byte;
                continue;
            }
            const Sql::Value& value = sql.values()[next++];
            const auto* number = std::get_if<std::int64_t>(&value);
            out += number ? std::to_string(*number) : quoted(*std::get_if<std::string>(&value));
        }
        return out;
    }
    const HttpAddress address_;
    const int timeMs_;
};

}  // namespace

std::unique_ptr<Database> openClickHouse(const HttpAddress& address, int timeMs, std::string& error) {
    auto database = std::make_unique<ClickHouseDatabase>(address, timeMs);
    std::int64_t version = 0;
    const auto take = [&](const ResultRow& row) { version = row.number(0); };
    if (database->select(Sql("SELECT max(value) FROM meta WHERE name = 'version'"), take, error) !=
        Answered::kOk)
        return nullptr;
    if (version > kServerVersion) error = "the tables are of a newer vxcollector";
    if (version > kServerVersion) return nullptr;
    return database;
}

bool ClickHouseSink::run(const std::string& statement, std::string& fault, const std::string& body) {
    const HttpAnswer answer = postStatement(address_, statement, "&database=" + address_.database, body);
    if (answer.status != kHttpOk) fault = firstLine(answer.body);
    return answer.status == kHttpOk;
}

bool ClickHouseSink::number(const std::string& statement, std::int64_t& out, std::string& fault) {
    const HttpAnswer answer = postStatement(address_, "", "&database=" + address_.database, statement);
    out = 0;
    std::from_chars(answer.body.data(), answer.body.data() + answer.body.size(), out);
    if (answer.status != kHttpOk) fault = firstLine(answer.body);
    return answer.status == kHttpOk;
}

bool ClickHouseSink::open(const HttpAddress& address, int collector, double keepDays, std::string& error) {
    address_ = address;
    keepDays_ = keepDays;
    const HttpAnswer made =
        postStatement(address_, "CREATE DATABASE IF NOT EXISTS " + address_.database, "", "");
    if (made.status != kHttpOk) {
        error = firstLine(made.body);
        return false;
    }
    bool done = run(
        "CREATE TABLE IF NOT EXISTS meta(name String, value Int64) ENGINE = MergeTree ORDER BY name", error);
    for (int id = 0; id < kTables; ++id) {
        const Table& table = tableOf(static_cast<TableId>(id));
        done = done && run(clickHouseCreate(table), error);
        // A table of somebody else with that name has other columns.
        done = done && run("SELECT " + columnsOf(table) + " FROM " + table.name + " LIMIT 0", error);
    }
    std::int64_t version = 0;
    done = done && number("SELECT max(value) FROM meta WHERE name = 'version'", version, error);
    if (done && version == 0)
        done = run("INSERT INTO meta FORMAT TabSeparated", error,
                   "version\t" + std::to_string(kServerVersion) + "\n");
    if (done && version > kServerVersion) {
        error = "the tables are of a newer vxcollector (version " + std::to_string(version) + ")";
        return false;
    }
    // Names tell of ids whose transactions are given up.
    const std::int64_t first = static_cast<std::int64_t>(collector) << kCollectorShift;
    const std::int64_t behind = first + (std::int64_t{1} << kCollectorShift);
    const auto greatest = [&](const std::string& column, const std::string& table) {
        return "SELECT max(" + column + ") FROM " + table + " WHERE " + column +
               " >= " + std::to_string(first) + " AND " + column + " < " + std::to_string(behind);
    };
    std::int64_t named = 0;
    done = done && number(greatest("id", "transactions"), nextId_, error) &&
           number(greatest("since", "names"), named, error);
    nextId_ = std::max(nextId_, named);
    nextId_ = std::max(nextId_, first) + 1;
    return done;
}

StoreSink::Wrote ClickHouseSink::write(std::span<const Batch> batches, std::string& fault) {
    for (; written_ < kTables; ++written_) {
        const auto table = static_cast<TableId>(written_);
        std::string body;
        TabWriter writer(body);
        for (const Batch& batch : batches) putRows(table, batch, writer);
        if (body.empty()) continue;
        const std::string statement =
            std::string("INSERT INTO ") + tableOf(table).name + " FORMAT TabSeparated";
        if (run(statement, fault, body)) continue;
        if (!isOfRows(fault)) return Wrote::kLater;
        refused_ = refused_ || table == kTransactions;
    }
    written_ = 0;
    return std::exchange(refused_, false) ? Wrote::kNever : Wrote::kDone;
}

bool ClickHouseSink::retain(std::int64_t now, std::string& fault) {
    const bool setBack = now < nextRetain_ - kRetainEvery;
    if (keepDays_ <= 0 || (now < nextRetain_ && !setBack)) {
        fault = retainFault_;
        return false;
    }
    nextRetain_ = now + kRetainEvery;
    if (forgetDays(now, fault))
        run("ALTER TABLE names DELETE WHERE instance NOT IN (SELECT instance FROM " + address_.database +
                ".instances)",
            fault);
    retainFault_ = fault;
    return false;
}

// True when any was given up.
bool ClickHouseSink::forgetDays(std::int64_t now, std::string& fault) {
    const auto horizon = static_cast<std::time_t>(now / 1000 - static_cast<std::int64_t>(keepDays_ * 86'400));
    std::tm time{};
    ::gmtime_r(&horizon, &time);
    char day[16] = "";
    std::strftime(day, sizeof(day), "%Y%m%d", &time);
    const HttpAnswer old =
        postStatement(address_, "", "",
                      "SELECT DISTINCT table, partition FROM system.parts WHERE active AND database = '" +
                          address_.database + "' AND table IN (" + ownTables() +
                          ") AND length(partition) = 8 AND partition < '" + day + "' FORMAT TabSeparated");
    std::string_view rest = old.body;
    if (old.status != kHttpOk) fault = firstLine(old.body);
    bool any = false;
    while (old.status == kHttpOk && !rest.empty()) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        const TabRow row(rest.substr(0, end));
        any = run("ALTER TABLE " + row.text(0) + " DROP PARTITION " + row.text(1), fault) || any;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return any;
}

// The oldest day: a look at all rows, each few seconds, would be the server's main work.
StoreSink::Holds ClickHouseSink::holds() {
    Holds out;
    std::string ignored;
    number("SELECT sum(bytes_on_disk) FROM system.parts WHERE active AND database = '" + address_.database +
               "' AND table IN (" + ownTables() + ")",
           out.bytes, ignored);
    std::int64_t day = 0;  // as in 20261122
    number("SELECT min(partition) FROM system.parts WHERE active AND database = '" + address_.database +
               "' AND table = 'transactions'",
           day, ignored);
    if (day > 0) {
        std::tm time{};
        time.tm_year = static_cast<int>(day / 10'000) - 1900;
        time.tm_mon = static_cast<int>(day / 100 % 100) - 1;
        time.tm_mday = static_cast<int>(day % 100);
        out.oldestAt = static_cast<std::int64_t>(::timegm(&time)) * 1000;
    }
    return out;
}

}  // namespace vx::collector
