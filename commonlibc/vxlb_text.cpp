#include "commonlibc/vxlb_text.h"

#include <cstddef>
#include <cstring>
#include <new>

#include "commonlibc/vxlb_mem.h"

namespace vx {

namespace {

constexpr const char* kBlockName = "shared text";
constexpr int kLookBack = 32;  // retired texts that are looked at before a copy is made

VXRetiredText* blockOf(const char* text) {
    return reinterpret_cast<VXRetiredText*>(const_cast<char*>(text) - offsetof(VXRetiredText, text));
}

char* retiredCopy(const VXRetiredTexts& retired, const char* value) {
    VXRetiredText* block = retired.head.load(std::memory_order_acquire);
    for (int i = 0; block && i < kLookBack; ++i, block = block->next)
        if (std::strcmp(block->text, value) == 0) return block->text;
    return nullptr;
}

char* newCopy(const char* value) {
    const std::size_t size = std::strlen(value) + 1;
    void* memory = VXLB_MALLOC(sizeof(VXRetiredText) + size, kBlockName, -1);
    if (!memory) return nullptr;
    auto* block = new (memory) VXRetiredText{};
    std::memcpy(block->text, value, size);
    return block->text;
}

void retire(VXRetiredTexts& retired, const char* text) {
    VXRetiredText* block = blockOf(text);
    if (block->listed.exchange(true, std::memory_order_relaxed)) return;
    block->next = retired.head.load(std::memory_order_relaxed);
    while (!retired.head.compare_exchange_weak(block->next, block, std::memory_order_release)) {
    }
}

}  // namespace

bool setSharedText(VXRetiredTexts& retired, VXSharedText& slot, const char* value) {
    const char* former = slot.get();
    if (former == value || (former && value && std::strcmp(former, value) == 0)) return false;

    char* copy = value ? retiredCopy(retired, value) : nullptr;
    if (value && !copy && !(copy = newCopy(value))) return false;
    slot.text.store(copy, std::memory_order_release);
    if (former) retire(retired, former);
    return true;
}

void freeRetiredTexts(VXRetiredTexts& retired) {
    VXRetiredText* block = retired.head.exchange(nullptr);
    while (block) {
        VXRetiredText* next = block->next;
        VXLB_FREE(block, kBlockName, -1);
        block = next;
    }
}

}  // namespace vx
