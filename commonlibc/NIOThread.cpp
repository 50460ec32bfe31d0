#include "commonlibc/NIOThread.h"

#include <apr_errno.h>

#include "commonlibc/NIOConnection.h"
#include "commonlibc/NIODataDispatcher.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXDataTransfer.h"
#include "commonlibc/VXLosses.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::int64_t kRoundUs = 1000000;
constexpr int kRoundsPerTurn = 10;
constexpr int kTurnsBeforeRetry = 6;
constexpr std::int64_t kFinalFlushUs = 500000;
constexpr std::int64_t kEndOfRunStepUs = 10000;
constexpr int kEndOfRunSteps = 200;

bool stopped() {
    return checkAndStopThreadAS() != 0;
}

void traceRunning(const VXAutoSensorState_t& sensor) {
    VX_TRACE(1, kControlThread, kInfo, "Value of autoSensor_thread_running : '%c' set.",
             sensor.autoSensor_thread_running.load(std::memory_order_relaxed) ? '1' : '0');
}

void setHotspotPrefixes(vxApplication& app) {
    VXAutoSensorState_t& sensor = app.autoSensor;
    const VXBCISetting_t& bci = app.VXBCISetting;
    const auto separator = static_cast<char>(vx_word_get(app.VXSys.vxVectorSeparator));
    VXWriter(sensor.hotspotPrefixID, sizeof(sensor.hotspotPrefixID))
        .number(vx_word_get(bci.tierID))
        .put('|')
        .number(vx_word_get(bci.appID))
        .put('|')
        .terminate();
    VXWriter(sensor.hotspotPrefix, sizeof(sensor.hotspotPrefix))
        .text(bci.encodedTierName.get())
        .put(separator)
        .text(bci.encodedServerName.get())
        .put(separator)
        .text(bci.encodedAppName.get())
        .terminate();
}

bool connectionStands(const vxApplication& app) {
    const VXAutoSensorState_t& sensor = app.autoSensor;
    return !sensor.breakFlag.load(std::memory_order_acquire) &&
           app.VXSys.autosensorConnState.load(std::memory_order_acquire) != 0 &&
           (sensor.asSocket.get() || sensor.asWsi.load(std::memory_order_acquire));
}

bool sessionGoesOn(const vxApplication& app) {
    return !stopped() && connectionStands(app);
}

// Ten seconds, in which the chain is sent about every second. False when the session ended before.
bool passTurn(const vxApplication& app) {
    for (int round = 0; round < kRoundsPerTurn; ++round) {
        if (!sessionGoesOn(app)) return false;
        flushData();
        vxlb_sleep_watching(kRoundUs, stopped);
    }
    flushData();
    return sessionGoesOn(app);
}

// What the monitors take out of their slots goes into the chain, though the run may end while they write.
void letMonitorsReport(vxApplication& app, VXMonitorPhase phase) {
    app.autoSensor.lastReport.store(1, std::memory_order_release);
    VX_UPCALL(monitorCycle, phase);
    app.autoSensor.lastReport.store(0, std::memory_order_release);
}

// One session on a connection.
void report(vxApplication& app) {
    VX_UPCALL(monitorCycle, VXMonitorPhase::kSession);
    while (passTurn(app)) letMonitorsReport(app, VXMonitorPhase::kTurn);
}

void waitForRetry() {
    VX_TRACE(1, kControlThread, kInfo, "Going to retry for auto sensor connection after 60 sec.");
    for (int turn = 0; turn < kTurnsBeforeRetry && !stopped(); ++turn)
        if (!vxlb_sleep_watching(kRoundsPerTurn * kRoundUs, stopped))
            VX_UPCALL(monitorCycle, VXMonitorPhase::kIdle);
}

// A run that nobody has ended in order (the control link is lost, a start takes its place) may have its open
// transactions counted by the data thread: the last report waits for that.
void awaitEndOfRun(const vxApplication& app) {
    for (int step = 0; step < kEndOfRunSteps; ++step) {
        if (app.Server.tenRecordWritten.load(std::memory_order_acquire) ||
            !app.data.data_thread_running.load(std::memory_order_acquire) ||
            proxyStopFlag.load(std::memory_order_acquire))
            return;
        vxlb_sleep_us(kEndOfRunStepUs);
    }
}

int finalFlushOver() {
    return vxlb_steady_us() >= vxCurrent()->autoSensor.flushDeadlineUs;
}

// What the chain holds at the end of a run, as far as the peer takes it.
void flushAtEnd(VXAutoSensorState_t& sensor) {
    moveCommonPartialToReadList();
    sensor.flushDeadlineUs = vxlb_steady_us() + kFinalFlushUs;
    while (vxSendChain(sensor.chain, vxAutoSensorCarrier(sensor), finalFlushOver) == kSendNoBytes &&
           !finalFlushOver())
        continue;
}

// The last report of a run, if a connection is there to take it.
void reportAtEnd(vxApplication& app) {
    awaitEndOfRun(app);
    if (connectionStands(app)) letMonitorsReport(app, VXMonitorPhase::kLast);
    VX_UPCALL(monitorCycle, VXMonitorPhase::kGone);
    flushAtEnd(app.autoSensor);
}

apr_status_t launch(vxApplication& app) {
    VXAutoSensorState_t& sensor = app.autoSensor;
    vxJoinAutoSensorThread(app);
    // Set before the thread exists: it may end, and clear it, before its creator goes on.
    sensor.autoSensor_thread_running.store(1, std::memory_order_release);
    const apr_status_t status =
        vxlb_thread_start(sensor.thread, sensor.threadPool, sensor.pool, start_autoSensor_thread, &app);
    if (status != APR_SUCCESS) sensor.autoSensor_thread_running.store(0, std::memory_order_release);
    return status;
}

}  // namespace

void ASNioInit() {
    vxApplication& app = *vxCurrent();
    if (!app.autoSensor.pool) apr_pool_create(&app.autoSensor.pool, app.pool);
    VX_TRACE(1, kControlThread, kInfo, "AutoSensor Thread started.");
}

int create_autoSensor_thread() {
    vxApplication& app = *vxCurrent();
    const VXAutoSensorState_t& sensor = app.autoSensor;
    VX_TRACE(1, kControlThread, kInfo, "Creating AutoSensor thread for '%s'",
             app.VXBCISetting.appName.getOr(""));
    if (sensor.autoSensor_thread_running.load(std::memory_order_acquire)) {
        VX_TRACE(1, kControlThread, kError, "AutoSensor thread already exist.");
        return 1;
    }
    const apr_status_t status = launch(app);
    if (status == APR_SUCCESS) {
        traceRunning(sensor);
        return 0;
    }
    char error[kSockErrorSize];
    VX_TRACE(1, kControlThread, kError, "Error while creating Auto Sensor thread. Error = %s",
             apr_strerror(status, error, sizeof(error)));
    return 1;
}

void vxJoinAutoSensorThread(vxApplication& app) {
    vxlb_thread_join(app.autoSensor.thread, app.autoSensor.threadPool);
}

void setToStopThread(int stop) {
    vxCurrent()->autoSensor.asStopFlag.store(stop != 0, std::memory_order_release);
}

void stopNIO() {
    setToStopThread(1);
    vxCurrent()->autoSensor.breakFlag.store(1, std::memory_order_release);
    vxlb_shared_shutdown(vxCurrent()->autoSensor.asSocket);
}

void* start_autoSensor_thread(apr_thread_t*, void* application) {
    vxApplication& app = *static_cast<vxApplication*>(application);
    vxSetCurrent(&app);
    setHotspotPrefixes(app);
    vxDiscardChain(app.autoSensor.chain);
    while (!stopped()) {
        app.autoSensor.breakFlag.store(0, std::memory_order_release);
        VXAutoSensorUsingStackTraceSetup();
        if (startASVXCollectorCommunication()) report(app);
        if (stopped()) break;
        closeAutoSensorConnection();
        waitForRetry();
    }
    reportAtEnd(app);
    cleanAutoSensorThread();
    return nullptr;
}

void VXAutoSensorUsingStackTraceSetup() {
    const VXSys_t& sys = vxCurrent()->VXSys;
    VX_TRACE(2, kControlThread, kInfo, "VXAutoSensor: report interval = %lld ms, sample interval = %lld ms",
             static_cast<long long>(vx_word_get(sys.ASReportInterval)),
             static_cast<long long>(vx_word_get(sys.ASSampleInterval)));
}

void cleanAutoSensorThread() {
    vxApplication& app = *vxCurrent();
    VXAutoSensorState_t& sensor = app.autoSensor;
    VX_TRACE(1, kControlThread, kInfo, "Going to Exit AutoSensor thread of ['%s':'%d'] with ['%s':'%d']",
             sensor.sourceIP, sensor.sourcePort, sensor.destIP, sensor.destPort);
    closeAutoSensorConnection();
    vxDiscardChain(sensor.chain);
    VX_TRACE(1, kControlThread, kInfo, "VXAutoSensor: thread ends.");
    sensor.autoSensor_thread_running.store(0);
    traceRunning(sensor);
    vxLossesAtThreadEnd(app);
}

}  // namespace vx
