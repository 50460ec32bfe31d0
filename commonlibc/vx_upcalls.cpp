#include "commonlibc/vx_upcalls.h"

#include "commonlibc/vxlb_trace.h"

namespace vx {

VXUpcalls vxUpcalls;

namespace {

constexpr auto kCount = static_cast<std::size_t>(VXUpcallName::kCount);
std::atomic<bool> tracedOnce[kCount];

constexpr const char* kNames[kCount] = {
#define VX_UPCALL_TEXT(name, ...) #name,
    VX_UPCALL_LIST(VX_UPCALL_TEXT)
#undef VX_UPCALL_TEXT
};

}  // namespace

const char* vxUpcallText(VXUpcallName name) {
    return kNames[static_cast<std::size_t>(name)];
}

bool vxUpcallEmpty(VXUpcallName name) {
    switch (name) {
#define VX_UPCALL_CASE(entry, ...) \
    case VXUpcallName::entry:      \
        return vxUpcalls.entry == nullptr;
        VX_UPCALL_LIST(VX_UPCALL_CASE)
#undef VX_UPCALL_CASE
        default:
            return true;
    }
}

void vxUpcallMissing(VXUpcallName name) {
    if (!vxTraceOn(1, TraceModule::kControlThread)) return;  // an unseen trace must not use up the one line
    if (tracedOnce[static_cast<std::size_t>(name)].exchange(true)) return;
    VX_TRACE(1, kControlThread, kWarning, "No handler for '%s' in this build, call ignored",
             vxUpcallText(name));
}

}  // namespace vx
