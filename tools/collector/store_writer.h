// The thread that writes: takes batches from the queue, each turn as one transaction of the database, and
// gives up what is too old in between.
//
// What cannot be written now is tried again every kRetryMs, while the queue fills up and the intake counts
// what it has to drop; a fault is told once, and again when it is over. What can never be written is counted
// and left.
//
// Lifetime  The end writes what waits. A sink that does not take it within kLastTries, or kLastTime since the
//           end began (however long ago the write began that goes on then), is given up, and the rest counts
//           as lost. The time is looked at between tries: one that has begun is waited for.
// Threads   Its own; status() by any.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tools/collector/store_queue.h"
#include "tools/collector/store_sink.h"

namespace vx::collector {

inline constexpr std::chrono::milliseconds kRetryMs{1000};
inline constexpr std::chrono::milliseconds kRetainMs{200};  // longest time at a stretch
inline constexpr int kLastTries = 3;
inline constexpr std::chrono::milliseconds kLastTime{20'000};

class StoreWriter {
public:
    struct Status {
        std::uint64_t commits = 0;       // grows whenever something was stored
        std::uint64_t transactions = 0;  // stored since the start
        std::uint64_t lost = 0;          // transactions that could not be written
        StoreSink::Holds holds;          // a few seconds old; of the end when it has ended
        std::string fault;               // empty: none
    };

    StoreWriter(StoreQueue& queue, std::unique_ptr<StoreSink> sink);
    ~StoreWriter();
    // Writes what waits and ends.
    void finish();
    StoreWriter(const StoreWriter&) = delete;
    StoreWriter& operator=(const StoreWriter&) = delete;
    Status status() const;

private:
    void work();
    void writeAll(const std::vector<Batch>& batches);
    bool givesUp();
    void retain();
    void look();
    void tellWritten(const std::string& fault);
    void tellRetained(const std::string& fault);

    StoreQueue& queue_;
    const std::unique_ptr<StoreSink> sink_;
    mutable std::mutex mutex_;
    Status status_;
    std::chrono::steady_clock::time_point looked_{};
    std::string retainFault_;
    int lastTries_ = 0;  // of the end, that failed
    bool givenUp_ = false;
    std::thread thread_;  // the last member: it uses the others
};

}  // namespace vx::collector
