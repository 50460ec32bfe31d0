// The reference of the benchmarks: a loop that cuts records out of a stream and does nothing with them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vx::bench {

inline constexpr std::size_t kReadSize = 131071;  // of one read, the listener's

// Frames the first `length` bytes; what is left of them moves to the front. Its length.
std::size_t frameRead(std::vector<char>& buffer, std::size_t length, std::int64_t& records);
// Reads and frames a connection to its end. The records.
std::int64_t readAndFrame(int descriptor);

}  // namespace vx::bench
