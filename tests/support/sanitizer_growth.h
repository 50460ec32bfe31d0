// What a sanitizer adds to the memory of a program under test.
#pragma once

namespace vx::test {

// What a sanitizer keeps of freed blocks is no growth of the program.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr long kSanitizerGrowthKb = 65536;
#else
inline constexpr long kSanitizerGrowthKb = 0;
#endif

}  // namespace vx::test
