// Counts every block that the process takes from the heap.
#pragma once

#include <cstdint>

namespace vx::bench {

// Calls of malloc, calloc and realloc so far (operator new ends there too); -1 where a sanitizer owns them.
std::int64_t allocations();

}  // namespace vx::bench
