#include "commonlibc/control_loop.h"

#include <apr_errno.h>
#include <apr_poll.h>

#include <algorithm>

#include "commonlibc/ServerStop.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/control_lines.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::int64_t kPollStepUs = 1000000;
constexpr std::int64_t kErrorPauseUs = 10000;
constexpr apr_int16_t kWatched = APR_POLLIN | APR_POLLERR | APR_POLLHUP | APR_POLLNVAL;

const char* errorText(apr_status_t status, char (&buffer)[kSockErrorSize]) {
    return apr_strerror(status, buffer, sizeof(buffer));
}

// One socket, watched in a pool of this connection.
class SocketWatch {
public:
    // False when it could not be made (traced).
    bool open(apr_socket_t* socket) {
        char error[kSockErrorSize];
        apr_status_t status = apr_pollset_create(&set_, 1, pool_.get(), 0);
        if (status != APR_SUCCESS) {
            VX_TRACE(1, kControlThread, kError,
                     "handle_msg_from_vxc check: Error in creating poll. Error: %s\n",
                     errorText(status, error));
            return false;
        }
        apr_pollfd_t descriptor{};
        descriptor.desc_type = APR_POLL_SOCKET;
        descriptor.reqevents = kWatched;
        descriptor.desc.s = socket;
        status = apr_pollset_add(set_, &descriptor);
        if (status == APR_SUCCESS) return true;
        VX_TRACE(1, kControlThread, kError, "handle_msg_from_vxc check:Could not add fd to poll. Error: %s\n",
                 errorText(status, error));
        return false;
    }
    // APR_SUCCESS when the socket signals, APR_TIMEUP, or the poll's error.
    apr_status_t wait(std::int64_t us) {
        apr_int32_t count = 0;
        const apr_pollfd_t* signalled = nullptr;
        const apr_status_t status = apr_pollset_poll(set_, us, &count, &signalled);
        return status == APR_SUCCESS && count == 0 ? APR_TIMEUP : status;
    }

private:
    VXPool pool_{nullptr};
    apr_pollset_t* set_ = nullptr;  // ends with the pool
};

enum class Round { kGoOn, kConnectionEnds, kLoopEnds };

bool loopMustEnd(const vxApplication& app) {
    return linkStopAsked(app) || app.identity.udpTimeoutFlag;
}

// The whole poll time in steps; ends early with an event, an error or an order.
apr_status_t waitForBytes(const vxApplication& app, SocketWatch& watch) {
    const std::int64_t pollTime = app.control.pollTimeUs ? app.control.pollTimeUs : kControlPollUs;
    const std::int64_t step = std::min(kPollStepUs, pollTime);
    for (std::int64_t waited = 0; waited < pollTime; waited += step) {
        const apr_status_t status = watch.wait(step);
        if (!APR_STATUS_IS_TIMEUP(status)) return status;
        if (loopMustEnd(app) || app.control.closeCtrlConFlag) return APR_EINTR;
    }
    return APR_TIMEUP;
}

bool heartbeatsUnanswered(vxApplication& app) {
    VXControlState_t& control = app.control;
    if (app.VXSys.proxyMode != 0 || control.heartBeatSent < control.heartBeatMissCount) return false;
    VX_TRACE(1, kControlThread, kError, "heartbeat count reaches to the threshold = %d",
             control.heartBeatSent);
    control.heartBeatSent = 0;
    app.collectors.dr_switch_pending = 1;
    return true;
}

// False after too long a silence of the collector.
bool checkVXCAlive(const vxApplication& app) {
    const std::int64_t silence = vxlb_now_ms() - app.control.lastHeartBeatTime;
    const std::int64_t threshold = vx_word_get(app.VXSys.vxcHeartBeatThreshold);
    if (silence < threshold) return true;
    VX_TRACE(
        1, kControlThread, kError,
        "Last Received heartbeat msg time is greater than vxcHeartBeatThreshold.Hence going to closing all "
        "connection. HeartBeatDuration = %lld, vxcHeartBeatThreshold = %lld",
        static_cast<long long>(silence), static_cast<long long>(threshold));
    closeCurrentControlConnection();
    VX_TRACE(1, kControlThread, kInfo, "Close ctrl conn flag is enabled. Closing connection.");
    return false;
}

Round idleRound(const vxApplication& app, std::int32_t& idleRounds) {
    if (!checkVXCAlive(app)) return Round::kConnectionEnds;
    if (app.collectors.dr_enabled && idleRounds == app.control.heartBeatRounds) {
        send_control_conn_heartbeat_to_vxc();
        if (!app.control.controlSocket.get()) return Round::kConnectionEnds;
        idleRounds = 0;
    }
    ++idleRounds;
    return Round::kGoOn;
}

Round oneRound(vxApplication& app, SocketWatch& watch, ctrlBufInfo_t* info, std::int32_t& idleRounds) {
    if (loopMustEnd(app)) return Round::kLoopEnds;
    if (app.control.closeCtrlConFlag == 1 || heartbeatsUnanswered(app)) return Round::kConnectionEnds;
    const apr_status_t status = waitForBytes(app, watch);
    if (APR_STATUS_IS_TIMEUP(status)) return idleRound(app, idleRounds);
    if (status == APR_SUCCESS) {
        app.control.lastHeartBeatTime = vxlb_now_ms();
        return read_msg_from_vxc(info) == 0 ? Round::kGoOn : Round::kConnectionEnds;
    }
    if (APR_STATUS_IS_EINTR(status)) return Round::kGoOn;
    char error[kSockErrorSize];
    VX_TRACE(2, kControlThread, kError, "VXC select/epoll_wait. Error = %s", errorText(status, error));
    vxlb_sleep_us(kErrorPauseUs);
    return Round::kGoOn;
}

void refreshBuild() {
    if (setVxBuild() != 0) VX_TRACE(1, kControlThread, kError, "handle_msg_from_vxc check: setVxBuild FAIL");
}

}  // namespace

int handle_msg_from_vxc_lws(ctrlBufInfo_t* info) {
    if (!vxCurrent()->control.lws_active) return handle_msg_from_vxc(info);
    refreshBuild();
    processControlConnectionMessage(info);
    return VX_UPCALL(start_control_connection_service) != 0 ? 1 : 0;
}

int handle_msg_from_vxc(ctrlBufInfo_t* info) {
    vxApplication& app = *vxCurrent();
    apr_socket_t* socket = app.control.controlSocket.get();
    SocketWatch watch;
    if (!socket || !watch.open(socket)) return 1;
    refreshBuild();
    processControlConnectionMessage(info);  // what arrived with the reply
    if (app.control.lateVerdict != 0) return 1;

    std::int32_t idleRounds = 0;
    Round round = Round::kGoOn;
    while (round == Round::kGoOn) round = oneRound(app, watch, info, idleRounds);
    if (round == Round::kConnectionEnds) return 1;
    return app.control.proxyStopRequested ? 1 : 0;
}

int read_msg_from_vxc(ctrlBufInfo_t* info) {
    vxApplication& app = *vxCurrent();
    char error[kSockErrorSize] = "";
    const int count =
        vxlb_read_bytes(app.control.controlSocket.get(), info->read_socket_buf + info->writeOffset,
                        kControlBufSize - info->writeOffset + 1, error);
    if (count == kSockClosed) {
        app.control.controlConnClosed = 1;
        VX_TRACE(1, kControlThread, kError,
                 "Control connection closed while reading data from VXC. Error Buffer = %s", error);
        return 1;
    }
    if (count < 0) {
        VX_TRACE(1, kControlThread, kError,
                 "Received partial line from vxc. Hence Returning. Error Buffer = %s", error);
        return 1;
    }
    info->readBytes += count;
    info->writeOffset += count;
    processControlConnectionMessage(info);
    if (app.control.lateVerdict != 0) return 1;
    if (!app.control.closeCtrlConFlag) return 0;
    VX_TRACE(1, kControlThread, kInfo, "Close ctrl conn flag is enabled. Closing connection.");
    app.control.controlConnClosed = 1;
    return 1;
}

}  // namespace vx
