#include "commonlibc/context/vx_application.h"

#include <new>

#include "commonlibc/vxlb_mem.h"

namespace vx {

VXProxy_t VXProxy{};
VXUdpIntake_t& VXUdp = *new VXUdpIntake_t{};  // to the end of the process, whoever still waits then
std::atomic<std::int32_t> proxyServerFlag{0};
std::atomic<std::int32_t> proxyStopFlag{0};
std::atomic<std::int32_t> proxyCleaningFlag{0};
char* gPool = nullptr;
char* gProcessName = nullptr;
std::atomic<std::atomic<vxApplication*>*> VXProxyInstance{nullptr};

vxApplication* vxNewApplication() {
    void* block = VXLB_MALLOC_AND_MEMSET(sizeof(vxApplication), "vxApplication", -1);
    return block ? new (block) vxApplication{} : nullptr;
}

void vxFreeApplication(vxApplication* app) {
    VXLB_FREE(app, "vxApplication", -1);
}

}  // namespace vx
