// The store in a ClickHouse server, by its HTTP interface: the same tables, for many collectors at a time.
//
// Rows are only appended: what SQLite folds on insertion is added up by the queries. Each table gets one
// insertion for all batches of a turn; when one fails, the others that were done are not repeated. Rows that
// the server cannot read would hold up all that come behind: those of that table are left.
//
// Ids       collector << 40 | count: collectors with numbers of their own never give the same id out.
// Retention Days as a whole (partitions), by age alone; names with the last day of their instance.
// Threads   One at a time.
#pragma once

#include <memory>
#include <string>

#include "tools/collector/store_database.h"
#include "tools/collector/store_http.h"
#include "tools/collector/store_sink.h"

namespace vx::collector {

inline constexpr int kMostCollectors = 8192;  // ids stay below 2^53
inline constexpr int kCollectorShift = 40;

class ClickHouseSink : public StoreSink {
public:
    // Makes the tables that are not there. False with the reason.
    bool open(const HttpAddress& address, int collector, double keepDays, std::string& error);
    std::int64_t nextId() const { return nextId_; }

    Wrote write(std::span<const Batch> batches, std::string& fault) override;
    bool retain(std::int64_t now, std::string& fault) override;
    Holds holds() override;
    std::chrono::milliseconds pause() const override { return std::chrono::milliseconds(1000); }

private:
    bool run(const std::string& statement, std::string& fault, const std::string& body = "");
    bool forgetDays(std::int64_t now, std::string& fault);
    bool number(const std::string& statement, std::int64_t& out, std::string& fault);

    HttpAddress address_;
    double keepDays_ = 0;
    std::int64_t nextId_ = 1;
    int written_ = 0;       // tables of the batches at hand that are done
    bool refused_ = false;  // transactions of the batches at hand were refused
    std::int64_t nextRetain_ = 0;
    std::string retainFault_;  // of the last time
};

std::unique_ptr<Database> openClickHouse(const HttpAddress& address, int timeMs, std::string& error);

}  // namespace vx::collector
