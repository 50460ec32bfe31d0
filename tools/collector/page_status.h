// What the poll loop tells the page of itself: a picture that is made at most once a second and never
// changed.
//
// Units     Milliseconds since the Unix epoch.
// Lifetime  A picture is good as long as somebody holds it.
// Threads   A board: any. A picture: made by the poll loop, read by any.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tools/collector/collector_protocol.h"

namespace vx::collector {

inline constexpr std::size_t kMostShownInstances = 1000;

struct LinkStatus {
    const char* kind = "";
    std::string peer;
    std::int64_t since = 0, lastHeard = 0;
    std::uint64_t bytes = 0;
};
struct InstanceStatus {
    int number = 0;        // 0: known from former times, has not connected since the start
    std::int64_t key = 0;  // in the store
    Identity identity;
    bool started = false;                           // instrumentation is to run
    std::int64_t lastHeard = 0, lastHeartbeat = 0;  // of any connection; of the control connection
    std::vector<LinkStatus> links;                  // that stand now
    std::int64_t rulesVersion = 0;                  // of the rule file that it said to have taken; 0: none
};
struct CollectorStatus {
    std::int64_t now = 0, started = 0;
    int testRun = 0;
    std::uint64_t records = 0, monitorRecords = 0, bytes = 0, transactions = 0, unreadable = 0;
    std::uint64_t comparedRuns = 0, connections = 0, refusedConnections = 0;
    std::vector<InstanceStatus> instances;  // also such as went away, at most kMostShownInstances
};

class StatusBoard {
public:
    void put(std::shared_ptr<const CollectorStatus> status) {
        const std::lock_guard lock(mutex_);
        status_.swap(status);
    }
    // Null before the first one.
    std::shared_ptr<const CollectorStatus> get() const {
        const std::lock_guard lock(mutex_);
        return status_;
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<const CollectorStatus> status_;
};

}  // namespace vx::collector
