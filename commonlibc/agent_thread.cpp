#include "commonlibc/agent_thread.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>

#include "commonlibc/VXDataThread.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/platform/vx_platform_crash.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/proxyServer/vx_proxy_server.h"
#include "commonlibc/proxyServer/vx_udp_functions.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::int64_t kStepUs = 10000;
constexpr std::int64_t kDrainUs = 3500000;  // 2 s to send, the rest to close and to count
constexpr std::int64_t kEndUs = 4000000;    // the program's own end has this long
constexpr std::int64_t kInstanceUs = 200;   // between the stop words of two instances
constexpr std::int64_t kGoodByeUs = 1000;
constexpr int kWaitedSignals[] = {SIGTERM, SIGINT, SIGUSR1, SIGHUP};

void (*onStop)() = nullptr;

sigset_t waitedSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : kWaitedSignals) sigaddset(&set, signal);
    return set;
}

vxApplication* rootContext() {
    return VXProxyInstance.load(std::memory_order_acquire) ? instanceAt(0) : nullptr;
}

// Calls visit for each instance in use, current meanwhile.
template <class Visit>
void eachInstance(Visit visit) {
    if (!VXProxyInstance.load(std::memory_order_acquire)) return;
    const std::int32_t count = VXProxy.numInstance.load(std::memory_order_acquire);
    for (std::int32_t i = 0; i < count; ++i) {
        vxApplication* app = instanceAt(i);
        if (!app) continue;
        vxSetCurrent(app);
        visit(*app);
    }
}

// Of each context the line that it has not told yet. The sum.
VXLossTotals tellLosses() {
    VXLossTotals sum;
    const auto add = [&sum](vxApplication& app) {
        vxLossesTell(app);
        const VXLossTotals own = vxLossTotals(app);
        sum = {sum.records + own.records, sum.starts + own.starts, sum.messages + own.messages};
    };
    eachInstance(add);
    vxUdpEachFunction(add);
    return sum;
}

void orderStop(vxApplication& app) {
    app.control.proxyStopRequested.store(1, std::memory_order_release);
    app.control.closeCtrlConFlag.store(1, std::memory_order_release);
    vxlb_sleep_us(kInstanceUs);
}

void shutDownConnections(vxApplication& app) {
    const std::int32_t count = app.identity.numProcess.load(std::memory_order_acquire);
    for (std::int32_t i = 0; i < count; ++i) {
        processInfo_t& process = *processAt(app, i);
        for (VXSharedSocket* handle : {&process.control, &process.data, &process.autoSensor})
            vxlb_shared_shutdown(*handle);
    }
    for (VXSharedSocket* handle :
         {&app.control.controlSocket, &app.data.dataSocket, &app.autoSensor.asSocket})
        vxlb_shared_shutdown(*handle);
}

// The terminal of whoever started the service is gone, or a tool wants files read again that are not kept.
void tellHangUp() {
    vxSetCurrent(rootContext());
    VX_TRACE(1, kControlThread, kInfo, "SIGHUP received, the service goes on");
}

void* waitForSignals(void*) {
    const VXCrashStack crashStack;
    const sigset_t set = waitedSignals();
    int signal = 0;
    for (; sigwait(&set, &signal) != 0 || signal == SIGHUP; signal = 0)
        if (signal == SIGHUP) tellHangUp();
    // Told apart before the program's main thread can come to its end.
    if (signal != SIGTERM) proxyCleaningFlag.store(1, std::memory_order_release);
    onStop();
    if (signal != SIGTERM) resetAndCleanProxy(signal);
    vxlb_sleep_us(kEndUs);  // the program gets to its end before
    _exit(0);
}

}  // namespace

bool vxStartSignalThread(void (*stopControl)()) {
    onStop = stopControl;
    const sigset_t set = waitedSignals();
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return false;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, waitForSignals, nullptr) != 0) return false;
    pthread_detach(thread);
    return true;
}

void vxStopService(VXStopReport report) {
    proxyStopFlag.store(1, std::memory_order_release);
    vxWakeListener();
    if (proxyCleaningFlag.load(std::memory_order_acquire)) vxlb_sleep_us(kEndUs);
    const std::uint64_t before = tellLosses().records;
    const std::int64_t deadline = vxlb_steady_us() + kDrainUs;
    bool ended = vxDataThreadsDrained();
    for (; !ended && vxlb_steady_us() < deadline; ended = vxDataThreadsDrained()) vxlb_sleep_us(kStepUs);
    const VXLossTotals lost = tellLosses();
    const VXStopEnd end = !ended                   ? VXStopEnd::kUncounted
                          : lost.records != before ? VXStopEnd::kLost
                                                   : VXStopEnd::kSent;
    vxSetCurrent(rootContext());
    VX_TRACE(1, kControlThread, kInfo, "Stopped as told, %s",
             end == VXStopEnd::kSent ? "nothing is left to send" : "what could not be sent in time is lost");
    report(end, lost);
    _exit(0);
}

void resetAndCleanProxy(int sig) {
    proxyCleaningFlag.store(1, std::memory_order_release);
    proxyStopFlag.store(1, std::memory_order_release);
    vxApplication* root = rootContext();
    vxSetCurrent(root);
    VX_TRACE(1, kControlThread, kInfo, "Received (kill -%d) request to stop Proxy. Closing the connections",
             sig);
    vxWakeListener();
    eachInstance(orderStop);
    eachInstance(shutDownConnections);
    vxSetCurrent(root);
    VX_TRACE(1, kControlThread, kInfo, "All connections closed successfully.");
    // The listener compares the identity strings until its loop has ended; what it holds goes with the
    // process.
    if (!VXProxy.listenerRunning.load(std::memory_order_acquire)) proxyMemClean();
    vxlb_sleep_us(kGoodByeUs);
    VX_TRACE(1, kControlThread, kInfo, "Exiting Proxy. GoodBye!!!");
    _exit(0);
}

}  // namespace vx
