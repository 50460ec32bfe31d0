#include "commonlibc/control_thread.h"

#include <apr_errno.h>

#include <utility>

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXSettingsFile.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::uint8_t kDefaultRetryCount = 3;
constexpr std::int32_t kDefaultMissCount = 10;
constexpr std::int32_t kDefaultHeartbeatRounds = 6;
constexpr std::int32_t kRequestAfterLimit = 3;  // requestType once the retry limit was reached
constexpr int kMaxAtOnce = 4;                   // attempts in a row without a pause between them
constexpr std::int64_t kThreadStarting = -1;    // controlThreadId until the thread has its own

// What the connect cycle does next.
enum class Step {
    kOuterTop,  // a fresh cycle: changed settings are read
    kConnect,   // one connect attempt
    kAnnounce,  // the connect message
    kReply,     // its reply
    kRun,       // the read loop
    kFailover,  // the next collector
    kEnd,
};

struct Cycle {
    vxApplication& app;
    ctrlBufInfo_t& info;
    VXPool pool;  // of the present attempt: its socket
    bool limitHit = false;
    bool failedBefore = false;   // in this cycle
    int atOnce = 0;              // attempts without a pause, since the last pause or connection
    bool sameCollector = false;  // the next attempt goes where this one went
    bool answered = false;       // the collector of the present attempt has said something of use
    char error[kSockErrorSize] = "";

    explicit Cycle(vxApplication& context) : app(context), info(context.control.ctrlBufInfo) {}
};

bool stopAsked() {
    return linkStopAsked(*vxCurrent());
}

// Waits retryInterval, then goes on; a stop ends the thread.
Step pauseThen(Cycle& cycle, Step next) {
    return vxlb_sleep_watching(cycle.app.control.retryInterval, stopAsked) || stopAsked() ? Step::kEnd : next;
}

// Connects again without a pause. Collectors that go on sending this instance away, all of them or the only
// one, are not run against without one.
Step connectAtOnce(Cycle& cycle) {
    if (++cycle.atOnce <= kMaxAtOnce) return Step::kConnect;
    cycle.atOnce = 0;
    return pauseThen(cycle, Step::kConnect);
}

void setDefaults(VXControlState_t& control) {
    control.lws_active = 1;
    control.ActiveAgentProtocolIndex = kProtocolWSS;
    control.retryCount = kDefaultRetryCount;
    control.retryInterval = kDefaultRetryIntervalUs;
    control.heartBeatMissCount = kDefaultMissCount;
    control.heartBeatRounds = kDefaultHeartbeatRounds;
    control.retryAttempts = 0;
}

// False when neither the environment nor the file gives settings.
bool readSettings(vxApplication& app) {
    app.control.lws_active = 1;
    app.control.ActiveAgentProtocolIndex = kProtocolWSS;
    if (app.VXSys.proxyMode == 0 && app.collectors.clusterMode == 0) clear_vxc_server_setting();
    if (read_env_var() != 0 && read_conf_file() != 0) return false;
    if (app.control.ActiveAgentProtocolIndex == kProtocolTCP) app.control.lws_active = 0;
    const VXGuard lock(app.collectors.mutex);
    app.collectors.activeVXCIndex = 0;  // the records are new
    return true;
}

bool settingsChanged() {
    return check_file_size_of_vxsetting_files(1) == 1;
}

Step outerTop(Cycle& cycle) {
    vxApplication& app = cycle.app;
    if (settingsChanged() && !readSettings(app)) return Step::kEnd;
    app.collectors.activeOnMaster = 0;
    cycle.failedBefore = false;
    return Step::kConnect;
}

// An attempt came to nothing: pauses, counts, and gives the collector up when the retry policy says so.
Step attemptFailed(Cycle& cycle) {
    VXControlState_t& control = cycle.app.control;
    if (pauseThen(cycle, Step::kConnect) == Step::kEnd) return Step::kEnd;
    ++control.retryAttempts;
    if (control.retryAttempts >= control.retryCount) {
        VX_TRACE(1, kControlThread, kWarning, "[VX DR Feature]; Max number of retry attempt reached");
        control.requestType = kRequestAfterLimit;
        cycle.limitHit = true;
        vxForgetNegotiated();
        return Step::kFailover;
    }
    if (cycle.failedBefore && settingsChanged()) return Step::kFailover;
    cycle.failedBefore = true;
    return Step::kConnect;
}

Step connectFailed(Cycle& cycle, const VXCollectorRecord& record) {
    cycle.app.control.closeCtrlConFlag = 1;
    VX_TRACE(1, kControlThread, kError,
             "[VX DR Feature]; Socket was not created and retry after 60seconds. vxcHost = '%s', vxcPort = "
             "'%d' . Error : '%s'.",
             *record.host ? record.host : "unknown", record.port, cycle.error);
    return attemptFailed(cycle);
}

Step connecting(Cycle& cycle) {
    vxApplication& app = cycle.app;
    if (linkStopAsked(app)) return Step::kEnd;
    app.control.closeCtrlConFlag = 0;
    app.control.lateVerdict = 0;
    VX_TRACE(1, kControlThread, kInfo, "Going to create control connection with VXC");
    const VXCollectorRecord record =
        std::exchange(cycle.sameCollector, false) ? vxKeepEndpoint() : vxChooseEndpoint(cycle.limitHit);
    VX_TRACE(1, kControlThread, kInfo, "Active Vexalines server (VXC) [host|port] = [%s|%d].", record.host,
             record.port);
    closeControlConnection(app);  // whatever road led here, before its pool goes
    cycle.pool = VXPool(nullptr);
    if (!create_control_conn(record, cycle.pool.get(), cycle.error)) return connectFailed(cycle, record);
    cycle.limitHit = false;
    if (!app.control.lws_active) get_ip_and_port();
    if (!linkStopAsked(app)) return Step::kAnnounce;
    control_connection_cleanup();
    return Step::kEnd;
}

Step announcing(Cycle& cycle) {
    vxApplication& app = cycle.app;
    if (send_control_con_req_msg_to_vxc()) {
        VX_TRACE(1, kControlThread, kError,
                 "controlBreak Going to close control connection with server if "
                 "send_control_con_req_msg_to_vxc ==FAIL [Destination | Port] = ['%s' | '%d']",
                 app.control.destinationIP, app.control.destinationPort);
        control_connection_cleanup();
        VX_TRACE(1, kControlThread, kInfo, "Control connection was closed");
        cycle.limitHit = app.collectors.activeOnMaster != 0;
        return pauseThen(cycle, Step::kFailover);
    }
    if (app.control.lws_active) get_ip_and_port();
    noteConnection(app);
    controlSockBufReset(app);
    return Step::kReply;
}

Step replyRefused(Cycle& cycle) {
    vxApplication& app = cycle.app;
    VX_TRACE(1, kControlThread, kError, "Unexpected response received | Response = %s",
             cycle.info.read_socket_buf);
    if (!app.collectors.dr_switch_pending) return pauseThen(cycle, Step::kFailover);
    VX_TRACE(1, kControlThread, kInfo,
             "[VX DR Feature]; Received DR status 0. Going to close the control connection from Master VX "
             "Collector %s:%d and the source %s:%d",
             app.control.destinationIP, app.control.destinationPort, app.VXBCISetting.controlSourceIP,
             app.VXBCISetting.controlSourcePort.load());
    app.control.closeCtrlConFlag = 1;
    control_connection_cleanup();
    return connectAtOnce(cycle);
}

// The road behind a verdict on the reply, at once or from within the read loop.
Step afterVerdict(Cycle& cycle, int verdict) {
    if (verdict == kReplyRefused) return replyRefused(cycle);
    if (verdict != kReplyChangeProtocol) return Step::kRun;
    setConnectionChannel();
    VX_TRACE(1, kControlThread, kInfo, "Changing protocol");
    cycle.sameCollector = true;
    return connectAtOnce(cycle);
}

int receiveReply(Cycle& cycle) {
    if (!cycle.app.control.lws_active) return rec_control_con_rep_msg_from_vxc(&cycle.info);
    if (rec_control_conn_response_lws(&cycle.info) != 0) return kReplyRefused;
    return handle_vxc_con_res_msg(&cycle.info);
}

// Something of use: a connection that still stands, or the name of the collector to go to.
Step replying(Cycle& cycle) {
    const vxApplication& app = cycle.app;
    const bool atSaas = vxCollectorInUse().isSaas != 0;
    const int verdict = receiveReply(cycle);
    const bool stands = app.control.controlSocket.get() || app.control.controlWsi;
    cycle.answered = stands || (atSaas && !vxCollectorInUse().isSaas);
    return afterVerdict(cycle, verdict);
}

Step connectionLost(Cycle& cycle) {
    vxApplication& app = cycle.app;
    VX_TRACE(1, kControlThread, kInfo,
             "[VX DR Feature]; Exit from select call and going to close the control connection from VX "
             "Collector %s:%d and the source %s:%d",
             app.control.destinationIP, app.control.destinationPort, app.VXBCISetting.controlSourceIP,
             app.VXBCISetting.controlSourcePort.load());
    app.control.closeCtrlConFlag = 1;
    control_connection_cleanup();
    VX_TRACE(1, kControlThread, kError,
             "controlBreak Control Socket was cleaned with %s:%d server due to  "
             "handle_msg_from_vxc(&ctrlBufInfo) == FAIL",
             app.control.destinationIP, app.control.destinationPort);
    // Who takes connections and never answers them is as good as gone.
    return cycle.answered ? pauseThen(cycle, Step::kConnect) : attemptFailed(cycle);
}

Step loopEnded(Cycle& cycle) {
    vxApplication& app = cycle.app;
    if (proxyStopFlag) return Step::kEnd;
    if (!app.identity.udpTimeoutFlag) return connectionLost(cycle);
    app.control.closeCtrlConFlag = 1;
    control_connection_cleanup();
    VX_TRACE(1, kControlThread, kError,
             "controlBreak Control Socket was cleaned with %s:%d server due to  UDP timeout",
             app.control.destinationIP, app.control.destinationPort);
    return Step::kEnd;
}

Step running(Cycle& cycle) {
    VXControlState_t& control = cycle.app.control;
    if (cycle.answered) control.requestType = 0;  // told: a later connect is an ordinary one again
    control.lastHeartBeatTime = vxlb_steady_ms();
    const int result = handle_msg_from_vxc_lws(&cycle.info);
    if (control.lateVerdict != 0) return afterVerdict(cycle, control.lateVerdict);
    cycle.atOnce = 0;
    return result != 0 ? connectionLost(cycle) : loopEnded(cycle);
}

Step failingOver(Cycle& cycle) {
    const VXCollectors_t& collectors = cycle.app.collectors;
    if (collectors.dr_enabled && collectors.clusterMode == 0) {
        VX_TRACE(1, kControlThread, kInfo, "[VX DR Feature]; Going to search for backup VXC info");
        connection_retry_failed();
    }
    return Step::kOuterTop;
}

Step take(Step step, Cycle& cycle) {
    switch (step) {
        case Step::kOuterTop:
            return outerTop(cycle);
        case Step::kConnect:
            return connecting(cycle);
        case Step::kAnnounce:
            return announcing(cycle);
        case Step::kReply:
            return replying(cycle);
        case Step::kRun:
            return running(cycle);
        case Step::kFailover:
            return failingOver(cycle);
        default:
            return Step::kEnd;
    }
}

void runCycle(vxApplication& app) {
    Cycle cycle(app);
    for (Step step = Step::kOuterTop; step != Step::kEnd;) step = take(step, cycle);
    // With a plain stop of the service the run stands: its data thread sends what it holds.
    closeControlConnection(app);
    app.control.proxyStopRequested = 0;
}

// A joinable thread in a pool of its own, so that any number of starts has the memory of one.
apr_status_t launch(vxApplication& app) {
    VXControlState_t& control = app.control;
    apr_threadattr_t* attributes = nullptr;
    if (apr_pool_create(&control.threadPool, app.pool) != APR_SUCCESS) return APR_ENOPOOL;
    const apr_status_t status = apr_threadattr_create(&attributes, control.threadPool);
    if (status != APR_SUCCESS) return status;
    return vxlb_thread_create(&control.controlThread, attributes, control_thread_entry_fun, &app,
                              control.threadPool);
}

}  // namespace

void* control_thread_entry_fun(apr_thread_t*, void* application) {
    vxApplication& app = *static_cast<vxApplication*>(application);
    vxSetCurrent(&app);
    app.control.controlThreadId = vx_platform_thread_id();
    VX_TRACE(1, kControlThread, kInfo, "saasMode '%d', vxProxyMode '%d', proxyServerFlag ='%d'",
             app.VXBCISetting.saasMode, app.VXSys.proxyMode, proxyServerFlag.load());
    setDefaults(app.control);
    app.collectors.activeOnMaster = 0;
    if (!app.control.ctrlBufInfo.read_socket_buf) controlSockBufInit(app);
    if (!app.control.ctrlBufInfo.read_socket_buf || !readSettings(app)) {
        VX_TRACE(1, kControlThread, kError, "Control thread ends: no settings could be read");
    } else {
        app.control.retryAttempts = 0;
        runCycle(app);
    }
    if (app.identity.udpTimeoutFlag) VX_UPCALL(freeUDPConnections, &app);  // silent: the link ends for good
    app.control.controlThreadId = 0;  // the last access: the next thread may start now
    return nullptr;
}

void vxJoinControlThread(vxApplication& app) {
    VXControlState_t& control = app.control;
    apr_status_t result = APR_SUCCESS;
    if (control.controlThread) apr_thread_join(&result, control.controlThread);
    control.controlThread = nullptr;
    if (control.threadPool) apr_pool_destroy(control.threadPool);
    control.threadPool = nullptr;
}

int vxStartControlThread(vxApplication* app) {
    VXControlState_t& control = app->control;
    vxJoinControlThread(*app);
    control.controlThreadId = kThreadStarting;
    const apr_status_t status = launch(*app);
    if (status == APR_SUCCESS) {
        VX_TRACE(1, kControlThread, kInfo, "Control thread created successfully. ThreadId - '%lld'",
                 static_cast<long long>(control.controlThreadId.load()));
        return 0;
    }
    control.controlThread = nullptr;  // there is none to join, whatever the call left
    control.controlThreadId = 0;
    char error[kSockErrorSize];
    VX_TRACE(1, kControlThread, kError, "Error in creating control thread... '%s'",
             apr_strerror(status, error, sizeof(error)));
    return -1;
}

}  // namespace vx
