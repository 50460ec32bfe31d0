#include "commonlibc/vxbt/vxbt_utils.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace vx {

std::int32_t vxbt_int(const char* text) {
    using Limits = std::numeric_limits<std::int32_t>;
    if (!text) return 0;
    const long value = std::strtol(text, nullptr, 10);
    return static_cast<std::int32_t>(std::clamp<long>(value, Limits::min(), Limits::max()));
}

}  // namespace vx
