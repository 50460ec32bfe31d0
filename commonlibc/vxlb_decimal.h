// Decimal text of integers for the way of a record: eight digits at a time.
//
// Every record's transaction number becomes the key of its slot, and has 19 digits; taken pair by pair these
// were a tenth of the whole way.
//
// Limits    kDecimalMax bytes are written at most; no terminator.
// Threads   Any; no state.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vx {

inline constexpr std::size_t kDecimalMax = 20;  // sign and 19 digits, or 20 digits

namespace decimal {

inline constexpr std::uint64_t kChunk = 100000000;  // eight digits
inline constexpr std::size_t kChunkDigits = 8;

inline constexpr auto kPairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

inline void putPair(char* out, std::uint32_t value) noexcept {
    std::memcpy(out, &kPairs[std::size_t{2} * value], 2);
}
// Eight digits, with leading zeros.
inline void putChunk(char* out, std::uint32_t value) noexcept {
    const std::uint32_t high = value / 10000, low = value % 10000;
    putPair(out, high / 100);
    putPair(out + 2, high % 100);
    putPair(out + 4, low / 100);
    putPair(out + 6, low % 100);
}
// One to eight digits, without leading zeros. The end.
inline char* putHead(char* out, std::uint32_t value) noexcept {
    char digits[kChunkDigits];
    putChunk(digits, value);
    std::size_t first = 0;
    while (first < kChunkDigits - 1 && digits[first] == '0') ++first;
    while (first < kChunkDigits) *out++ = digits[first++];
    return out;
}

}  // namespace decimal

// Writes the value; the end of what was written.
inline char* vxlb_put_unsigned(char* out, std::uint64_t value) noexcept {
    using namespace decimal;
    if (value < kChunk) return putHead(out, static_cast<std::uint32_t>(value));
    const std::uint64_t rest = value / kChunk;
    if (rest < kChunk) {
        out = putHead(out, static_cast<std::uint32_t>(rest));
    } else {
        out = putHead(out, static_cast<std::uint32_t>(rest / kChunk));
        putChunk(out, static_cast<std::uint32_t>(rest % kChunk));
        out += kChunkDigits;
    }
    putChunk(out, static_cast<std::uint32_t>(value % kChunk));
    return out + kChunkDigits;
}
inline char* vxlb_put_decimal(char* out, std::int64_t value) noexcept {
    if (value >= 0) return vxlb_put_unsigned(out, static_cast<std::uint64_t>(value));
    *out++ = '-';
    return vxlb_put_unsigned(out, 0 - static_cast<std::uint64_t>(value));
}

}  // namespace vx
