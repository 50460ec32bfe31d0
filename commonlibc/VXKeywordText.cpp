#include "commonlibc/VXKeywordText.h"

#include <cstring>
#include <utility>

#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

bool isRow(int index) {
    return index >= 0 && index < kKeywordRows;
}

}  // namespace

void vxKeepKeywordText(int index, const char* value) {
    if (!isRow(index) || !value) return;
    const std::size_t length = strnlen(value, kKeywordTextSize - 1);
    auto* copy = static_cast<char*>(VXLB_MALLOC(length + 1, "keyword text", index));
    if (!copy) return;
    std::memcpy(copy, value, length);
    copy[length] = '\0';

    char* former = nullptr;
    {
        const std::lock_guard lock(vxTextMutex);
        former = std::exchange(vxCurrent()->keywords.text[index], copy);
    }
    VXLB_FREE(former, "keyword text", index);
}

int vxKeywordText(int index, char* out, std::int32_t size) {
    if (!out || size < 1) return 0;
    *out = '\0';
    if (!isRow(index)) return 0;
    const std::lock_guard lock(vxTextMutex);
    const char* held = vxCurrent()->keywords.text[index];
    return held ? static_cast<int>(vxlb_copy_text(out, static_cast<std::size_t>(size), held)) : 0;
}

}  // namespace vx
