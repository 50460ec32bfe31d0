#include "commonlibc/ServerStop.h"

#include <strings.h>

#include <cstring>
#include <utility>

#include "commonlibc/NIOThread.h"
#include "commonlibc/ServerReply.h"
#include "commonlibc/VXAgentLine.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXKeywordPass.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/flowpath/VXFlowpathStop.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr const char kTenRecord[] = "10,\n";
constexpr std::int64_t kUsPerMinute = 60000000;
constexpr const char* kEndingStates[] = {"running", "stopping"};

void freeStoredStartLine(vxApplication& app) {
    const VXGuard lock(app.identity.messageMutex);
    VXLB_FREE(std::exchange(app.identity.startInstrumentation, nullptr), "start line", -1);
}

bool linkMustEnd() {
    const vxApplication& app = *vxCurrent();
    return app.control.closeCtrlConFlag || app.control.proxyStopRequested || proxyStopFlag;
}

// A time for the collector to take what is on its way; the control thread does nothing else meanwhile.
void waitBeforeStop(Server_t& server) {
    server.stopWaiting = 1;
    vxlb_sleep_watching(server.stopWaitMinutes * kUsPerMinute, linkMustEnd);
    server.stopWaiting = 0;
}

bool statusEndsRun(const Server_t& server) {
    char status[sizeof(server.status)];
    vxCopyKeywordText(status, sizeof(status), server.status, sizeof(server.status));
    for (const char* state : kEndingStates)
        if (strncasecmp(status, state, std::strlen(state)) == 0) return true;
    return false;
}

}  // namespace

void handleStopInstrumentation(char* line) {
    vxApplication& app = *vxCurrent();
    VX_TRACE(1, kControlThread, kInfo, "%s", line);
    freeStoredStartLine(app);  // first: who was still given it is published by now, and the relay reaches it
    vxRelayToAll(line);
    VX_UPCALL(freeTagHashLists);
    waitBeforeStop(app.Server);
    findStatusFromClientMsg(line);
    app.Server.numRunning -= 1;
    if (statusEndsRun(app.Server)) handleStoppingCaseAtStopInstrumentCase();
    sendResponseOfStopInstrumentation();
}

void handleStoppingCaseAtStopInstrumentCase() {
    vxApplication& app = *vxCurrent();
    Server_t& server = app.Server;
    server.stopping = 1;                                // no new transaction from here on:
    { const VXGuard decode(app.decoder.decodeMutex); }  // a start that has not seen it yet is through
    dumpFpFromBusyList();
    dumpNdDataOverRecord();
    setToStopThread(1);
    server.testRunRunning = 0;
    server.bciDataRunning = 0;
    server.asDataRunning = 0;
    const VXGuard lock(app.identity.messageMutex);
    server.instrumentationStarted = 0;
}

void dumpNdDataOverRecord() {
    Server_t& server = vxCurrent()->Server;
    server.isTenRecordDump = 1;
    server.tenRecordWritten = 1;
    VX_TRACE(1, kControlThread, kInfo, "Going to Dumping 10 record");
    dumpData(kTenRecord, sizeof(kTenRecord) - 1);
}

void closeCurrentControlConnection() {
    vxApplication& app = *vxCurrent();
    {
        const VXGuard lock(app.identity.messageMutex);
        app.Server.instrumentationStarted = 0;
    }
    app.Server.runtimeChange = 0;
    app.control.closeCtrlConFlag = 1;
    VX_TRACE(1, kControlThread, kInfo, "Rerouting operation completed.");
}

}  // namespace vx
