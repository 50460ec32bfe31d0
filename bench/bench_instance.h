// The instance that the benchmark decodes for: as it stands after a start that captures everything, with a
// data channel that nobody sends from but a drain that empties it.
#pragma once

#include <cstdint>

#include "commonlibc/context/vx_application.h"

namespace vx::bench {

vxApplication* openInstance();
// Takes what the data channel holds. Its bytes.
std::int64_t drain(vxApplication& app);

}  // namespace vx::bench
