#include "commonlibc/proxyServer/vx_udp_watchers.h"

#include <apr_errno.h>

#include <chrono>

#include "commonlibc/VXLosses.h"
#include "commonlibc/platform/vx_platform_udp.h"
#include "commonlibc/proxyServer/proxyMemCheck.h"
#include "commonlibc/proxyServer/vx_udp_functions.h"
#include "commonlibc/proxyServer/vx_udp_refusals.h"
#include "commonlibc/proxyServer/vx_udp_ruckus.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::chrono::seconds kRoundTime{10};
constexpr std::int64_t kTellRounds = 6;  // a minute
constexpr std::int64_t kMemoryRounds = 91;

struct Watcher {
    void (*round)(std::int64_t count);
    vxApplication* root;
    apr_thread_t* thread;
    apr_pool_t* pool;
};
Watcher clientWatcher{proxy_udp_client_handler, nullptr, nullptr, nullptr};
Watcher ruckusWatcher{proxy_udp_ruckus_handler, nullptr, nullptr, nullptr};

bool stopping() {
    return VXUdp.stopping.load(std::memory_order_acquire) ||
           proxyStopFlag.load(std::memory_order_acquire) != 0;
}

void* watch(apr_thread_t*, void* argument) {
    const Watcher& watcher = *static_cast<Watcher*>(argument);
    for (std::int64_t count = 1; !stopping(); ++count) {
        vxSetCurrent(watcher.root);
        watcher.round(count);
        std::unique_lock lock(VXUdp.stopMutex);
        VXUdp.stopped.wait_for(lock, kRoundTime, stopping);
    }
    return nullptr;
}

bool start(Watcher& watcher, vxApplication* root, const char* what) {
    watcher.root = root;
    const apr_status_t status = vxlb_thread_start(watcher.thread, watcher.pool, root->pool, watch, &watcher);
    if (status == APR_SUCCESS) return true;
    char error[kSockErrorSize];
    VX_TRACE(1, kControlThread, kError, "Error in creating udp %s thread... '%s'", what,
             apr_strerror(status, error, sizeof(error)));
    return false;
}

void tellLostDatagrams() {
    const std::lock_guard lock(VXUdp.socketMutex);
    const std::int64_t lost = VXUdp.socket >= 0 ? vx_platform_udp_lost(VXUdp.socket) : -1;
    if (lost < 0) return;
    // The system's count begins anew at 2^32, ours does not.
    const std::uint32_t growth =
        static_cast<std::uint32_t>(lost) - static_cast<std::uint32_t>(VXUdp.lostTold);
    if (growth == 0) return;
    VXUdp.lostTold += growth;
    VX_TRACE(1, kControlThread, kWarning, "UDP datagrams lost for want of room: %llu (+%u)",
             static_cast<unsigned long long>(VXUdp.lostTold), growth);
}

void expireFor(vxApplication& app) {
    vxSetCurrent(&app);
    vxUdpExpireRuckus(vxlb_steady_ms());
}

}  // namespace

bool vxUdpStartWatchers(vxApplication* root) {
    return start(clientWatcher, root, "client") && start(ruckusWatcher, root, "Ruckus");
}

void vxUdpJoinWatchers() {
    vxlb_thread_join(clientWatcher.thread, clientWatcher.pool);
    vxlb_thread_join(ruckusWatcher.thread, ruckusWatcher.pool);
}

void vxUdpTellLosses() {
    vxUdpEachFunction(vxLossesTell);
    vxUdpTellRefusedMessages();
    vxUdpTellRefusals();
    tellLostDatagrams();
}

void proxy_udp_client_handler(std::int64_t round) {
    vxApplication* root = vxCurrent();
    vxUdpEndSilentFunctions(vxlb_steady_ms());
    vxSetCurrent(root);
    if (round % kTellRounds == 0) vxUdpTellLosses();
}

void proxy_udp_ruckus_handler(std::int64_t round) {
    vxApplication* root = vxCurrent();
    vxUdpEachFunction(expireFor);
    const std::int32_t count = VXProxy.numInstance.load(std::memory_order_acquire);
    for (std::int32_t i = 0; i < count; ++i)  // clients may be attached to them later, or never
        if (vxApplication* app = instanceAt(i)) expireFor(*app);
    vxSetCurrent(root);
    if (round % kMemoryRounds == 0) checkMemoryUsage();
}

}  // namespace vx
