// Numbers of keyword values: what does not parse is 0, what does not fit its width is the nearest limit.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <limits>

namespace vx {

inline std::int64_t keywordLong(const char* value) noexcept {
    return std::strtoll(value, nullptr, 10);
}

inline std::int32_t keywordInt(const char* value) noexcept {
    using Limits = std::numeric_limits<std::int32_t>;
    const std::int64_t number = keywordLong(value);
    if (number < Limits::min()) return Limits::min();
    return number > Limits::max() ? Limits::max() : static_cast<std::int32_t>(number);
}

}  // namespace vx
