// A scripted clock: time stands still until the code sleeps or the test moves it.
//
//     FakeClock clock(1700000000000);  // Unix ms
//     clock.advanceMs(5000);
//     ... code that sleeps 10 s returns at once, 10 s later ...
//     EXPECT_EQ(clock.sleptMs(), 10000);
//     clock.setWall(-3600000);  // set back an hour: the steady clock does not see it
//
// Threads   Any may read and sleep. One FakeClock lives at a time; its end gives the system's clock back.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "commonlibc/vxlb_clock.h"

namespace vx::test {

class FakeClock {
public:
    explicit FakeClock(std::int64_t startMs = 1700000000000) {
        steady_ = kSteadyStartMs * 1000;
        ahead_ = startMs * 1000 - steady_;
        slept_ = 0;
        random_ = 0;
        onSleep_ = nullptr;
        vxlb_set_clock_hooks({readNow, sleep, drawByte, readSteady});
    }
    ~FakeClock() { vxlb_set_clock_hooks({}); }
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    void advanceMs(std::int64_t ms) { steady_ += ms * 1000; }
    void setWall(std::int64_t byMs) { ahead_ += byMs * 1000; }
    std::int64_t nowMs() const { return readNow() / 1000; }
    std::int64_t steadyMs() const { return steady_ / 1000; }
    std::int64_t sleptMs() const { return slept_ / 1000; }
    // What every draw answers from here on.
    void setRandomByte(std::uint8_t byte) { random_ = byte; }
    // Called in each sleep, after the time has passed: where a script sets a stop word.
    void atSleep(void (*call)()) { onSleep_ = call; }

private:
    static constexpr std::int64_t kSteadyStartMs = 100000000;  // far from any Unix time

    static std::int64_t readNow() { return steady_ + ahead_; }
    static std::int64_t readSteady() { return steady_; }
    static void sleep(std::int64_t us) {
        steady_ += us;
        slept_ += us;
        if (const auto call = onSleep_.load()) call();
        std::this_thread::yield();  // a loop that waits for another thread lets it run
    }
    static std::uint8_t drawByte() { return random_; }

    inline static std::atomic<std::int64_t> steady_{0}, slept_{0};  // microseconds
    inline static std::atomic<std::int64_t> ahead_{0};              // wall over steady
    inline static std::atomic<std::uint8_t> random_{0};
    inline static std::atomic<void (*)()> onSleep_{nullptr};
};

}  // namespace vx::test
