// The service: its states, its stop, and the worker that runs the agent side over and over.
//
//     start pending --> running --stop control--> stop pending --> stopped
//
// The worker calls agent_init until the stop event is set: a return without a stop starts everything again.
//
// Threads   vxServiceMain: the main thread, which waits for the worker. vxServiceControl: the thread that the
//           system calls controls on. vxServiceWorker: the worker.
#pragma once

#include <atomic>

namespace vx {

enum class VXServiceState : int { kStopped = 1, kStartPending = 2, kStopPending = 3, kRunning = 4 };

// What the service calls agent_init with.
inline constexpr const char* kServicePoolName = "DotNetAgent";
inline constexpr int kServicePoolNameType = 3;
inline constexpr const char* kServiceProcessName = "ProxyName";
inline constexpr const char* kServiceAgentType = "proxy";

inline constexpr int kServiceControlStop = 1;  // the only control that is accepted, and only while running

struct VXServiceStatus {
    VXServiceState state;
    int controlsAccepted;  // kServiceControlStop, or 0
    int exitCode;
    int checkPoint;
};

// Manual-reset, unset at first.
class VXStopEvent {
public:
    void set() noexcept { set_.store(true, std::memory_order_release); }
    void reset() noexcept { set_.store(false, std::memory_order_release); }
    bool isSet() const noexcept { return set_.load(std::memory_order_acquire); }

private:
    std::atomic<bool> set_{false};
};
extern VXStopEvent g_ServiceStopEvent;

using VXAgentInit = void (*)(const char* poolName, int poolNameType, const char* processName,
                             const char* agentType, int flags);

// Calls agentInit until the event is set; not once when it is set already.
void vxServiceWorker(const VXStopEvent& stop, VXAgentInit agentInit);
// Sets proxyStopFlag and the stop event on a stop control while running; ignores everything else.
void vxServiceControl(int control);
// Registers with the system, runs the worker to its end, reports "stopped". 0, or 1 when the service could
// not be set up.
int vxServiceMain(VXAgentInit agentInit);
VXServiceState vxServiceState();

}  // namespace vx
