// Input of the benchmark: the bytes that a busy agent sends, always the same for one seed.
//
// Complete transactions of one start, 20 pairs of method entry and exit and one end; 1,000 of them are open
// at a time, and their records stand in random order between each other. There are 1,000 methods, with
// names of 20 to 60 characters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vx::bench {

inline constexpr int kPairs = 20;
inline constexpr int kRecordsPerTransaction = 2 + 2 * kPairs;
inline constexpr int kOpenTransactions = 1000;
inline constexpr int kMethods = 1000;

struct Stream {
    std::string bytes;
    std::int64_t records;
};
Stream makeStream(int transactions, unsigned seed);

// Transactions that stand open with all their records but the last, and those last ones.
struct OpenStream {
    std::string begun, ends;
};
OpenStream makeOpenStream(int transactions, unsigned seed);

}  // namespace vx::bench
