#include "tools/collector/store_sqlite.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "commonlibc/vxlb_clock.h"

namespace vx::collector {

namespace {

constexpr int kBusyMs = 2000;
constexpr std::int64_t kAgedEvery = 60'000;
constexpr std::int64_t kNamesEvery = 3'600'000, kAgedSlice = 3'600'000;
constexpr int kVacuumPages = 500;
constexpr int kUsualJournalPages = 1000;
constexpr double kLeastJournalMb = 1024, kBytesOfMb = 1024 * 1024;
constexpr std::int64_t kWaitEveryMs = 60'000;

// Binds the values of a row in their order.
class Binder : public RowSink {
public:
    explicit Binder(sqlite3_stmt* statement) : statement_(statement) {}
    void number(std::int64_t value) override { sqlite3_bind_int64(statement_, ++at_, value); }
    // The row outlives the step.
    void text(std::string_view value) override {
        sqlite3_bind_text64(statement_, ++at_, value.empty() ? "" : value.data(), value.size(), SQLITE_STATIC,
                            SQLITE_UTF8);
    }
    bool endRow() override {
        at_ = 0;
        const bool done = sqlite3_step(statement_) == SQLITE_DONE;
        return sqlite3_reset(statement_) == SQLITE_OK && done;
    }

private:
    sqlite3_stmt* statement_;
    int at_ = 0;
};

// Behind each commit: the pages of the journal are told, and what no reader needs there goes into the file.
int committed(void* bytes, sqlite3* database, const char* name, int pages) {
    constexpr std::int64_t kPageSize = 4096;  // of a file that is made here
    *static_cast<std::int64_t*>(bytes) = pages * kPageSize;
    if (pages >= kUsualJournalPages)
        sqlite3_wal_checkpoint_v2(database, name, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    return SQLITE_OK;
}

// An error that goes away by itself, or when somebody makes room.
bool isPassing(int code) {
    switch (code & 0xFF) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_NOMEM:
        case SQLITE_READONLY:
        case SQLITE_IOERR:
        case SQLITE_FULL:
        case SQLITE_CANTOPEN:
        case SQLITE_INTERRUPT:
            return true;
        default:
            return false;
    }
}

}  // namespace

SqliteSink::~SqliteSink() {
    for (sqlite3_stmt* statement : inserts_) sqlite3_finalize(statement);
    sqlite3_close(database_);
    if (lockFd_ >= 0) ::close(lockFd_);
}

bool SqliteSink::open(const std::string& path, const Retention& retention, std::string& error) {
    retention_ = retention;
    path_ = path;
    if (!lock(path, error)) return false;
    if (sqlite3_open_v2(path.c_str(), &database_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK ||
        !prepareFile(error)) {
        error = path + ": " + (error.empty() ? whyNot() : error);
        return false;
    }
    return true;
}

// Two writers would give the same ids out. The lock goes with the process.
bool SqliteSink::lock(const std::string& path, std::string& error) {
    lockFd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (lockFd_ < 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    if (::flock(lockFd_, LOCK_EX | LOCK_NB) == 0) return true;
    error = path + ": another vxcollector writes it";
    return false;
}

bool SqliteSink::prepareFile(std::string& error) {
    sqlite3_busy_timeout(database_, kBusyMs);
    // Says at once whether the file is a database at all.
    const std::int64_t version = number("PRAGMA user_version", -1);
    if (version < 0) return false;
    const std::int64_t tables = number("SELECT count(*) FROM sqlite_master", -1);
    if (tables < 0) return false;
    if (tables > 0 && number("PRAGMA application_id") != kApplicationId) {
        error = "a database of another program";
        return false;
    }
    if (version > kSchemaVersion) {
        error = "written by a newer vxcollector (version " + std::to_string(version) + " of the tables, " +
                std::to_string(kSchemaVersion) + " is known)";
        return false;
    }
    if (tables == 0 && !create()) return false;
    if (tables > 0 && version < kSchemaVersion && !bringUp(static_cast<int>(version))) {
        error = "its tables of version " + std::to_string(version) + " cannot be made those of version " +
                std::to_string(kSchemaVersion) + ", and are left as they are: " + whyNot();
        run("ROLLBACK");
        return false;
    }
    if (!writesAhead(error) || !run("PRAGMA synchronous=NORMAL") ||
        !run("PRAGMA journal_size_limit=67108864") || !run("PRAGMA cache_size=-32768"))
        return false;
    sqlite3_wal_hook(database_, committed, &journalBytes_);
    for (int id = 0; id < kTables; ++id) {
        sqlite3_stmt* statement = nullptr;
        const std::string sql = sqliteInsert(tableOf(static_cast<TableId>(id)));
        if (sqlite3_prepare_v3(database_, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
            SQLITE_OK)
            return false;
        inserts_.push_back(statement);
    }
    nextId_ = std::max(number("SELECT max(id) FROM transactions"),
                       number("SELECT value FROM meta WHERE name = 'last_id'")) +
              1;
    return run("UPDATE meta SET value = value WHERE name = 'last_id'");  // says whether it can be written
}

// The statement answers with the kind of journal that there is now.
bool SqliteSink::writesAhead(std::string& error) {
    std::string kind;
    const auto take = [](void* out, int, char** values, char**) {
        *static_cast<std::string*>(out) = values[0] ? values[0] : "";
        return 0;
    };
    if (sqlite3_exec(database_, "PRAGMA journal_mode=WAL", take, &kind, nullptr) != SQLITE_OK) return false;
    if (kind != "wal") error = "this file system has no locks or no shared memory: a local disk is needed";
    return error.empty();
}

bool SqliteSink::create() {
    // Before the first table, or it has no effect.
    if (!run("PRAGMA auto_vacuum=INCREMENTAL") || !run("BEGIN IMMEDIATE")) return false;
    bool made =
        run("PRAGMA application_id=" + std::to_string(kApplicationId)) &&
        run("PRAGMA user_version=" + std::to_string(kSchemaVersion)) &&
        run("CREATE TABLE meta(name TEXT NOT NULL PRIMARY KEY, value NOT NULL) WITHOUT ROWID") &&
        run("INSERT INTO meta VALUES('version', " + std::to_string(kSchemaVersion) + "), ('last_id', 0)");
    for (int id = 0; id < kTables; ++id) made = made && run(sqliteCreate(tableOf(static_cast<TableId>(id))));
    for (const char* index : sqliteIndexes()) made = made && run(index);
    return made && run("COMMIT");
}

// All steps or none: the file is of one version at any time.
bool SqliteSink::bringUp(int version) {
    std::fprintf(stderr, "vxcollector: %s gets the tables of version %d, which may take a while\n",
                 path_.c_str(), kSchemaVersion);
    bool done = run("BEGIN IMMEDIATE");
    while (done && ++version <= kSchemaVersion)
        for (const char* step : sqliteSteps(version)) done = done && run(step);
    const std::string now = std::to_string(kSchemaVersion);
    return done && run("UPDATE meta SET value = " + now + " WHERE name = 'version'") &&
           run("PRAGMA user_version=" + now) && run("COMMIT");
}

std::string SqliteSink::whyNot() const {
    if (!database_) return "no memory";
    const int code = sqlite3_errcode(database_);
    const std::string folder = std::filesystem::path(path_).parent_path().string();
    if ((code == SQLITE_CANTOPEN || code == SQLITE_READONLY) &&
        ::access(folder.empty() ? "." : folder.c_str(), W_OK) != 0)
        return "its folder cannot be written, and journals stand beside it: " +
               std::string(std::strerror(errno));
    const int system = code == SQLITE_IOERR || code == SQLITE_CANTOPEN ? sqlite3_system_errno(database_) : 0;
    return sqlite3_errmsg(database_) + (system ? std::string(": ") + std::strerror(system) : std::string());
}

// What goes into a file that has been removed is lost as soon as this process ends.
bool SqliteSink::isThere() const {
    struct stat opened {
    }, named{};
    return ::fstat(lockFd_, &opened) == 0 && ::stat(path_.c_str(), &named) == 0 &&
           opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

bool SqliteSink::run(const std::string& sql) {
    return sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

// The first value of the first row; `otherwise` on an error, 0 for no value.
std::int64_t SqliteSink::number(const std::string& sql, std::int64_t otherwise) {
    sqlite3_stmt* statement = nullptr;
    std::int64_t value = otherwise;
    if (sqlite3_prepare_v2(database_, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
        const int answer = sqlite3_step(statement);
        if (answer == SQLITE_ROW) value = sqlite3_column_int64(statement, 0);
        if (answer == SQLITE_DONE) value = 0;
    }
    sqlite3_finalize(statement);
    return value;
}

bool SqliteSink::insert(const Batch& batch) {
    for (int id = 0; id < kTables; ++id) {
        const auto table = static_cast<TableId>(id);
        Binder binder(inserts_[table]);
        if (!putRows(table, batch, binder)) return false;
    }
    return true;
}

StoreSink::Wrote SqliteSink::write(std::span<const Batch> batches, std::string& fault) {
    if (!isThere()) {
        fault = path_ + " was removed, or another file is in its place; a restart makes a new one";
        return Wrote::kLater;
    }
    if (!journalFits(fault)) return Wrote::kLater;
    std::int64_t last = nextId_ - 1;
    bool done = run("BEGIN IMMEDIATE");
    for (const Batch& batch : batches) {
        done = done && insert(batch);
        if (!batch.transactions.empty()) last = std::max(last, batch.transactions.back().row.id);
    }
    if (done && last >= nextId_)
        done = run("UPDATE meta SET value = " + std::to_string(last) + " WHERE name = 'last_id'");
    if (done && run("COMMIT")) {
        nextId_ = last + 1;
        return Wrote::kDone;
    }
    const int code = sqlite3_extended_errcode(database_);
    fault = whyNot();
    for (sqlite3_stmt* statement : inserts_) sqlite3_reset(statement);
    if (sqlite3_get_autocommit(database_) == 0) run("ROLLBACK");
    return isPassing(code) ? Wrote::kLater : Wrote::kNever;
}

// Those that the condition on an id picks; their own rows last, since the condition may look at them.
bool SqliteSink::forgetTransactions(const std::string& ids) {
    const bool done = run("BEGIN IMMEDIATE") && run("DELETE FROM records WHERE tx " + ids) &&
                      run("DELETE FROM callouts WHERE tx " + ids) &&
                      run("DELETE FROM exceptions WHERE tx " + ids) &&
                      run("DELETE FROM transactions WHERE id " + ids) && run("COMMIT");
    if (!done && sqlite3_get_autocommit(database_) == 0) run("ROLLBACK");
    return done;
}

// False when somebody has kept it from beginning anew for too long.
bool SqliteSink::journalFits(std::string& fault) {
    const double mb = static_cast<double>(journalBytes_) / kBytesOfMb;
    const double most =
        retention_.journalMb > 0 ? retention_.journalMb : std::max(kLeastJournalMb, retention_.keepMb / 4);
    const std::int64_t now = vxlb_steady_ms();
    if (mb < most / 4 || (mb < most && now < nextWaitMs_)) return true;
    nextWaitMs_ = now + kWaitEveryMs;
    sqlite3_busy_timeout(database_, retention_.readersMs);
    const int answer =
        sqlite3_wal_checkpoint_v2(database_, nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr);
    sqlite3_busy_timeout(database_, kBusyMs);
    if (answer == SQLITE_OK) journalBytes_ = 0;
    if (answer == SQLITE_OK || mb < most) return true;
    fault = path_ + "-wal has " + std::to_string(static_cast<std::int64_t>(mb)) + " MB and cannot go on: " +
            (answer == SQLITE_BUSY ? "somebody has been reading the file for too long" : whyNot());
    return false;
}

// Rows of "TABLE WHERE ..." whose time lies before `at`: an hour of them, `more` when there are others.
bool SqliteSink::forgetBefore(const std::string& rows, const std::string& time, std::int64_t at, bool& more) {
    const std::string before = rows + " " + time + " < ";
    const std::int64_t first = number("SELECT min(" + time + ") FROM " + before + std::to_string(at));
    if (first == 0) return true;
    const std::int64_t until = std::min(at, first + kAgedSlice);
    more = more || until < at;
    return run("DELETE FROM " + before + std::to_string(until));
}

bool SqliteSink::forgetSums(std::int64_t step, std::int64_t at, bool& more) {
    bool done = true;
    for (std::size_t kind = 0; kind < kMonitoredKinds; ++kind)
        for (const char* table : {"sums", "buckets"})
            done = done && forgetBefore(std::string(table) + " WHERE step = " + std::to_string(step) +
                                            " AND kind = " + std::to_string(kind) + " AND",
                                        "at", at, more);
    return done;
}

// Tables that have a time of their own.
bool SqliteSink::forgetOld(std::int64_t at, bool& more) {
    bool done = forgetSums(kLongSumStep, at, more);
    for (int id = 0; id < kTables; ++id) {
        const Table& table = tableOf(static_cast<TableId>(id));
        if (!table.time || id == kSums || id == kBuckets) continue;
        done = done && forgetBefore(std::string(table.name) + " WHERE", table.time, at, more);
    }
    return done;
}

// Those of instances that are gone, and those that were replaced before the oldest transaction came.
bool SqliteSink::forgetNames(std::int64_t now) {
    if (now < nextNames_ && now >= nextNames_ - kNamesEvery) return true;
    const std::int64_t first = number("SELECT min(id) FROM transactions");
    const std::string oldest = std::to_string(first ? first : nextId_);
    const bool done =
        run("DELETE FROM names WHERE instance NOT IN (SELECT instance FROM instances)") &&
        run("DELETE FROM names WHERE EXISTS (SELECT 1 FROM names AS later WHERE later.instance = "
            "names.instance "
            "AND later.kind = names.kind AND later.id = names.id AND later.since > names.since AND "
            "later.since <= " +
            oldest + ")");
    if (done) nextNames_ = now + kNamesEvery;
    return done;
}

std::int64_t SqliteSink::usedBytes() {
    return (number("PRAGMA page_count") - number("PRAGMA freelist_count")) * number("PRAGMA page_size");
}

bool SqliteSink::forgetFirst(bool& more) {
    const std::int64_t last = number("SELECT max(id) FROM (SELECT id FROM transactions ORDER BY id LIMIT " +
                                     std::to_string(kSlice) + ")");
    more = last > 0;
    return !more || forgetTransactions("<= " + std::to_string(last));
}

bool SqliteSink::forgetAged(std::int64_t horizon, bool& more) {
    const std::string old = "FROM transactions WHERE at < " + std::to_string(horizon) +
                            " ORDER BY at LIMIT " + std::to_string(kSlice);
    more = number("SELECT id " + old) > 0;
    return !more || forgetTransactions("IN (SELECT id " + old + ")");
}

// No transaction is left: the rest gives way, the oldest tenth of the time.
bool SqliteSink::forgetRest(std::int64_t now, bool& more) {
    const std::int64_t first = number(
        "SELECT min(at) FROM (SELECT min(at) AS at FROM sums WHERE step = " + std::to_string(kLongSumStep) +
        " UNION ALL SELECT min(at) FROM monitors UNION ALL SELECT min(at) FROM links)");
    const std::int64_t until = first + std::max(kLongSumStep, (now - first) / 10);
    return (first == 0 || forgetOld(until, more)) && forgetSums(kSumStep, until, more);
}

bool SqliteSink::retain(std::int64_t now, std::string& fault) {
    if (!journalFits(fault)) return false;
    const std::int64_t horizon =
        retention_.keepDays > 0 ? now - static_cast<std::int64_t>(retention_.keepDays * 86'400'000.0) : 0;
    const bool full =
        retention_.keepMb > 0 && static_cast<double>(usedBytes()) > retention_.keepMb * kBytesOfMb;
    bool done = true, more = false;
    if (full) {
        done = forgetFirst(more);
        if (done && !more) done = forgetRest(now, more);
    } else if (horizon > 0) {
        done = forgetAged(horizon, more);
    }
    if (done && (now >= nextAged_ || now < nextAged_ - kAgedEvery)) {  // the latter: the clock was set back
        bool others = false;
        done = forgetOld(horizon, others) &&
               forgetSums(kSumStep, std::max(horizon, now - kShortSumsMs), others) && forgetNames(now);
        if (done && !others) nextAged_ = now + kAgedEvery;
        more = more || others;
    }
    if (done && number("PRAGMA freelist_count") > kVacuumPages)
        done = run("PRAGMA incremental_vacuum(" + std::to_string(kVacuumPages) + ")");
    if (!done) fault = whyNot();
    return done && more;
}

StoreSink::Holds SqliteSink::holds() {
    return {number("PRAGMA page_count") * number("PRAGMA page_size"),
            number("SELECT at FROM transactions ORDER BY id LIMIT 1")};
}

}  // namespace vx::collector
