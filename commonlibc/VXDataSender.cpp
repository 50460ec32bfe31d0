#include "commonlibc/VXDataSender.h"

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr int kFlushRounds = 100;
constexpr std::int64_t kLwsSendTimeUs = 500000;
constexpr std::int64_t kFlushTimeUs = 5000000;
constexpr std::int64_t kServiceStopTimeUs = 2000000;
constexpr std::int64_t kServiceStopPauseUs = 10000;

bool runFlagsSet(const vxApplication& app) {
    return app.Server.testRunRunning.load(std::memory_order_acquire) &&
           app.Server.bciDataRunning.load(std::memory_order_acquire);
}

bool controlLinkGone(const vxApplication& app) {
    return app.control.controlConnClosed.load(std::memory_order_acquire) ||
           app.control.closeCtrlConFlag.load(std::memory_order_acquire);
}

bool serviceStops() {
    return proxyStopFlag.load(std::memory_order_acquire) != 0;
}

// A plain stop of the service: what the chain holds, no 10 record.
void drainForServiceStop(vxApplication& app) {
    if (proxyCleaningFlag.load(std::memory_order_acquire) || app.data.flushing) return;
    app.data.flushing = 1;
    movePartialToReadList(app.data.chain);
    const std::int64_t deadline = vxlb_steady_us() + kServiceStopTimeUs;
    while (dataConnService(0) == kSendNoBytes && vxlb_steady_us() < deadline)
        vxlb_sleep_us(kServiceStopPauseUs);
    app.data.flushing = 0;
}

// Records of the run's end. `draining` lets them in when the link was lost while nobody had ended the run.
void writeEndOfRun(vxApplication& app) {
    Server_t& server = app.Server;
    const bool endMissing = !server.tenRecordWritten.load(std::memory_order_acquire);
    if (endMissing) server.draining.store(1, std::memory_order_release);
    VX_UPCALL(dumpFpFromBusyList);
    if (!server.tenRecordWritten.load(std::memory_order_acquire)) VX_UPCALL(dumpNdDataOverRecord);
    flushCommonData();
    server.draining.store(0, std::memory_order_release);
}

}  // namespace

int dataConnService(int checkStop) {
    return vxCurrent()->data.dataWsi.load(std::memory_order_acquire) ? processDataLws(checkStop)
                                                                     : processData(checkStop);
}

int processData(int checkStop) {
    vxApplication& app = *vxCurrent();
    return vxSendChain(app.data.chain, app.data.dataSocket.get(), checkStop ? checkAndStopThread : nullptr);
}

int processDataLws(int checkStop) {
    VXDataState_t& data = vxCurrent()->data;
    const VXCarrier carrier(nullptr, data.dataWsi.load(std::memory_order_acquire), kLwsSendTimeUs);
    return vxSendChain(data.chain, carrier, checkStop ? checkAndStopThread : nullptr);
}

void flushCommonData() {
    vxApplication* app = vxCurrent();
    if (!app) return;
    VXDataState_t& data = app->data;
    if (data.dataThreadOsId.load(std::memory_order_relaxed) != vx_platform_thread_id()) return;
    if (data.flushing || (!data.dataSocket.get() && !data.dataWsi.load(std::memory_order_acquire))) return;
    data.flushing = 1;
    movePartialToReadList(data.chain);
    const std::int64_t deadline =
        data.flushDeadlineUs ? data.flushDeadlineUs : vxlb_steady_us() + kFlushTimeUs;
    for (int round = 0; round < kFlushRounds; ++round) {
        if (dataConnService(0) != kSendNoBytes) break;
        if (dataStopSeen(*app) && vxlb_steady_us() >= deadline) break;
    }
    data.flushing = 0;
}

int checkAndStopThread() {
    vxApplication& app = *vxCurrent();
    if (serviceStops()) {
        drainForServiceStop(app);
        return kThreadEnds;
    }
    if (runFlagsSet(app) && !app.control.closeCtrlConFlag.load(std::memory_order_acquire)) return 0;
    VX_TRACE(3, kControlThread, kError, "BCI Data thread is to be stopped. Server.isTenRecordDump = %d.",
             app.Server.isTenRecordDump.load(std::memory_order_relaxed));
    if (!app.data.flushDeadlineUs) app.data.flushDeadlineUs = vxlb_steady_us() + kFlushTimeUs;
    // Settings go back to their defaults at the next start: the listener still reads them here.
    writeEndOfRun(app);
    VX_TRACE(1, kControlThread, kInfo, "dataConnectionBreak,so going to closing data thread");
    return kThreadEnds;
}

bool dataStopSeen(const vxApplication& app) {
    return serviceStops() || controlLinkGone(app) ||
           app.control.proxyStopRequested.load(std::memory_order_acquire) || !runFlagsSet(app);
}

}  // namespace vx
