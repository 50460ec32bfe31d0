// Shared texts: short strings that one thread replaces while others read them.
//
// A reader takes the pointer and may keep it for the life of the context: a replaced copy is not freed
// but goes on the context's list of retired texts. Texts change rarely (an identity, a host name), setting
// an equal value changes nothing, and a value that comes back (a default behind each run) finds its copy on
// the list: the list stays short.
//
// Errors    setSharedText() answers whether the text changed; a failed allocation counts as "not".
// Lifetime  A pointer from get() is good until the context's list is freed (process end).
// Threads   get() any; setSharedText() any, one at a time for one text.
#pragma once

#include <atomic>

namespace vx {

// A copy of a text; readers hold `text`. Once listed it stays on its list, in use or not.
struct VXRetiredText {
    VXRetiredText* next;
    std::atomic<bool> listed;
    char text[1];  // as long as the text and its terminator
};

// Head of a context's list of retired texts.
struct VXRetiredTexts {
    std::atomic<VXRetiredText*> head;
};

// One shared text; null until it is set.
struct VXSharedText {
    std::atomic<const char*> text;

    const char* get() const noexcept { return text.load(std::memory_order_acquire); }
    // The text, or `otherwise` where none is set.
    const char* getOr(const char* otherwise) const noexcept {
        const char* now = get();
        return now ? now : otherwise;
    }
};

// Publishes a copy of `value` (null clears the text). False when nothing changed.
bool setSharedText(VXRetiredTexts& retired, VXSharedText& slot, const char* value);

// Frees the retired texts. Only where no reader can hold one any more (tests, process end).
void freeRetiredTexts(VXRetiredTexts& retired);

}  // namespace vx
