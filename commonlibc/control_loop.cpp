#include "commonlibc/control_loop.h"

#include <apr_errno.h>
#include <apr_poll.h>

#include <algorithm>
#include <chrono>

#include "commonlibc/ServerStop.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_buffer.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/control_lines.h"
#include "commonlibc/control_outbox.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::chrono::microseconds kPollStep{1000000};
constexpr std::int64_t kErrorPauseUs = 10000;
constexpr apr_int16_t kWatched = APR_POLLIN | APR_POLLERR | APR_POLLHUP | APR_POLLNVAL;

using WaitClock = std::chrono::steady_clock;

const char* errorText(apr_status_t status, char (&buffer)[kSockErrorSize]) {
    return apr_strerror(status, buffer, sizeof(buffer));
}

// The connection's socket, watched in a pool of this connection. Other threads may wake the wait as long as
// the outbox names its pollset.
class SocketWatch {
public:
    explicit SocketWatch(vxApplication& app) : app_(app) {}
    ~SocketWatch() {
        if (set_) vxOutboxClose(app_);
    }
    SocketWatch(const SocketWatch&) = delete;
    SocketWatch& operator=(const SocketWatch&) = delete;

    // False when it could not be made (traced).
    bool open(apr_socket_t* socket) {
        char error[kSockErrorSize];
        apr_pollset_t* set = nullptr;
        apr_status_t status = apr_pollset_create(&set, 1, pool_.get(), APR_POLLSET_WAKEABLE);
        if (status != APR_SUCCESS) {
            VX_TRACE(1, kControlThread, kError,
                     "handle_msg_from_vxc check: Error in creating poll. Error: %s\n",
                     errorText(status, error));
            return false;
        }
        entry_.desc_type = APR_POLL_SOCKET;
        entry_.reqevents = kWatched;
        entry_.desc.s = socket;
        status = apr_pollset_add(set, &entry_);
        if (status != APR_SUCCESS) {
            VX_TRACE(1, kControlThread, kError,
                     "handle_msg_from_vxc check:Could not add fd to poll. Error: %s\n",
                     errorText(status, error));
            return false;
        }
        set_ = set;
        vxOutboxOpen(app_, set_);
        return true;
    }
    // APR_SUCCESS when the socket has something to be read, or is at its end. APR_TIMEUP. APR_EINTR when it
    // was woken, or has room for what waits in the outbox. The poll's error.
    apr_status_t wait(std::chrono::microseconds time) {
        apr_int32_t count = 0;
        const apr_pollfd_t* signalled = nullptr;
        const apr_status_t status = apr_pollset_poll(set_, time.count(), &count, &signalled);
        if (status != APR_SUCCESS) return status;
        if (count == 0) return APR_TIMEUP;
        return signalled->rtnevents == APR_POLLOUT ? APR_EINTR : APR_SUCCESS;
    }
    // Sends what the outbox holds, as far as the socket takes it; for the rest the wait ends when there is
    // room. False when the connection is gone.
    bool sendOutbox() {
        const VXOutboxState state = vxOutboxSend(app_);
        return state != VXOutboxState::kBroken && watchRoom(state == VXOutboxState::kWaits);
    }

private:
    bool watchRoom(bool wanted) {
        const auto events = static_cast<apr_int16_t>(wanted ? kWatched | APR_POLLOUT : kWatched);
        if (entry_.reqevents == events) return true;
        apr_pollset_remove(set_, &entry_);
        entry_.reqevents = events;
        return apr_pollset_add(set_, &entry_) == APR_SUCCESS;
    }

    vxApplication& app_;
    VXPool pool_{nullptr};
    apr_pollfd_t entry_{};
    apr_pollset_t* set_ = nullptr;  // ends with the pool
};

enum class Round { kGoOn, kConnectionEnds, kLoopEnds };

// The whole poll time in steps; ends early with bytes, an error or an order. What other threads leave for the
// collector goes out meanwhile and does not count as a sign of life.
apr_status_t waitForBytes(const vxApplication& app, SocketWatch& watch) {
    const std::chrono::microseconds pollTime(app.control.pollTimeUs ? app.control.pollTimeUs
                                                                    : kControlPollUs);
    const auto end = WaitClock::now() + pollTime;
    for (auto left = pollTime; left.count() > 0;
         left = std::chrono::duration_cast<std::chrono::microseconds>(end - WaitClock::now())) {
        if (!watch.sendOutbox()) return APR_SUCCESS;  // the read finds the end
        const apr_status_t status = watch.wait(std::min(kPollStep, left));
        if (!APR_STATUS_IS_TIMEUP(status) && !APR_STATUS_IS_EINTR(status)) return status;
        if (linkStopAsked(app) || app.control.closeCtrlConFlag) return APR_EINTR;
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
    const std::int64_t silence = vxlb_steady_ms() - app.control.lastHeartBeatTime;
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
    if (app.collectors.dr_enabled && idleRounds >= app.control.heartBeatRounds) {
        send_control_conn_heartbeat_to_vxc();
        if (!app.control.controlSocket.get()) return Round::kConnectionEnds;
        idleRounds = 0;
    }
    ++idleRounds;
    return Round::kGoOn;
}

Round oneRound(vxApplication& app, SocketWatch& watch, ctrlBufInfo_t* info, std::int32_t& idleRounds) {
    if (linkStopAsked(app)) return Round::kLoopEnds;
    if (app.control.closeCtrlConFlag == 1 || heartbeatsUnanswered(app)) return Round::kConnectionEnds;
    const apr_status_t status = waitForBytes(app, watch);
    if (APR_STATUS_IS_TIMEUP(status)) return idleRound(app, idleRounds);
    if (status == APR_SUCCESS) {
        app.control.lastHeartBeatTime = vxlb_steady_ms();
        return read_msg_from_vxc(info) == 0 ? Round::kGoOn : Round::kConnectionEnds;
    }
    if (APR_STATUS_IS_EINTR(status)) return Round::kGoOn;
    char error[kSockErrorSize];
    VX_TRACE(2, kControlThread, kError, "VXC select/epoll_wait. Error = %s", errorText(status, error));
    vxlb_sleep_us(kErrorPauseUs);
    return Round::kGoOn;
}

}  // namespace

void refreshBuild() {
    if (setVxBuild() != 0) VX_TRACE(1, kControlThread, kError, "handle_msg_from_vxc check: setVxBuild FAIL");
}

int handle_msg_from_vxc(ctrlBufInfo_t* info) {
    vxApplication& app = *vxCurrent();
    apr_socket_t* socket = app.control.controlSocket.get();
    SocketWatch watch(app);
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
    const int count = fillControlBuffer(info, 0, error);
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
    processControlConnectionMessage(info);
    if (app.control.lateVerdict != 0) return 1;
    if (!app.control.closeCtrlConFlag) return 0;
    VX_TRACE(1, kControlThread, kInfo, "Close ctrl conn flag is enabled. Closing connection.");
    app.control.controlConnClosed = 1;
    return 1;
}

}  // namespace vx
