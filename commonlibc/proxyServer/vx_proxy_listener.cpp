#include "commonlibc/proxyServer/vx_proxy_listener.h"

#include <apr_general.h>
#include <apr_signal.h>

#include <csignal>
#include <mutex>
#include <utility>

#include "commonlibc/VXLosses.h"
#include "commonlibc/proxyServer/proxyMemCheck.h"
#include "commonlibc/proxyServer/vx_proxy_read.h"
#include "commonlibc/proxyServer/vx_proxy_thread_ops.h"
#include "commonlibc/proxyServer/vx_udp_receiver.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

VXListenerReport vxListenerReport{};

namespace {

constexpr std::int64_t kBindRetryUs = 10000000;

std::mutex wakeMutex;
void (*wakeLoop)() = nullptr;  // wakeMutex

std::atomic<int> brokenPipes{0};  // signals that the loop has not traced yet

void wakeForOperations(VXThreadOpsQueue& /*queue*/) {
    vxWakeListener();
}

void countBrokenPipe(int) {
    brokenPipes.fetch_add(1, std::memory_order_relaxed);
}

bool makeThreadOperations() {
    return initializeThreadOperations(VXProxy.threadOps, VXProxy.listenerPool, 0, wakeForOperations);
}

bool makeBuffers() {
    return setResetSocketBuffer(VXProxy.controlBuf) && setResetSocketBuffer(VXProxy.dataBuf) &&
           setResetSocketBuffer(VXProxy.discoveryBuf);
}

void setWake(void (*wake)()) {
    const std::lock_guard lock(wakeMutex);
    wakeLoop = wake;
}

}  // namespace

bool vxListenerStart() {
    apr_initialize();
    if (apr_pool_create(&VXProxy.listenerPool, nullptr) != APR_SUCCESS) return false;
    apr_signal_init(VXProxy.listenerPool);
    apr_signal(SIGPIPE, countBrokenPipe);
    if (!makeThreadOperations() || !makeBuffers()) return false;
    tlWorkerIndex = 0;
    vxLearnTotalMemory();
    return true;
}

void vxListenerAbandon() {
    for (VXReadBuffer* buffer : {&VXProxy.controlBuf, &VXProxy.dataBuf, &VXProxy.discoveryBuf})
        VXLB_FREE(std::exchange(buffer->buffer, nullptr), "control buffer read_socket_buf", -1);
    vxEndThreadOperations(VXProxy.threadOps);
    VXProxy.pollset = nullptr;
    VXProxy.listenSocket = nullptr;
    if (VXProxy.listenerPool) apr_pool_destroy(std::exchange(VXProxy.listenerPool, nullptr));
}

bool vxListenerStopOrdered() {
    return proxyStopFlag.load(std::memory_order_acquire) != 0;
}

bool vxListenerBind(bool (*attempt)(char* reason)) {
    char reason[kSockErrorSize] = "";
    bool reported = false;
    while (!vxListenerStopOrdered()) {
        if (attempt(reason)) return true;
        VX_TRACE(1, kControlThread, kInfo, "Retry in 10 seconds.");
        if (!reported && vxListenerReport.bindFailed) vxListenerReport.bindFailed(VXProxy.proxyPort, reason);
        reported = true;
        vxlb_sleep_watching(kBindRetryUs, vxListenerStopOrdered);
    }
    return false;
}

void vxListenerRuns(void (*wake)()) {
    vxUdpStart();
    setWake(wake);
    VXProxy.listenerRunning.store(1, std::memory_order_release);
    if (vxListenerReport.listening) vxListenerReport.listening(VXProxy.proxyHost, VXProxy.proxyPort);
}

void vxListenerEnds() {
    setWake(nullptr);
    vxUdpStop();
    VXProxy.listenerRunning.store(0, std::memory_order_release);
}

void vxListenerOperations() {
    processThreadOps(VXProxy.threadOps);
}

void vxListenerWork() {
    vxLossesWalk();
    if (brokenPipes.exchange(0, std::memory_order_relaxed) > 0)
        VX_TRACE(1, kControlThread, kInfo, "SIGPIPE received, ignoring... sig value = %d", SIGPIPE);
}

void vxWakeListener() {
    const std::lock_guard lock(wakeMutex);
    if (wakeLoop) wakeLoop();
}

}  // namespace vx
