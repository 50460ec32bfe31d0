// Clock, sleep and random bytes, replaceable by tests.
//
// Every reading of the time, every wait and every draw of the service comes through here, so that session
// expiry, reporting cycles, heartbeats and sampling are tested in milliseconds and exactly.
//
// Two clocks. The wall's can be set while the service runs (by a time server, an operator, a machine that
// wakes up): it is for what is told, the times in records and lines. Whatever is waited for, due, too old or
// over goes by the steady one, which nobody sets.
//
// Units     Microseconds; wall time since the Unix epoch, steady time since a point of no meaning, at least a
//           day ago: a time that was never set, 0, is long past.
// Threads   Any. Replacing happens before threads start, or by atomics that running threads see at the
//           next call.
#pragma once

#include <cstdint>

namespace vx {

// Microseconds since the Unix epoch.
std::int64_t vxlb_now_us() noexcept;
// Milliseconds since the Unix epoch (truncating).
inline std::int64_t vxlb_now_ms() noexcept {
    return vxlb_now_us() / 1000;
}
// Microseconds and milliseconds (truncating) of the steady clock; above 0, never less than before.
std::int64_t vxlb_steady_us() noexcept;
inline std::int64_t vxlb_steady_ms() noexcept {
    return vxlb_steady_us() / 1000;
}

// One moment by both clocks.
struct VXMoment {
    std::int64_t wallUs, steadyMs;
};
inline VXMoment vxlb_moment() noexcept {
    return {vxlb_now_us(), vxlb_steady_ms()};
}
// Waits; a value below 1 returns at once.
void vxlb_sleep_us(std::int64_t us) noexcept;
// One byte, uniform on 0 to 255.
std::uint8_t vxlb_random_byte() noexcept;

// What a test puts in place of the system; a null member means the system's own.
struct VXClockHooks {
    std::int64_t (*now_us)();
    void (*sleep_us)(std::int64_t us);
    std::uint8_t (*random_byte)();
    std::int64_t (*steady_us)() = nullptr;
};
// Replaces the four (a value-initialised argument gives the system's back).
void vxlb_set_clock_hooks(const VXClockHooks& hooks) noexcept;

// Waits `us` in steps of at most 1 s and looks at `stop` between them, so that a long wait ends within a
// second of a stop. `stop` may be null. True when the wait ended because stop() answered true.
bool vxlb_sleep_watching(std::int64_t us, bool (*stop)());

}  // namespace vx
