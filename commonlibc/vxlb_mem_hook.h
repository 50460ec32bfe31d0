// Makes allocations fail, for tests of what a failed one leaves behind.
//
// Threads   Set while no other thread allocates.
#pragma once

#include <cstddef>

namespace vx {

// False fails the allocation of that size. Null, as at the start: every allocation is tried.
using VXAllocationHook = bool (*)(std::size_t size);
void vxlb_set_allocation_hook(VXAllocationHook hook);

}  // namespace vx
