// A table of a store from its beginning to its end, a page at a time: for whoever wants all of it.
//
// Each page is a statement of its own, so that nothing is held up, and no journal grows, while somebody
// decides what to do with it. Rows come by their keys in a file, by their times in a server, which has no
// other way to find some of them; there rows of one key are added up first, so that both tell the same.
//
//     file      key ............ key | next page ............      what comes behind the beginning's last id
//     server    at ... window | window, as wide as a page needs    or time stays out
//
// Units     Times are milliseconds since the Unix epoch; the span holds its `from` and not its `to`. Tables
//           without a column `at` are told whole.
// Limits    A page has at most the rows asked for; a server adds up what lies in some seconds for it.
// Threads   One.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/collector/store_database.h"
#include "tools/collector/store_schema.h"

namespace vx::collector {

class StorePager {
public:
    // All three outlive the pager.
    StorePager(Database& database, const Table& table, TimeSpan span, std::size_t rows);
    // Hands the next rows out, with the columns of the table in their order; none at the end. kCut and
    // kFailed, with the reason in `error`: the page is not whole, and nothing comes behind it.
    Answered next(const Database::Take& take, std::string& error);

private:
    Answered begin(std::string& error);
    Answered clipToNow(std::string& error);
    Answered page(const Database::Take& take, std::size_t& taken, std::string& error);
    void addBounds(Sql& sql) const;
    Sql statement() const;
    void remember(const ResultRow& row);
    TimeSpan windowAt(std::int64_t from, std::int64_t width) const;
    Answered moveWindow(std::size_t taken, std::string& error);
    Answered findWindow(std::string& error);

    Database& database_;
    const Table& table_;
    TimeSpan span_;
    const std::size_t rows_;
    bool begun_ = false, over_ = false, hasTime_ = false, ofTransactions_ = false;
    std::vector<int> order_;              // places of the columns that rows are ordered by
    std::vector<Sql::Value> last_;        // their values in the last row; empty: none yet
    TimeSpan ids_{INT64_MIN, INT64_MAX};  // of transactions, in a file: both bounds are in it
    TimeSpan window_;
};

}  // namespace vx::collector
