#include "commonlibc/vxlb_text.h"

#include <cstring>

#include "commonlibc/vxlb_mem.h"

namespace vx {

bool setSharedText(VXRetiredTexts& retired, VXSharedText& slot, const char* value) {
    const char* former = slot.get();
    if (former == value || (former && value && std::strcmp(former, value) == 0)) return false;

    char* copy = nullptr;
    if (value) {
        const std::size_t size = std::strlen(value) + 1;
        copy = static_cast<char*>(VXLB_MALLOC(size, "shared text", -1));
        if (!copy) return false;
        std::memcpy(copy, value, size);
    }
    if (former) {
        auto* node = static_cast<VXRetiredText*>(VXLB_MALLOC(sizeof(VXRetiredText), "retired text", -1));
        if (!node) {
            VXLB_FREE(copy, "shared text", -1);
            return false;
        }
        node->text = const_cast<char*>(former);
        node->next = retired.head.load(std::memory_order_relaxed);
        while (!retired.head.compare_exchange_weak(node->next, node, std::memory_order_release)) {
        }
    }
    slot.text.store(copy, std::memory_order_release);
    return true;
}

void freeRetiredTexts(VXRetiredTexts& retired) {
    VXRetiredText* node = retired.head.exchange(nullptr);
    while (node) {
        VXRetiredText* next = node->next;
        VXLB_FREE(node->text, "shared text", -1);
        VXLB_FREE(node, "retired text", -1);
        node = next;
    }
}

}  // namespace vx
