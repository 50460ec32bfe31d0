#include "commonlibc/control_lws.h"

#include <algorithm>
#include <chrono>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/control_lines.h"
#include "commonlibc/control_loop.h"
#include "commonlibc/control_outbox.h"
#include "commonlibc/lws_connection.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

using WaitClock = std::chrono::steady_clock;
constexpr std::int64_t kStepUs = 1000000;
constexpr std::int64_t kUnansweredMs = 60000;
constexpr int kSilentMinutes = 10;
constexpr std::int64_t kSilentMs = std::int64_t{kSilentMinutes} * 60000;

VXLwsConnection* connectionOf(const vxApplication& app) {
    return app.control.controlWsi.load(std::memory_order_acquire);
}

// While it lives, other threads may leave texts for the connection.
class OpenOutbox {
public:
    OpenOutbox(vxApplication& app, VXLwsConnection& connection) : app_(app) {
        vxOutboxOpenLws(app, connection);
    }
    ~OpenOutbox() { vxOutboxClose(app_); }
    OpenOutbox(const OpenOutbox&) = delete;
    OpenOutbox& operator=(const OpenOutbox&) = delete;

private:
    vxApplication& app_;
};

// An order ends the loop: the instance's, the service's, or that of silent agents.
bool loopMustEnd(const vxApplication& app) {
    return linkStopAsked(app) || app.identity.udpTimeoutFlag;
}

bool orderedClosed(const vxApplication& app) {
    if (app.control.closeCtrlConFlag != 1) return false;
    VX_TRACE(1, kControlThread, kInfo, "closeCtrlConFlag is set to 1");
    return true;
}

bool giveUp(vxApplication& app) {
    app.control.heartBeatSent = 0;
    app.collectors.dr_switch_pending = 1;
    return true;
}

bool heartbeatsUnanswered(vxApplication& app) {
    const VXControlState_t& control = app.control;
    if (control.heartBeatSent < control.heartBeatMissCount) return false;
    const auto silence = static_cast<long long>(vxlb_steady_ms() - control.lastHeartBeatTime);
    if (silence <= kUnansweredMs) {
        VX_TRACE(1, kControlThread, kInfo, "heartbeat threshold reaches before time %lld", silence);
        return false;
    }
    VX_TRACE(1, kControlThread, kError, "heartbeat count reaches to the threshold = %d total %d timeout %lld",
             control.heartBeatSent, control.heartBeatMissCount, silence);
    return giveUp(app);
}

bool silentTooLong(vxApplication& app) {
    const std::int64_t silence = vxlb_steady_ms() - app.control.lastHeartBeatTime, now = vxlb_now_ms();
    if (silence <= kSilentMs) return false;
    VX_TRACE(1, kControlThread, kError,
             "No response received from VXC in last %d minutes. Last message  time %ld,  current time %ld, "
             "difference %d(seconds). Connection will be closed and retried.",
             kSilentMinutes, static_cast<long>(now - silence), static_cast<long>(now),
             static_cast<int>(silence / 1000));
    return giveUp(app);
}

// The whole poll time in steps; ends early with bytes, the connection's end or an order.
void waitForBytes(const vxApplication& app, VXLwsConnection& connection) {
    const std::int64_t pollUs = app.control.pollTimeUs ? app.control.pollTimeUs : kControlPollUs;
    const auto end = WaitClock::now() + std::chrono::microseconds(pollUs);
    for (std::int64_t left = pollUs; left > 0 && !vxLwsReadable(connection);
         left = std::chrono::duration_cast<std::chrono::microseconds>(end - WaitClock::now()).count()) {
        if (loopMustEnd(app) || app.control.closeCtrlConFlag || !send_pending_control_data()) return;
        vxLwsTurn(connection, std::min(left, kStepUs));
    }
}

// False when the connection is to go.
bool idleRound(vxApplication& app, std::int32_t& idleRounds) {
    if (silentTooLong(app)) return false;
    if (idleRounds >= app.control.heartBeatRounds) {
        send_control_conn_heartbeat_to_vxc();
        idleRounds = 0;
    }
    ++idleRounds;
    return true;
}

// False when the connection is to go.
bool oneRound(vxApplication& app, VXLwsConnection& connection, ctrlBufInfo_t* info,
              std::int32_t& idleRounds) {
    if (orderedClosed(app) || heartbeatsUnanswered(app)) return false;
    waitForBytes(app, connection);
    if (loopMustEnd(app) || app.control.closeCtrlConFlag) return true;
    return vxLwsReadable(connection) ? process_message_from_vxc(info) == 0 : idleRound(app, idleRounds);
}

}  // namespace

int handle_msg_from_vxc_lws(ctrlBufInfo_t* info) {
    const vxApplication& app = *vxCurrent();
    if (!app.control.lws_active) return handle_msg_from_vxc(info);
    if (!connectionOf(app)) return 1;  // refused: what else its collector has said is not for us
    refreshBuild();
    processControlConnectionMessage(info);  // what arrived with the reply
    return app.control.lateVerdict != 0 ? 1 : start_control_connection_service(info);
}

int start_control_connection_service(ctrlBufInfo_t* info) {
    vxApplication& app = *vxCurrent();
    VXLwsConnection* connection = connectionOf(app);
    if (!connection) return 1;
    const OpenOutbox outbox(app, *connection);
    std::int32_t idleRounds = 0;
    while (!loopMustEnd(app))
        if (!connectionOf(app) || !oneRound(app, *connection, info, idleRounds)) return 1;
    return app.control.proxyStopRequested ? 1 : 0;
}

int process_message_from_vxc(ctrlBufInfo_t* info) {
    vxCurrent()->control.lastHeartBeatTime = vxlb_steady_ms();
    return read_msg_from_vxc(info);
}

}  // namespace vx
