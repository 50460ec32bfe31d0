// Batches on their way from the intake to the writer.
//
// The intake never waits: when the queue is full it is told so, keeps what adds up and drops what does not.
//
// Limits    kMostQueued bytes of batches, those included that the writer has in its hands.
// Threads   One puts, one takes; figures by any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <vector>

#include "tools/collector/store_rows.h"

namespace vx::collector {

inline constexpr std::size_t kMostQueued = std::size_t{64} * 1024 * 1024;
inline constexpr std::size_t kMostTaken = std::size_t{16} * 1024 * 1024;  // at a time

class StoreQueue {
public:
    explicit StoreQueue(std::size_t most = kMostQueued) : most_(most) {}

    // An empty one takes anything.
    bool hasRoom(std::size_t bytes) const;
    // Takes it even without room: ask before.
    void put(Batch batch);
    // Waits up to `patience` for something to write. What it returns counts until done() is called.
    std::vector<Batch> take(std::chrono::milliseconds patience);
    void done(const std::vector<Batch>& taken);
    // Waits that long, less when the queue is closed: its end is not held up.
    void pause(std::chrono::milliseconds time);
    // Nothing more comes: take() no longer waits.
    void close();
    bool closed() const;
    // Since when, in milliseconds of the steady clock; now, as long as it is not.
    std::int64_t closedAt() const;
    std::size_t bytes() const;

private:
    const std::size_t most_;
    mutable std::mutex mutex_;
    std::condition_variable filled_;
    std::deque<Batch> waiting_;
    std::size_t bytes_ = 0;
    bool closed_ = false;
    std::int64_t closedAt_ = 0;
};

}  // namespace vx::collector
