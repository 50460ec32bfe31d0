#include "commonlibc/vxlb_mem.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "commonlibc/vxlb_mem_hook.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

std::atomic<VXAllocationHook> allocationHook;

bool allowed(std::size_t size) noexcept {
    const VXAllocationHook hook = allocationHook.load(std::memory_order_relaxed);
    return !hook || hook(size);
}

// The traces print sizes as 32-bit numbers.
int shown(std::size_t size) noexcept {
    return static_cast<int>(size);
}

void* outOfMemory(std::size_t size, const char* what, int index) {
    VX_TRACE(1, kMemory, kNone, "Out of Memory (size = %d): %s for index %d\n", shown(size), what, index);
    return nullptr;
}

}  // namespace

void vxlb_set_allocation_hook(VXAllocationHook hook) {
    allocationHook.store(hook, std::memory_order_relaxed);
}

void* vxlb_malloc(std::size_t size, const char* what, int index) {
    void* block = allowed(size) ? std::malloc(size) : nullptr;
    if (!block) return outOfMemory(size, what, index);
    VX_TRACE(1, kMemory, kNone, "VXLB_MALLOC'ed (%s) done. ptr = $%p$, size = %d for index %d", what, block,
             shown(size), index);
    return block;
}

void* vxlb_malloc_and_memset(std::size_t size, const char* what, int index) {
    void* block = allowed(size) ? std::calloc(1, size) : nullptr;
    if (!block) return outOfMemory(size, what, index);
    VX_TRACE(1, kMemory, kNone, "VXLB_MALLOC'ed (%s) done. ptr = $%p$, size = %d for index %d", what, block,
             shown(size), index);
    VX_TRACE(1, kMemory, kNone, "VXLB_MEMSET'ed (%s) done. ptr = $%p$, size = %d for index %d", what, block,
             shown(size), index);
    return block;
}

void* vxlb_realloc(void* block, std::size_t size, const char* what, int index) {
    if (size == 0 || size > static_cast<std::size_t>(INT64_MAX)) {
        VX_TRACE(1, kMemory, kNone, "Trying to realloc a negative or 0 size (%d) for index  %d\n",
                 shown(size), index);
        return nullptr;
    }
    void* grown = allowed(size) ? std::realloc(block, size) : nullptr;
    if (!grown) return outOfMemory(size, what, index);
    VX_TRACE(1, kMemory, kNone, "VXLB_REALLOC'ed (%s) done. ptr = $%p$, size = %d for index %d", what, grown,
             shown(size), index);
    return grown;
}

void vxlb_free(void* block, const char* what, int index) noexcept {
    if (!block) return;
    VX_TRACE(1, kMemory, kNone, "VXLB_FREE'ed (%s) done. Freeing ptr = $%p$ for index %d", what, block,
             index);
    std::free(block);
}

}  // namespace vx
