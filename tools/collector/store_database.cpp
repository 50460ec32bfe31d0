#include "tools/collector/store_database.h"

#include <sqlite3.h>

#include <chrono>

#include "tools/collector/store_schema.h"

namespace vx::collector {

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kStepsBetweenLooks = 2000;

class SqliteRow : public ResultRow {
public:
    explicit SqliteRow(sqlite3_stmt* statement) : statement_(statement) {}
    std::int64_t number(int column) const override { return sqlite3_column_int64(statement_, column); }
    std::string text(int column) const override {
        const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
        return bytes ? std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
                     : std::string();
    }

private:
    sqlite3_stmt* statement_;
};

class SqliteDatabase : public Database {
public:
    explicit SqliteDatabase(int timeMs) : timeMs_(timeMs) {}
    ~SqliteDatabase() override { sqlite3_close(database_); }

    bool open(const std::string& path, std::string& error) {
        const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX;
        std::int64_t application = 0, version = 0;
        const bool opened = sqlite3_open_v2(path.c_str(), &database_, flags, nullptr) == SQLITE_OK;
        if (opened) {
            sqlite3_busy_timeout(database_, kQueryTimeMs);
            sqlite3_progress_handler(database_, kStepsBetweenLooks, isOver, this);
        }
        const auto one = [](std::int64_t& out) {
            return [&out](const ResultRow& row) { out = row.number(0); };
        };
        if (!opened || select(Sql("PRAGMA application_id"), one(application), error) != Answered::kOk ||
            select(Sql("PRAGMA user_version"), one(version), error) != Answered::kOk) {
            error = path + ": " + (database_ ? sqlite3_errmsg(database_) : "no memory");
            return false;
        }
        if (application != kApplicationId) error = path + ": not a database of vxcollector";
        if (version > kSchemaVersion) error = path + ": written by a newer vxcollector";
        return error.empty();
    }

    Answered select(const Sql& sql, const Take& take, std::string& error) override {
        sqlite3_stmt* statement = nullptr;
        end_ = Clock::now() + std::chrono::milliseconds(timeMs_);
        int answer = sqlite3_prepare_v2(database_, sql.text().c_str(), -1, &statement, nullptr);
        if (answer == SQLITE_OK) {
            bind(statement, sql);
            const SqliteRow row(statement);
            while ((answer = sqlite3_step(statement)) == SQLITE_ROW) take(row);
        }
        if (answer != SQLITE_DONE && answer != SQLITE_INTERRUPT) error = sqlite3_errmsg(database_);
        sqlite3_finalize(statement);
        if (answer == SQLITE_INTERRUPT) return Answered::kCut;
        return answer == SQLITE_DONE ? Answered::kOk : Answered::kFailed;
    }

    std::string contains(const char* column) const override {
        return "instr(" + std::string(column) + ", ?) > 0";
    }
    std::string sum(const char* column) const override {
        return "CAST(total(" + std::string(column) + ") AS INTEGER)";
    }
    bool findsByTime() const override { return false; }
    void hold() override { sqlite3_exec(database_, "BEGIN", nullptr, nullptr, nullptr); }
    void release() override { sqlite3_exec(database_, "COMMIT", nullptr, nullptr, nullptr); }

private:
    static int isOver(void* self) { return Clock::now() > static_cast<SqliteDatabase*>(self)->end_; }

    static void bind(sqlite3_stmt* statement, const Sql& sql) {
        int at = 0;
        for (const Sql::Value& value : sql.values()) {
            ++at;
            if (const auto* number = std::get_if<std::int64_t>(&value))
                sqlite3_bind_int64(statement, at, *number);
            else if (const auto* text = std::get_if<std::string>(&value))
                sqlite3_bind_text64(statement, at, text->c_str(), text->size(), SQLITE_STATIC, SQLITE_UTF8);
        }
    }

    const int timeMs_;
    sqlite3* database_ = nullptr;
    Clock::time_point end_{};
};

}  // namespace

std::unique_ptr<Database> openSqlite(const std::string& path, int timeMs, std::string& error) {
    auto database = std::make_unique<SqliteDatabase>(timeMs);
    error.clear();
    if (!database->open(path, error)) return nullptr;
    return database;
}

}  // namespace vx::collector
