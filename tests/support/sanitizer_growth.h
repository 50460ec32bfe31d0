// What a program under test holds, and what a sanitizer adds to it.
#pragma once

#include <sys/types.h>

namespace vx::test {

// As the system tells it; -1 when the program is gone.
long residentKb(pid_t pid);
int descriptorsOf(pid_t pid);

#ifdef __has_feature
#define VX_HAS_FEATURE(name) __has_feature(name)
#else
#define VX_HAS_FEATURE(name) 0
#endif

// What a sanitizer keeps of freed blocks is no growth of the program.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || VX_HAS_FEATURE(address_sanitizer)
inline constexpr long kSanitizerGrowthKb = 65536;
#else
inline constexpr long kSanitizerGrowthKb = 0;
#endif

}  // namespace vx::test
