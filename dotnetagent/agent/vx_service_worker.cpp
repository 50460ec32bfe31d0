#include "commonlibc/context/vx_application.h"
#include "commonlibc/proxyServer/vx_proxy_server.h"
#include "commonlibc/vxlb_clock.h"
#include "dotnetagent/agent/vx_service.h"
#include "dotnetagent/agent/vx_service_system.h"

namespace vx {

VXStopEvent g_ServiceStopEvent;

namespace {

constexpr std::int64_t kRestartPauseUs = 1000000;  // what failed at once would fail again at once

std::atomic<VXServiceState> serviceState{VXServiceState::kStopped};

void report(VXServiceState state, int exitCode, int checkPoint) {
    serviceState.store(state, std::memory_order_release);
    const int accepted = state == VXServiceState::kRunning ? kServiceControlStop : 0;
    vx_service_report({state, accepted, exitCode, checkPoint});
}

void runWorker(void* agentInit) {
    vx_service_debug("VXProxyService: ServiceWorkerThread: Entry");
    vxServiceWorker(g_ServiceStopEvent, *static_cast<VXAgentInit*>(agentInit));
    vx_service_debug("VXProxyService: ServiceWorkerThread: Exit");
}

}  // namespace

VXServiceState vxServiceState() {
    return serviceState.load(std::memory_order_acquire);
}

void vxServiceWorker(const VXStopEvent& stop, VXAgentInit agentInit) {
    while (!stop.isSet()) {
        proxyServerFlag.store(1, std::memory_order_release);
        agentInit(kServicePoolName, kServicePoolNameType, kServiceProcessName, kServiceAgentType, 0);
        if (!stop.isSet()) vxlb_sleep_us(kRestartPauseUs);
    }
}

void vxServiceControl(int control) {
    if (control != kServiceControlStop || vxServiceState() != VXServiceState::kRunning) return;
    vx_service_debug("VXProxyService: ServiceCtrlHandler: SERVICE_CONTROL_STOP Request");
    g_ServiceStopEvent.set();  // first: a listener that returns for the flag must not be started again
    proxyStopFlag.store(1, std::memory_order_release);
    report(VXServiceState::kStopPending, 0, 4);
    vxWakeListener();
}

int vxServiceMain(VXAgentInit agentInit) {
    vx_service_debug("VXProxyService: ServiceMain: Entry");
    if (!vx_service_register(vxServiceControl)) {
        vx_service_debug("VXProxyService: ServiceMain: registration of the stop control failed");
        return 1;
    }
    report(VXServiceState::kStartPending, 0, 0);
    report(VXServiceState::kRunning, 0, 0);
    const bool ran = vx_service_run_worker(runWorker, &agentInit);
    if (!ran) vx_service_debug("VXProxyService: ServiceMain: no worker thread");
    report(VXServiceState::kStopped, ran ? 0 : 1, 3);
    vx_service_debug("VXProxyService: ServiceMain: Exit");
    return ran ? 0 : 1;
}

}  // namespace vx
