#include "bench/bench_allocations.h"

#include <atomic>
#include <cstddef>

#ifdef __has_feature
#define VX_CLANG_FEATURE(name) __has_feature(name)
#else
#define VX_CLANG_FEATURE(name) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || VX_CLANG_FEATURE(address_sanitizer) || \
    VX_CLANG_FEATURE(thread_sanitizer)

namespace vx::bench {
std::int64_t allocations() {
    return -1;
}
}  // namespace vx::bench

#else

namespace {
std::atomic<std::int64_t> calls{0};
}  // namespace

// The program's own definitions take precedence over the C library's, whose functions do the work.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) {
    calls.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    calls.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    calls.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(block, size);
}
}

namespace vx::bench {
std::int64_t allocations() {
    return calls.load(std::memory_order_relaxed);
}
}  // namespace vx::bench

#endif
