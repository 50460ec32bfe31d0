#include "commonlibc/vxlb_clock.h"

#include <apr_general.h>
#include <apr_time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>

namespace vx {

namespace {

constexpr std::int64_t kWatchStepUs = 1000000;
constexpr std::chrono::microseconds kSteadyBegin = std::chrono::hours(24);
constexpr std::size_t kRandomBatch = 256;

std::atomic<std::int64_t (*)()> nowHook{nullptr}, steadyHook{nullptr};
std::atomic<void (*)(std::int64_t)> sleepHook{nullptr};
std::atomic<std::uint8_t (*)()> randomHook{nullptr};

// Random bytes are taken from the system in batches: a draw is on the way of every transaction.
struct RandomBatch {
    unsigned char bytes[kRandomBatch];
    std::size_t next = kRandomBatch;
};
thread_local RandomBatch randomBatch;

}  // namespace

std::int64_t vxlb_now_us() noexcept {
    const auto hook = nowHook.load(std::memory_order_relaxed);
    return hook ? hook() : apr_time_now();
}

std::int64_t vxlb_steady_us() noexcept {
    if (const auto hook = steadyHook.load(std::memory_order_relaxed)) return hook();
    const auto sinceBoot = std::chrono::steady_clock::now().time_since_epoch();
    return (std::chrono::duration_cast<std::chrono::microseconds>(sinceBoot) + kSteadyBegin).count();
}

void vxlb_sleep_us(std::int64_t us) noexcept {
    if (us < 1) return;
    if (const auto hook = sleepHook.load(std::memory_order_relaxed)) return hook(us);
    apr_sleep(us);
}

std::uint8_t vxlb_random_byte() noexcept {
    if (const auto hook = randomHook.load(std::memory_order_relaxed)) return hook();
    RandomBatch& batch = randomBatch;
    if (batch.next == kRandomBatch) {
        // A system without random bytes leaves the former batch, which serves again.
        apr_generate_random_bytes(batch.bytes, kRandomBatch);
        batch.next = 0;
    }
    return batch.bytes[batch.next++];
}

void vxlb_set_clock_hooks(const VXClockHooks& hooks) noexcept {
    nowHook.store(hooks.now_us, std::memory_order_relaxed);
    steadyHook.store(hooks.steady_us, std::memory_order_relaxed);
    sleepHook.store(hooks.sleep_us, std::memory_order_relaxed);
    randomHook.store(hooks.random_byte, std::memory_order_relaxed);
}

bool vxlb_sleep_watching(std::int64_t us, bool (*stop)()) {
    while (us > 0) {
        if (stop && stop()) return true;
        const std::int64_t step = std::min(us, kWatchStepUs);
        vxlb_sleep_us(step);
        us -= step;
    }
    return stop && stop();
}

}  // namespace vx
