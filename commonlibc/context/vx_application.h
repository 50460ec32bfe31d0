// The application context: all state of one instance, and the process-wide registry of contexts.
//
// A context is one zero-filled block, composed of one member structure per subsystem; each structure's
// header says who writes it, who reads it and which lock guards it. Slot 0 of VXProxyInstance is the root
// context: it reads the settings, owns the trace log and takes no agents.
//
// Threads   Each thread reaches its context through vxCurrent() and sets it itself (vxSetCurrent); a thread
//           that serves several instances sets it before touching one and leaves the last one behind.
// Locks     Order, first to last: decode lock, method table lock (nested), slot tag mutex, slot blob mutex,
//           BT map mutex, id-table and header-map locks, monitor slot mutex, dumpMutex, listMutex (those of
//           the auto-sensor channel rank alike). Leaves: that over the reset queues (a queue's inside it),
//           pool mutex (the free slots' inside it), map mutexes, trace mutex, keyword-text mutex, settings-
//           file mutex, collectors', outbox and loss mutex, a handle's closeMutex. The message mutex
//           comes before a process's send mutex; neither is taken under the decode lock.
#pragma once

#include <apr_pools.h>

#include <atomic>
#include <cstdint>

#include "commonlibc/context/VXBCISetting.h"
#include "commonlibc/context/VXBTState.h"
#include "commonlibc/context/VXCollectors.h"
#include "commonlibc/context/VXControlState.h"
#include "commonlibc/context/VXDataState.h"
#include "commonlibc/context/VXDecoderState.h"
#include "commonlibc/context/VXDigestState.h"
#include "commonlibc/context/VXExceptionMonitorState.h"
#include "commonlibc/context/VXExceptionState.h"
#include "commonlibc/context/VXFileState.h"
#include "commonlibc/context/VXHttpState.h"
#include "commonlibc/context/VXIdentity.h"
#include "commonlibc/context/VXKeywordState.h"
#include "commonlibc/context/VXLwsState.h"
#include "commonlibc/context/VXMethodState.h"
#include "commonlibc/context/VXMonitorState.h"
#include "commonlibc/context/VXPerThreadData.h"
#include "commonlibc/context/VXProxyState.h"
#include "commonlibc/context/VXServer.h"
#include "commonlibc/context/VXSys.h"
#include "commonlibc/context/VXTierState.h"
#include "commonlibc/context/VXUdpState.h"
#include "commonlibc/vxlb_text.h"

namespace vx {

struct vxApplication {
    VXIdentity_t identity;
    VXSys_t VXSys;
    VXBCISetting_t VXBCISetting;
    Server_t Server;
    VXControlState_t control;
    VXCollectors_t collectors;
    VXDataState_t data;
    VXAutoSensorState_t autoSensor;
    VXDecoderState_t decoder;
    VXFlowpathState_t flowpath;
    VXBTState_t bt;
    VXMethodState_t method;
    VXExceptionMonitorState_t exceptionMonitor;
    VXDigestState_t digest;
    VXMonitorState_t monitor;
    VXKeywordState_t keywords;
    VXFileState_t files;
    VXTierState_t tiers;
    VXHttpState_t http;
    VXExceptionState_t exceptions;
    VXSessionState_t session;
    VXDiscoveryState_t discovery;
    VXUdpContext_t udp;
    VXLossState_t losses;
    VXLwsState_t lws;
    vxAppLogStruct_t vxAppLogStruct;
    VXAutoInstrumentation_t VXAutoInstrumentation;
    VXFlowpathGenerator_t VXFlowpathGenerator;
    VXInterfaceProcessor_t VXInterfaceProcessor;
    VXMap* ruckusMap;
    VXRetiredTexts retired;  // replaced shared texts
    apr_pool_t* pool;        // the context's pool: made once
    char* agentLogBuffer;    // 131,072 bytes, slot 0 only
    std::uint8_t agentLogBufferFree;
};

extern VXProxy_t VXProxy;
extern std::atomic<std::int32_t> proxyServerFlag;    // 1 in the service
extern std::atomic<std::int32_t> proxyStopFlag;      // polled by every loop; outlives the zeroing of VXProxy
extern std::atomic<std::int32_t> proxyCleaningFlag;  // set by resetAndCleanProxy
extern char* gPool;                                  // pool name given to agent_init
extern char* gProcessName;                           // process name given to agent_init

// The published table of contexts; replaced tables are retired, not freed.
extern std::atomic<std::atomic<vxApplication*>*> VXProxyInstance;

// Context of slot `index`, null when the slot is empty. `index` must be below VXProxy.instanceTableSize.
inline vxApplication* instanceAt(std::int32_t index) noexcept {
    return VXProxyInstance.load(std::memory_order_acquire)[index].load(std::memory_order_acquire);
}
// Record `index` of an instance; `index` must be below numProcess.
inline processInfo_t* processAt(const vxApplication& app, std::int32_t index) noexcept {
    return app.identity.processInfo.load(std::memory_order_acquire)[index];
}

// Thread-local context pointer and worker index (0 on the listener, the worker's number on a UDP worker).
inline constinit thread_local vxApplication* tlApplication = nullptr;
inline constinit thread_local std::uint16_t tlWorkerIndex = 0;
inline vxApplication* vxCurrent() noexcept {
    return tlApplication;
}
inline void vxSetCurrent(vxApplication* app) noexcept {
    tlApplication = app;
}

// Allocates a zeroed context (null without memory) and frees one (tests only: a context of the service
// lives to the end of the process). What its pointers own is not freed.
vxApplication* vxNewApplication();
void vxFreeApplication(vxApplication* app);

// Milliseconds in the instance's base, of a Unix time in microseconds. The base comes over the wire and may
// hold any value: the difference wraps.
inline std::int64_t vxRelativeMs(const vxApplication& app, std::int64_t epochUs) noexcept {
    const auto base = static_cast<std::uint64_t>(app.Server.zorEpochDiff.load(std::memory_order_relaxed));
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(epochUs / 1000) - base);
}

}  // namespace vx
