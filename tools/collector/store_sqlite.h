// The store as a database file.
//
// One transaction of the database for each call of write(): what is committed stays, whatever happens to the
// process. A journal of changes ahead of the file (WAL) lets readers go on while it is written.
//
// Retention by the age of transactions, and by size: the oldest go first, kSlice at a time, the rest an hour
// at a time, and what a file no longer needs goes back to the system in steps. Sums of kSumStep are kept for
// two days. Of the names of an id those are given up that no stored transaction can mean.
//
// Journal   It begins anew when all that is in it has gone into the file and nobody reads it. Readers that
// follow
//           on each other never let it come to that: when it is long, the writer waits for those that are
//           there. One that goes on for so long that the journal has its greatest size stops the writing, not
//           the disk.
//
// Errors    open() refuses, with the reason: a file that is no database or somebody else's, one of a newer
//           version, one that cannot be written, one that another vxcollector writes. Nothing is written any
//           more when somebody removes the file or puts another one in its place.
// Threads   One at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/collector/store_schema.h"
#include "tools/collector/store_sink.h"

struct sqlite3;
struct sqlite3_stmt;

namespace vx::collector {

struct Retention {
    double keepDays = 7;   // 0: for ever
    double keepMb = 4096;  // of the file, without what waits in its journal; 0: no limit
    double journalMb = 0;  // of the journal; 0: a quarter of keepMb, at least 1024
    // A question of the page has an answer by then. Waiting holds the writer up, so it is not done all the
    // time.
    int readersMs = 6000;
};

inline constexpr std::int64_t kShortSumsMs = 2 * 86'400'000LL;
inline constexpr int kSlice = 2000;

class SqliteSink : public StoreSink {
public:
    ~SqliteSink() override;
    bool open(const std::string& path, const Retention& retention, std::string& error);
    // Greater than the id of every transaction that the file has had.
    std::int64_t nextId() const { return nextId_; }

    Wrote write(std::span<const Batch> batches, std::string& fault) override;
    bool retain(std::int64_t now, std::string& fault) override;
    Holds holds() override;

private:
    bool lock(const std::string& path, std::string& error);
    bool prepareFile(std::string& error);
    bool writesAhead(std::string& error);
    bool create();
    bool bringUp(int version);
    bool isThere() const;
    std::string whyNot() const;
    bool run(const std::string& sql);
    std::int64_t number(const std::string& sql, std::int64_t otherwise = 0);
    bool insert(const Batch& batch);
    bool journalFits(std::string& fault);
    bool forgetTransactions(const std::string& ids);
    bool forgetFirst(bool& more);
    bool forgetAged(std::int64_t horizon, bool& more);
    bool forgetRest(std::int64_t now, bool& more);
    bool forgetOld(std::int64_t at, bool& more);
    bool forgetSums(std::int64_t step, std::int64_t at, bool& more);
    bool forgetBefore(const std::string& rows, const std::string& time, std::int64_t at, bool& more);
    bool forgetNames(std::int64_t now);
    std::int64_t usedBytes();

    std::string path_;
    sqlite3* database_ = nullptr;
    int lockFd_ = -1;
    std::vector<sqlite3_stmt*> inserts_;  // by TableId
    Retention retention_;
    std::int64_t nextId_ = 1;
    std::int64_t nextAged_ = 0;  // when the tables without transactions are looked at again
    std::int64_t nextNames_ = 0;
    std::int64_t journalBytes_ = 0, nextWaitMs_ = 0;  // the latter of the steady clock
};

}  // namespace vx::collector
