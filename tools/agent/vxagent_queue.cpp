#include "tools/agent/vxagent_queue.h"

#include <algorithm>
#include <new>

#include "commonlibc/vxlb_bytes.h"

namespace vx::agent {
namespace {

constexpr std::size_t kTotalLengthAt = 5;
constexpr std::size_t kReserveShare = 16;

// The end of the frame that begins at `at`.
std::size_t frameEnd(const Batch& batch, std::size_t at) {
    const VXByteView rest(batch.data + at, batch.size - at);
    return at + static_cast<std::size_t>(std::max(rest.i32At(kTotalLengthAt), 1));
}

}  // namespace

std::size_t Batch::wholeFrames(std::size_t most) const {
    std::size_t end = frameEnd(*this, recordAt);
    while (end < size) {
        const std::size_t next = frameEnd(*this, end);
        if (next - at > most) break;
        end = next;
    }
    return std::min(end, size) - at;
}

std::uint64_t Batch::advance(std::size_t bytes) {
    at += bytes;
    std::uint64_t completed = 0;
    while (recordAt < at) {
        const std::size_t next = frameEnd(*this, recordAt);
        if (next > at) break;
        recordAt = next;
        ++completed;
    }
    records -= completed;
    return completed;
}

RecordQueue::RecordQueue(std::size_t capacity) : capacity_(capacity), reserve_(capacity / kReserveShare) {
    for (auto& block : blocks_) block.reset(new (std::nothrow) char[capacity]);
}

void RecordQueue::take(Batch& batch) {
    const std::lock_guard lock(mutex_);
    batch = Batch{blocks_[filling_].get(), filled_.load(std::memory_order_relaxed), 0, 0, records_};
    filling_ = 1 - filling_;
    records_ = 0;
    filled_.store(0, std::memory_order_relaxed);
}

std::uint64_t RecordQueue::drop(Batch& batch) {
    const std::lock_guard lock(mutex_);
    const std::uint64_t lost = records_ + batch.records;
    records_ = 0;
    filled_.store(0, std::memory_order_relaxed);
    batch = Batch{};
    return lost;
}

}  // namespace vx::agent
