#include "tools/collector/store_queue.h"

#include <utility>

#include "commonlibc/vxlb_clock.h"

namespace vx::collector {

bool StoreQueue::hasRoom(std::size_t bytes) const {
    const std::scoped_lock lock(mutex_);
    return bytes_ == 0 || bytes_ + bytes <= most_;
}

void StoreQueue::put(Batch batch) {
    {
        const std::scoped_lock lock(mutex_);
        bytes_ += batch.bytes;
        waiting_.push_back(std::move(batch));
    }
    filled_.notify_one();
}

std::vector<Batch> StoreQueue::take(std::chrono::milliseconds patience) {
    std::unique_lock lock(mutex_);
    filled_.wait_for(lock, patience, [this] { return closed_ || !waiting_.empty(); });
    std::vector<Batch> taken;
    for (std::size_t bytes = 0; !waiting_.empty() && bytes < kMostTaken; waiting_.pop_front()) {
        bytes += waiting_.front().bytes;
        taken.push_back(std::move(waiting_.front()));
    }
    return taken;
}

void StoreQueue::done(const std::vector<Batch>& taken) {
    const std::scoped_lock lock(mutex_);
    for (const Batch& batch : taken) bytes_ -= batch.bytes;
}

void StoreQueue::pause(std::chrono::milliseconds time) {
    std::unique_lock lock(mutex_);
    filled_.wait_for(lock, time, [this] { return closed_; });
}

void StoreQueue::close() {
    {
        const std::scoped_lock lock(mutex_);
        if (!closed_) closedAt_ = vxlb_steady_ms();
        closed_ = true;
    }
    filled_.notify_all();
}

bool StoreQueue::closed() const {
    const std::scoped_lock lock(mutex_);
    return closed_;
}

std::int64_t StoreQueue::closedAt() const {
    const std::scoped_lock lock(mutex_);
    return closed_ ? closedAt_ : vxlb_steady_ms();
}

std::size_t StoreQueue::bytes() const {
    const std::scoped_lock lock(mutex_);
    return bytes_;
}

}  // namespace vx::collector
