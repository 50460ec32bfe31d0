#include "commonlibc/vxlb_utf8.h"

namespace vx {

namespace {

// Bytes of a sequence by its first one; 0: none begins so.
std::size_t sequenceLength(unsigned char first) {
    if (first < 0x80) return 1;
    if (first < 0xC2 || first > 0xF4) return 0;
    return first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}

}  // namespace

bool vxlb_is_utf8(const char* text, std::size_t textLength) {
    const auto* at = reinterpret_cast<const unsigned char*>(text);
    const unsigned char* end = at + textLength;
    while (at < end) {
        const std::size_t length = sequenceLength(*at);
        if (length == 0 || length > static_cast<std::size_t>(end - at)) return false;
        for (std::size_t i = 1; i < length; ++i)
            if ((at[i] & 0xC0) != 0x80) return false;
        const bool overlong = (*at == 0xE0 && at[1] < 0xA0) || (*at == 0xF0 && at[1] < 0x90);
        const bool outside = (*at == 0xED && at[1] > 0x9F) || (*at == 0xF4 && at[1] > 0x8F);
        if (overlong || outside) return false;
        at += length;
    }
    return true;
}

std::size_t vxlb_mark_length(std::string_view text) noexcept {
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    return text.starts_with(mark) ? mark.size() : 0;
}

}  // namespace vx
