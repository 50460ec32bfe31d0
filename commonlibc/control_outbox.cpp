#include "commonlibc/control_outbox.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "commonlibc/lws_connection.h"
#include "commonlibc/platform/vx_platform_send.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

// The wait is for the system's poll, so its end is read from the clock that poll goes by.
using WaitClock = std::chrono::steady_clock;
constexpr std::chrono::seconds kFinishTime{30};
constexpr int kWaitStepMs = 100;
constexpr std::int32_t kPart = 65536;  // handed to the system at a time: the mutex is held meanwhile

// For the text and a newline behind it.
bool hasRoom(VXOutbox_t& box, std::size_t length) {
    if ((!box.poll && !box.lws) || length >= static_cast<std::size_t>(kOutboxSize - box.length)) return false;
    if (!box.text) box.text = static_cast<char*>(VXLB_MALLOC(kOutboxSize, "control outbox", -1));
    return box.text != nullptr;
}

void wakeReader(const VXOutbox_t& box) {
    if (box.poll) apr_pollset_wakeup(box.poll);
    if (box.lws) vxLwsWake(*box.lws);
}

// Appends the text. False when it is dropped.
bool take(VXOutbox_t& box, const char* text, std::size_t length) {
    const VXGuard lock(box.mutex);
    if (!hasRoom(box, length)) {
        ++box.dropped;
        return false;
    }
    std::memcpy(box.text + box.length, text, length);
    // One wake-up for what waits: the loop empties the box or waits for room, and then needs none.
    if (box.length == 0) wakeReader(box);
    box.length += static_cast<std::int32_t>(length);
    if (text[length - 1] != '\n') box.text[box.length++] = '\n';
    return true;
}

void open(VXOutbox_t& box, apr_pollset_t* poll, VXLwsConnection* connection) {
    const VXGuard lock(box.mutex);
    box.poll = poll;
    box.lws = connection;
    box.length = 0;
}

void removeFront(VXOutbox_t& box, std::int32_t count) {
    box.length -= count;
    if (box.length > 0) std::memmove(box.text, box.text + count, static_cast<std::size_t>(box.length));
}

// The bytes that the connection took of the next part, -1 when it is gone. Nothing waits: 0, and `left` too.
std::int32_t sendPart(VXControlState_t& control, std::int32_t& left) {
    VXOutbox_t& box = control.outbox;
    const VXGuard lock(box.mutex);
    left = box.length;
    if (left == 0) return 0;
    const std::int32_t part = std::min(left, kPart);
    const std::int64_t taken = box.lws ? vxLwsOffer(*box.lws, box.text, part)
                                       : vx_platform_send_now(vxlb_socket_fd(control.controlSocket.get()),
                                                              box.text, static_cast<std::size_t>(part));
    if (taken < 0) return -1;
    removeFront(box, static_cast<std::int32_t>(taken));
    left = box.length;
    return static_cast<std::int32_t>(taken);
}

void waitForRoom(const VXControlState_t& control) {
    if (VXLwsConnection* connection = control.controlWsi.load(std::memory_order_acquire)) {
        vxLwsTurn(*connection, kWaitStepMs * 1000);
    } else {
        vx_platform_wait_writable(vxlb_socket_fd(control.controlSocket.get()), kWaitStepMs);
    }
}

bool ended(const vxApplication& app) {
    return app.control.closeCtrlConFlag || app.control.proxyStopRequested || proxyStopFlag;
}

}  // namespace

bool vxOutboxPut(vxApplication& app, const char* text, std::size_t length) {
    if (length == 0) return true;
    if (take(app.control.outbox, text, length)) return true;
    VX_TRACE(1, kControlThread, kWarning, "No room for %zu bytes towards VXC, text dropped", length);
    return false;
}

std::int32_t vxOutboxWaiting(vxApplication& app) {
    const VXOutbox_t& box = app.control.outbox;
    const VXGuard lock(box.mutex);
    return box.poll || box.lws ? box.length : -1;
}

void vxOutboxOpen(vxApplication& app, apr_pollset_t* poll) {
    open(app.control.outbox, poll, nullptr);
}

void vxOutboxOpenLws(vxApplication& app, VXLwsConnection& connection) {
    open(app.control.outbox, nullptr, &connection);
}

void vxOutboxClose(vxApplication& app) {
    VXOutbox_t& box = app.control.outbox;
    VXGuard lock(box.mutex);
    const std::int32_t forgotten = box.length;
    box.poll = nullptr;
    box.lws = nullptr;
    box.length = 0;
    lock.unlock();
    if (forgotten > 0)
        VX_TRACE(1, kControlThread, kWarning, "%d bytes for VXC went with the control connection", forgotten);
}

VXOutboxState vxOutboxSend(vxApplication& app) {
    std::int32_t left = 0;
    std::int32_t taken = 0;
    do taken = sendPart(app.control, left);
    while (taken > 0 && left > 0);
    if (taken < 0) return VXOutboxState::kBroken;
    return left > 0 ? VXOutboxState::kWaits : VXOutboxState::kEmpty;
}

int send_pending_control_data() {
    return vxOutboxSend(*vxCurrent()) == VXOutboxState::kBroken ? 0 : 1;
}

bool vxOutboxFinish(vxApplication& app) {
    const auto deadline = WaitClock::now() + kFinishTime;
    VXOutboxState state = vxOutboxSend(app);
    while (state == VXOutboxState::kWaits && !ended(app) && WaitClock::now() < deadline) {
        waitForRoom(app.control);
        state = vxOutboxSend(app);
    }
    return state == VXOutboxState::kEmpty;
}

}  // namespace vx
