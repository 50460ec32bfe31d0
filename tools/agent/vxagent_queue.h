// Queue of encoded records between the host's threads and the agent's I/O thread.
//
// Two blocks of the same size: records are encoded into one while the other is being sent.
//
//     put() -> [ filling ........ | reserve ]     take() swaps     [ sending: batch ] -> socket
//
// What ends a transaction may use the reserve, so that a full queue sheds whole transactions rather than
// their ends.
//
// Limits    Room for `capacity` bytes each way; a record that does not fit is dropped and counted.
// Threads   put() any, take() and drop() the I/O thread alone. The lock is held to encode one record or to
//           swap, never during a send.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace vx::agent {

inline constexpr std::size_t kRecordMax = 10000;

// Records that the I/O thread sends: whole frames, the first `at` bytes of which are out.
struct Batch {
    const char* data = nullptr;
    std::size_t size = 0, at = 0;
    std::size_t recordAt = 0;  // start of the frame that `at` stands in
    std::uint64_t records = 0;

    bool empty() const { return at == size; }
    // Bytes from `at` on that end with a frame: as many frames as `most` has room for, at least one.
    std::size_t wholeFrames(std::size_t most) const;
    // Counts `bytes` as sent. The frames completed by them.
    std::uint64_t advance(std::size_t bytes);
    // Goes back to the start of a frame that is only partly out.
    void rewind() { at = recordAt; }
};

enum class Urgency : std::uint8_t { kOrdinary, kEnding };
enum class PutResult : std::uint8_t { kTaken, kTakenWake, kDropped };  // kTakenWake: the thread may be asleep

class RecordQueue {
public:
    explicit RecordQueue(std::size_t capacity);

    bool ready() const { return blocks_[0] && blocks_[1]; }
    std::size_t capacity() const { return capacity_; }
    std::size_t filled() const { return filled_.load(std::memory_order_relaxed); }
    bool pressed() const { return filled() >= capacity_ / 2; }
    // Records ever taken in.
    std::uint64_t accepted() const { return accepted_.load(std::memory_order_relaxed); }

    // `encode(out, size)` writes one record and answers its length, or -1.
    template <class Encode>
    PutResult put(Urgency urgency, Encode&& encode) {
        const std::lock_guard lock(mutex_);
        const std::size_t used = filled_.load(std::memory_order_relaxed);
        const std::size_t limit = urgency == Urgency::kEnding ? capacity_ : capacity_ - reserve_;
        if (used >= limit) return PutResult::kDropped;
        const std::size_t room = limit - used < kRecordMax ? limit - used : kRecordMax;
        const std::int64_t length = encode(blocks_[filling_].get() + used, room);
        if (length < 0) return PutResult::kDropped;
        const std::size_t now = used + static_cast<std::size_t>(length);
        filled_.store(now, std::memory_order_relaxed);
        ++records_;
        accepted_.fetch_add(1, std::memory_order_relaxed);
        const std::size_t half = capacity_ / 2;
        return used == 0 || (used < half && now >= half) ? PutResult::kTakenWake : PutResult::kTaken;
    }
    // The records put so far become the batch, whose former contents are gone.
    void take(Batch& batch);
    // Empties queue and batch. The records that were never sent.
    std::uint64_t drop(Batch& batch);

private:
    const std::size_t capacity_, reserve_;
    std::unique_ptr<char[]> blocks_[2];
    std::mutex mutex_;
    int filling_ = 0;
    std::uint64_t records_ = 0;  // in the filling block
    std::atomic<std::size_t> filled_{0};
    std::atomic<std::uint64_t> accepted_{0};
};

}  // namespace vx::agent
