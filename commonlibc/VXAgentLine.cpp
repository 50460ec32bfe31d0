#include "commonlibc/VXAgentLine.h"

#include <chrono>
#include <cstring>
#include <memory>

#include "commonlibc/platform/vx_platform_send.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

// The wait is for the system's poll, so its end is read from the clock that poll goes by.
using WaitClock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kMessageTime{2000};
constexpr int kWaitStepMs = 100;

// True when every byte was taken before the deadline; one attempt is made even behind it.
bool sendWhole(int descriptor, const char* data, std::size_t length, WaitClock::time_point deadline) {
    while (length > 0) {
        const std::int64_t taken = vx_platform_send_now(descriptor, data, length);
        if (taken < 0) return false;
        data += taken;
        length -= static_cast<std::size_t>(taken);
        if (length > 0 && WaitClock::now() >= deadline) return false;
        if (taken == 0) vx_platform_wait_writable(descriptor, kWaitStepMs);
    }
    return true;
}

struct TextFree {
    void operator()(char* text) const noexcept { VXLB_FREE(text, "relay line", -1); }
};

// A line between two newlines: the first ends whatever stood before it. Null text without memory.
struct FramedLine {
    std::unique_ptr<char, TextFree> text;
    std::size_t length;

    explicit FramedLine(const char* line) : length(std::strlen(line) + 2) {
        text.reset(static_cast<char*>(VXLB_MALLOC(length, "relay line", -1)));
        if (!text) return;
        text.get()[0] = '\n';
        std::memcpy(text.get() + 1, line, length - 2);
        text.get()[length - 1] = '\n';
    }
};

}  // namespace

int vxSendToAgent(processInfo_t& process, const char* data, std::size_t length) {
    // The wait for other senders counts, so that a slow agent holds nobody longer than one message's time.
    const auto deadline = WaitClock::now() + kMessageTime;
    VXGuard lock(process.sendMutex);
    apr_socket_t* socket = process.control.get();
    if (!socket) return -1;
    if (sendWhole(vxlb_socket_fd(socket), data, length, deadline)) return 0;
    VX_TRACE(1, kControlThread, kWarning,
             "Message of %zu bytes to agent process %lld was not taken in time, connection given up", length,
             static_cast<long long>(process.pid.load(std::memory_order_relaxed)));
    vxlb_shared_shutdown(process.control);
    return -1;
}

int vxRelayLine(processInfo_t& process, const char* line) {
    if (!line) return -1;
    const FramedLine framed(line);
    return framed.text ? vxSendToAgent(process, framed.text.get(), framed.length) : -1;
}

int vxRelayToAll(const char* line) {
    const vxApplication* app = vxCurrent();
    if (!app || !line) return 0;
    const FramedLine framed(line);
    if (!framed.text) return 0;
    int reached = 0;
    const std::int32_t count = app->identity.numProcess.load(std::memory_order_acquire);
    for (std::int32_t i = 0; i < count; ++i) {
        processInfo_t* process = processAt(*app, i);
        if (process && process->control.get() &&
            vxSendToAgent(*process, framed.text.get(), framed.length) == 0)
            ++reached;
    }
    return reached;
}

}  // namespace vx
