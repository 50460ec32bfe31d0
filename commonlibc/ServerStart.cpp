#include "commonlibc/ServerStart.h"

#include <cstring>
#include <utility>

#include "commonlibc/NIOThread.h"
#include "commonlibc/ServerReply.h"
#include "commonlibc/VXAgentLine.h"
#include "commonlibc/VXDataThread.h"
#include "commonlibc/VXDigestMonitor.h"
#include "commonlibc/VXFileBasedKeywords.h"
#include "commonlibc/VXInstrProfile.h"
#include "commonlibc/VXKeywordPass.h"
#include "commonlibc/VXMethodManager.h"
#include "commonlibc/backend/VXBackendMonitor.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/flowpath/VXFlowpathGenerator.h"
#include "commonlibc/flowpath/VXFlowpathStop.h"
#include "commonlibc/http/VXHttpReqRespCaptureSettings.h"
#include "commonlibc/mm/VXExceptionMonitor.h"
#include "commonlibc/mm/VXMethodMonitor.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxbt/vxbt_config.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::int64_t kWaitStepUs = 10000;
constexpr int kWaitSteps = 1500;      // 15 s for threads of the former run
constexpr int kShutdownAtStep = 500;  // 5 s, then their sockets are shut down

// A collector that repeats its start does no harm.
bool alreadyRuns(const vxApplication& app) {
    return app.data.data_thread_running && app.autoSensor.autoSensor_thread_running &&
           app.Server.testRunRunning && (app.data.dataSocket.get() || app.data.dataWsi.load()) &&
           (app.autoSensor.asSocket.get() || app.autoSensor.asWsi.load());
}

void storeStartLine(vxApplication& app, const char* line) {
    char* copy = vxlb_strdup(line);
    if (!copy) return;
    const VXGuard lock(app.identity.messageMutex);
    VXLB_FREE(std::exchange(app.identity.startInstrumentation, copy), "start line", -1);
}

bool threadsOfRunStand(const vxApplication& app) {
    return app.data.data_thread_running || app.autoSensor.autoSensor_thread_running;
}

// True once no thread of the former run stands.
bool formerRunEnded(vxApplication& app) {
    app.Server.testRunRunning = 0;
    setToStopThread(1);
    for (int step = 0; threadsOfRunStand(app); ++step) {
        if (step == kWaitSteps || app.control.proxyStopRequested || proxyStopFlag) return false;
        if (step == kShutdownAtStep) {
            vxlb_shared_shutdown(app.data.dataSocket);
            stopNIO();
        }
        vxlb_sleep_us(kWaitStepUs);
    }
    return true;
}

bool clearFormerRun(vxApplication& app) {
    if (!formerRunEnded(app)) {
        VX_TRACE(1, kControlThread, kError, "Threads of the former run still stand, start is given up");
        app.control.closeCtrlConFlag = 1;
        return false;
    }
    vxDropBusyList();
    free_agent_data();
    makeInstrProfTableFree();
    return true;
}

void initMonitors() {
    VX_UPCALL(VXThreadMonitorInit);
    VXBTConfigModelInit();
    VXBackendMonitorInit();
    VXMethodMonitorInit();
    VXExceptionMonitorInit();
    vxDigestInit();
    VX_UPCALL(resetAppLogSettings);
    dropHttpHeaderLists();
}

void applyKeywords(Server_t& server, const char* line) {
    server.warnings[0] = '\0';
    server.epochDiffGiven = 0;
    if (std::strstr(line, "zorEpochDiff")) {
        server.zorEpochDiff = 0;
        server.originalZorEpochDiff = kOriginalZorEpochDiff;
    }
    if (!std::strstr(line, "TimeStampDiff")) vx_word_set(server.TimeStampDiff, 0);
    findStatusFromClientMsg(line);
}

void makeTables() {
    hashMapForAgent();
    createVectorPrefix();
    createVectorPrefixBackend();
    createVectorPrefixMethod();
    createVectorPrefixException();
}

// The sums are made unsigned: both parts come over the wire.
void setEpochBase(Server_t& server) {
    const bool given = server.epochDiffGiven;
    const std::int64_t from = given ? server.zorEpochDiff : server.originalZorEpochDiff;
    const auto base = static_cast<std::int64_t>(
        static_cast<std::uint64_t>(from) - static_cast<std::uint64_t>(vx_word_get(server.TimeStampDiff)));
    server.zorEpochDiff = base;
    if (given) server.originalZorEpochDiff = base;
}

void markStarted(vxApplication& app) {
    app.Server.numRunning += 1;
    app.Server.bciDataRunning = 1;
    app.Server.asDataRunning = 1;
    setAllFlagAndCountVars();
    const VXGuard lock(app.identity.messageMutex);
    app.Server.instrumentationStarted = 1;
}

void handleMonitoringCompatibility(const char* line) {
    VX_TRACE(2, kControlThread, kInfo, "vxMethodMonFile given = %d, vxExceptionMonFile given = %d",
             std::strstr(line, "vxMethodMonFile") != nullptr,
             std::strstr(line, "vxExceptionMonFile") != nullptr);
}

void handleOneInstrumentProfileCase(Server_t& server) {
    VX_TRACE(
        1, kControlThread, kInfo,
        "Total Number of InstrumentPorfiles = 1, Number of InstrumentProfileToAsk from VXCollecter = 1.");
    ++server.askedProfileCount;
}

void handleMultipleInstrumentationProfileCase(Server_t& server) {
    if (server.askedProfileCount >= vx_word_get(server.numInstrProfile)) server.sameFlag = 1;
}

void HandleAccordingToNumOfInsFiles(Server_t& server) {
    const std::int32_t profiles = vx_word_get(server.numInstrProfile);
    if (server.noInstrProfile) {
        VX_TRACE(1, kControlThread, kWarning, "No Instrumentation profiles selected for current test.");
    } else if (profiles == 1) {
        handleOneInstrumentProfileCase(server);
    } else if (profiles > 1) {
        handleMultipleInstrumentationProfileCase(server);
    }
}

// What the end of the former run has left behind.
void clearEndOfRun(vxApplication& app) {
    Server_t& server = app.Server;
    server.stopping = 0;
    server.isTenRecordDump = 0;
    server.tenRecordWritten = 0;
    server.stopWaiting = 0;
    app.control.controlConnClosed = 0;
    setToStopThread(0);
    app.data.lastDataHeartbeatTime = 0;
}

void startThreads(vxApplication& app) {
    clearEndOfRun(app);
    app.Server.testRunRunning = 1;
    check_data_thread();
    ASNioInit();
    create_autoSensor_thread();
    VX_UPCALL(check_captureAppLog_thread);
}

void handleStartInstrumentationCase(vxApplication& app, const char* line) {
    app.Server.isRuntimeApplied = 0;
    resetAllFPCounters();
    handleMonitoringCompatibility(line);
    HandleAccordingToNumOfInsFiles(app.Server);
    startThreads(app);
}

}  // namespace

void handleStartInstrumentation(char* line) {
    vxApplication& app = *vxCurrent();
    if (alreadyRuns(app)) {
        VX_TRACE(1, kControlThread, kInfo, "ignoring start_instrumentation");
        return;
    }
    VX_TRACE(1, kControlThread, kInfo, "%s", line);
    VX_TRACE(1, kControlThread, kInfo, "Proxy Server - processCount = %d", app.identity.numProcess.load());
    storeStartLine(app, line);
    if (!clearFormerRun(app)) return;
    initMonitors();
    if (app.control.closeCtrlConFlag) return;
    VX_TRACE(1, kControlThread, kInfo, "Calling transfer_data_callback to pass agentTraceLevel");
    applyKeywords(app.Server, line);
    if (app.control.closeCtrlConFlag || linkStopAsked(app)) return;
    useHeldFiles();
    makeTables();
    setEpochBase(app.Server);
    markStarted(app);
    handleStartInstrumentationCase(app, line);
    sendResponseToVXC();
    vxRelayToAll(line);
}

void setAllFlagAndCountVars() {
    vxApplication& app = *vxCurrent();
    app.Server.askedProfileCount = 0;
    app.Server.sameFlag = 1;
    app.Server.logDataRunning = 0;
    app.Server.sessionCounter = 0;
    app.VXSys.dataDropCount = 0;
}

}  // namespace vx
