// The collector's store: intake, queue and writer together.
//
// Lifetime  open() once; the end hands over and writes what has come.
// Threads   intake() and flush() by the one that reads the connections; status() by any.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tools/collector/store_clickhouse.h"
#include "tools/collector/store_intake.h"
#include "tools/collector/store_query.h"
#include "tools/collector/store_sqlite.h"
#include "tools/collector/store_writer.h"

namespace vx::collector {

struct StoreStatus {
    const char* kind = "sqlite";
    std::uint64_t queuedBytes = 0;
    std::uint64_t commits = 0;             // grows whenever something was stored
    std::uint64_t written = 0;             // transactions since the start
    std::uint64_t dropped = 0;             // transactions that found no room, or could not be written
    std::uint64_t lostSums = 0;            // occurrences that are in no sum
    std::int64_t bytes = 0, oldestAt = 0;  // what it holds; the latter 0: nothing
    std::string fault;                     // why nothing is written at the moment; empty: all is well
};

class Store {
public:
    Store() = default;
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    bool openFile(const std::string& path, const Retention& retention, std::string& error);
    // `collector` is the number of this one among those that write there.
    bool openClickHouse(const std::string& url, int collector, double keepDays, std::string& error);
    // Hands over and writes what has come; nothing is taken from then on.
    void finish();
    StoreIntake& intake() { return *intake_; }
    StoreStatus status() const;
    // Instances that the file knew when it was opened, the latest first. A server's may be others' as well:
    // none.
    const std::vector<InstanceRow>& former() const { return former_; }

private:
    bool begin(std::unique_ptr<StoreSink> sink, std::int64_t nextId, StoreQuery& query);

    const char* kind_ = "sqlite";
    std::vector<InstanceRow> former_;
    StoreQueue queue_;
    std::optional<StoreIntake> intake_;
    std::unique_ptr<StoreWriter> writer_;
};

}  // namespace vx::collector
