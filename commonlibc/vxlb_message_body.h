// Body of one agent message: fixed part and strings, taken out of the frame's bytes.
//
//     | fixed part, with the strings' lengths | string | string | ... | newline |
//
// A shape describes the body of one message type. Taking checks all lengths against the bytes that are
// there and copies the strings, each with a terminator, into a block that the thread owns and reuses, so
// that a record costs no heap block. Nothing else is touched.
//
// A string ends at its first NUL but takes up its declared length; a length below 1 is a missing string.
// The strings behind the checked ones are cut at the frame's end.
//
// Limits    A body has at most kBodyMax bytes, more than one read of the listener can bring.
// Lifetime  A taken body borrows its fixed part from the frame, and its strings until the thread's next one.
// Threads   Any; each has a block of its own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "commonlibc/vxlb_bytes.h"

namespace vx {

inline constexpr std::size_t kMessageTexts = 6;
inline constexpr std::int64_t kBodyMax = 131072;

struct VXMessageShape {
    std::uint32_t fixedLength;
    std::uint8_t textCount;
    std::uint8_t checkedTexts;                         // the first of them, whose sum must fit
    std::uint8_t wholeTexts;                           // bit i: a NUL inside string i refuses the body
    std::array<std::uint8_t, kMessageTexts> lengthAt;  // where the lengths stand, in the order of the strings
    bool refusesNegative;                              // else a negative length is a missing string
};

struct VXMessageBody {
    VXByteView fixed;
    std::array<char*, kMessageTexts> text;  // terminated, may be changed in place; null when missing
    std::array<std::size_t, kMessageTexts> length;
};

enum class BodyResult : std::uint8_t {
    kTaken,
    kNegative,  // a length below 0
    kShort,     // shorter than its fixed part and strings, or longer than kBodyMax
    kTorn,      // a NUL inside a string that must be whole
    kNoMemory
};

// Takes the body (`bytes` with the newline). On any answer but kTaken, `out` has no meaning.
[[nodiscard]] BodyResult vxlb_take_body(const VXMessageShape& shape, VXByteView bytes, VXMessageBody& out);

}  // namespace vx
