#include "commonlibc/VXDataThread.h"

#include <apr_errno.h>

#include <mutex>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXLosses.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::int64_t kTickUs = 100000;
constexpr std::int32_t kMaxConnectErrors = 4;

enum class DataState { kConnecting, kAnnouncing, kRunning, kWaiting, kGone };

bool ordered(const std::atomic<std::uint16_t>& word) {
    return word.load(std::memory_order_acquire) != 0;
}

// The instance or the service is to go: no further connection is made.
bool mustGo(const vxApplication& app) {
    return ordered(app.control.closeCtrlConFlag) ||
           app.control.proxyStopRequested.load(std::memory_order_acquire) ||
           proxyStopFlag.load(std::memory_order_acquire);
}

bool connectionOrderedClosed(const vxApplication& app) {
    return app.VXSys.dataConnState.load(std::memory_order_acquire) == 0;
}

bool stopSeenByCurrent() {
    return dataStopSeen(*vxCurrent());
}

// Waits retryInterval; ends early, and for good, on a stop.
DataState pauseBeforeRetry(const vxApplication& app) {
    vxlb_sleep_watching(app.control.retryInterval.load(std::memory_order_relaxed), stopSeenByCurrent);
    return checkAndStopThread() || dataStopSeen(app) ? DataState::kGone : DataState::kConnecting;
}

// Where no data connection comes about, the control connection is made anew, and all with it.
void giveUpLinkAfterErrors(vxApplication& app) {
    if (app.data.dataConnFailCount.load(std::memory_order_relaxed) <= kMaxConnectErrors) return;
    app.control.closeCtrlConFlag.store(1, std::memory_order_release);
    app.data.dataConnFailCount.store(0, std::memory_order_relaxed);
}

DataState connecting(vxApplication& app) {
    VXDataState_t& data = app.data;
    VX_TRACE(1, kControlThread, kInfo, "Going to Create socket for data connection");
    app.VXSys.dataConnState.store(0, std::memory_order_release);
    if (data.dataSocket.get() || data.dataWsi.load(std::memory_order_acquire)) {
        VX_TRACE(1, kControlThread, kInfo,
                 "dataConnectionBreak Going to close Data connection. [Source IP : Port] ['%s':%d] "
                 "[Destination IP : Port] ['%s':%d].",
                 data.dataConnSourceIP, data.dataConnSourcePort, data.dataConnDestIP, data.dataConnDestPort);
        close_data_connection();
    }
    if (mustGo(app)) return DataState::kGone;
    if (openDataConnection(app)) return DataState::kAnnouncing;
    giveUpLinkAfterErrors(app);
    return DataState::kWaiting;
}

DataState announcingFailed(vxApplication& app) {
    VX_TRACE(1, kControlThread, kError, "dataConnectionBreak due to send_data_con_req_msg_to_vxc() == FAIL ");
    giveUpLinkAfterErrors(app);
    if (mustGo(app)) return DataState::kGone;
    close_data_connection();
    return pauseBeforeRetry(app);
}

DataState connectionBroken(const vxApplication& app, int result) {
    VX_TRACE(1, kControlThread, kInfo,
             "dataConnectionBreak Data due to vxApplication->VXSys.dataConnState == 0 rv=%d", result);
    if (mustGo(app)) return DataState::kGone;
    close_data_connection();
    return DataState::kWaiting;
}

DataState announcing(vxApplication& app) {
    if (send_data_con_req_msg_to_vxc()) return announcingFailed(app);
    if (!announceDataConnection(app)) return connectionBroken(app, kSendLost);
    app.data.dataConnFailCount.store(0, std::memory_order_relaxed);
    return checkAndStopThread() ? DataState::kGone : DataState::kRunning;
}

// True when the link to the collector, the instance or the service is to go, without the end of a run.
bool linkStops(const vxApplication& app) {
    if (proxyStopFlag.load(std::memory_order_acquire)) return checkAndStopThread() != 0;
    if (!ordered(app.control.controlConnClosed) && !ordered(app.control.closeCtrlConFlag) &&
        !app.control.proxyStopRequested.load(std::memory_order_acquire))
        return false;
    VX_TRACE(1, kControlThread, kInfo,
             "dataConnectionBreak Going to close data connection and stop Data thread.");
    return true;
}

// Sends until the read list is empty; stays while the peer takes no bytes, and the chain fills behind it.
// The code of the last dataConnService(), or kThreadEnds.
int sendUntilEmpty(const vxApplication& app) {
    int result = dataConnService(1);
    while (result == kSendNoBytes && !connectionOrderedClosed(app)) {
        if (linkStops(app) || checkAndStopThread()) return kThreadEnds;
        vxlb_sleep_us(kTickUs);
        handleHeartBeat(1);
        result = dataConnService(1);
    }
    return result;
}

// The send loop. What was written during a tick goes out at its end, whether the node is full or not.
DataState running(vxApplication& app) {
    for (;;) {
        const int result = sendUntilEmpty(app);
        if (result == kThreadEnds) return DataState::kGone;
        if (result == kSendLost || connectionOrderedClosed(app)) return connectionBroken(app, result);
        vxlb_sleep_us(kTickUs);
        if (linkStops(app)) return DataState::kGone;
        movePartialToReadList();
        handleHeartBeat(0);
        if (checkAndStopThread()) return DataState::kGone;
    }
}

DataState waiting(vxApplication& app) {
    if (checkAndStopThread()) return DataState::kGone;
    VX_TRACE(1, kControlThread, kInfo, "Going to retry data connection after 60 sec.");
    return pauseBeforeRetry(app);
}

DataState nextState(DataState state, vxApplication& app) {
    switch (state) {
        case DataState::kConnecting:
            return connecting(app);
        case DataState::kAnnouncing:
            return announcing(app);
        case DataState::kRunning:
            return running(app);
        case DataState::kWaiting:
            return waiting(app);
        default:
            return DataState::kGone;
    }
}

// Whoever sees data_thread_running cleared may start the next thread, which joins this one first.
void clean_data_thread(vxApplication& app) {
    VXDataState_t& data = app.data;
    VX_TRACE(1, kControlThread, kInfo,
             "dataConnectionBreak Going to clean Data connection of %s:%d with %s:%d.\n",
             data.dataConnSourceIP, data.dataConnSourcePort, data.dataConnDestIP, data.dataConnDestPort);
    close_data_connection();
    VX_TRACE(1, kControlThread, kInfo, "Closing Data thread.");
    vxDiscardChain(data.chain);
    data.dataThreadOsId.store(0, std::memory_order_relaxed);
    data.data_thread_running.store(0);
    vxLossesAtThreadEnd(app);
}

apr_status_t launch(vxApplication& app) {
    VXDataState_t& data = app.data;
    if (!data.dataPool && apr_pool_create(&data.dataPool, app.pool) != APR_SUCCESS) return APR_ENOPOOL;
    vxJoinDataThread(app);
    // Set before the thread exists: it may end, and clear them, before its creator goes on.
    data.data_thread_running.store(1, std::memory_order_release);
    data.controlCommunicationBusyFlag.store(1, std::memory_order_release);
    const apr_status_t status =
        vxlb_thread_start(data.dataThread, data.threadPool, data.dataPool, start_data_thread, &app);
    if (status != APR_SUCCESS) {
        data.controlCommunicationBusyFlag.store(0, std::memory_order_release);
        data.data_thread_running.store(0, std::memory_order_release);
    }
    return status;
}

// Whether a context of the table has a thread that sends.
bool holdsSender(const std::atomic<vxApplication*>* table, std::int32_t count) {
    for (std::int32_t i = 0; i < count; ++i) {
        const vxApplication* app = table[i].load(std::memory_order_acquire);
        if (app && (app->data.data_thread_running.load(std::memory_order_acquire) ||
                    app->autoSensor.autoSensor_thread_running.load(std::memory_order_acquire)))
            return true;
    }
    return false;
}

}  // namespace

void vxJoinDataThread(vxApplication& app) {
    vxlb_thread_join(app.data.dataThread, app.data.threadPool);
}

int check_data_thread() {
    vxApplication* app = vxCurrent();
    if (app->data.data_thread_running.load(std::memory_order_acquire)) {
        VX_TRACE(1, kControlThread, kError, "Data thread already exist.");
        return 1;
    }
    const apr_status_t status = launch(*app);
    if (status == APR_SUCCESS) return 0;
    char error[kSockErrorSize];
    VX_TRACE(1, kControlThread, kError, "Error while creating data thread. Error = %s",
             apr_strerror(status, error, sizeof(error)));
    return 1;
}

void* start_data_thread(apr_thread_t*, void* application) {
    vxApplication& app = *static_cast<vxApplication*>(application);
    VXDataState_t& data = app.data;
    vxSetCurrent(&app);
    data.dataThreadOsId.store(vx_platform_thread_id(), std::memory_order_relaxed);
    data.flushing = 0;
    data.replayedThisRun = 0;
    data.flushDeadlineUs = 0;
    if (buff_list_init()) {
        VX_TRACE(1, kControlThread, kError, "Error in buff_list_init");
        data.controlCommunicationBusyFlag.store(0, std::memory_order_release);
        data.dataThreadOsId.store(0, std::memory_order_relaxed);
        data.data_thread_running.store(0, std::memory_order_release);
        return nullptr;
    }
    for (DataState state = DataState::kConnecting; state != DataState::kGone;) state = nextState(state, app);
    clean_data_thread(app);
    return nullptr;
}

void free_agent_data() {
    vxApplication* app = vxCurrent();
    {
        VXGuard lock(app->bt.monitorMutex);
        VX_UPCALL(ResetMonitorData);
    }
    VX_UPCALL(freeTagStructures);
    VX_UPCALL(setdefaultValues);
    VX_UPCALL(initVXDynamicSettings);
}

bool vxDataThreadsDrained() {
    const auto* instances = VXProxyInstance.load(std::memory_order_acquire);
    if (instances && holdsSender(instances, VXProxy.numInstance.load(std::memory_order_acquire)))
        return false;
    const std::lock_guard lock(VXUdp.registration);
    const auto* functions = VXUdp.functions.load(std::memory_order_acquire);
    return !functions || !holdsSender(functions, VXUdp.functionSlots.load(std::memory_order_acquire));
}

}  // namespace vx
