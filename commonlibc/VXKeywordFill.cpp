#include "commonlibc/VXKeywordFill.h"

#include <cstdlib>
#include <cstring>

#include "commonlibc/VXKeywordNumber.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

void fill_int_data(void* target, const char* value, std::int32_t length) {
    const std::int32_t number = keywordInt(value);
    switch (length) {
        case 1:
            vx_word_set(*static_cast<std::uint8_t*>(target), number);
            break;
        case 2:
            vx_word_set(*static_cast<std::int16_t*>(target), number);
            break;
        case 4:
            vx_word_set(*static_cast<std::int32_t*>(target), number);
            break;
        default:
            break;
    }
}

void fill_long_long_data(void* target, const char* value, std::int32_t length) {
    if (length == 8) vx_word_set(*static_cast<std::int64_t*>(target), keywordLong(value));
}

void fill_double_data(void* target, const char* value, std::int32_t length) {
    if (length == 8) vx_word_set(*static_cast<double*>(target), std::strtod(value, nullptr));
}

void fill_char_data(void* target, const char* value, std::int32_t length) {
    auto* member = static_cast<char*>(target);
    if (length == 1) {
        vx_word_set(*member, *value);
        return;
    }
    const std::size_t width = static_cast<std::size_t>(length);
    const std::size_t held = strnlen(value, width - 1);
    const std::lock_guard lock(vxTextMutex);
    std::memcpy(member, value, held);
    std::memset(member + held, 0, width - held);
}

}  // namespace vx
