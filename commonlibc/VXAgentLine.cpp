#include "commonlibc/VXAgentLine.h"

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "commonlibc/VXAgentWs.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::chrono::milliseconds kTurnStep{1};

// The turn to send to a process. Other senders are waited for, too: a slow agent holds nobody longer than
// one message's time.
class SendTurn {
public:
    SendTurn(apr_thread_mutex_t* mutex, VXSendLimit& limit) : mutex_(mutex), taken_(!mutex || take()) {
        const auto before = VXSendLimit::Clock::now();
        while (!taken_ && !limit.over()) {
            std::this_thread::sleep_for(kTurnStep);
            const auto waited = VXSendLimit::Clock::now() - before;
            taken_ = take();
            if (taken_) limit.waits -= std::chrono::duration_cast<std::chrono::microseconds>(waited);
        }
    }
    ~SendTurn() {
        if (mutex_ && taken_) apr_thread_mutex_unlock(mutex_);
    }
    SendTurn(const SendTurn&) = delete;
    SendTurn& operator=(const SendTurn&) = delete;

    bool taken() const { return taken_; }

private:
    bool take() const { return apr_thread_mutex_trylock(mutex_) == APR_SUCCESS; }

    apr_thread_mutex_t* mutex_;
    bool taken_;
};

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

long long tracedPid(const processInfo_t& process) {
    return static_cast<long long>(process.pid.load(std::memory_order_relaxed));
}

// The send mutex is held: the connection stays.
int queueForAgent(const processInfo_t& process, VXAgentWs& record, const char* data, std::size_t length) {
    if (send_on_wsi(data, record, length) == 0) return 0;
    VX_TRACE(1, kControlThread, kWarning,
             "Message of %zu bytes to agent process %lld was not taken, too much waits for it, connection "
             "given up",
             length, tracedPid(process));
    return -1;
}

}  // namespace

int vxSendToAgent(processInfo_t& process, const char* data, std::size_t length) {
    VXSendLimit limit(kMessageTime);
    return vxSendToAgent(process, data, length, limit);
}

int vxSendToAgent(processInfo_t& process, const char* data, std::size_t length, VXSendLimit& limit) {
    // Until the end, since a record is given to another process once the turn is free: what is shut down has
    // to be the connection that failed.
    const SendTurn turn(process.sendMutex, limit);
    VXAgentWs* record = turn.taken() ? process.controlWs.load(std::memory_order_acquire) : nullptr;
    if (record) return queueForAgent(process, *record, data, length);
    apr_socket_t* socket = process.control.get();
    if (!socket) return -1;
    if (turn.taken() && vxlb_send_within(vxlb_socket_fd(socket), data, length, limit)) return 0;
    vxlb_shared_shutdown(process.control, socket);
    VX_TRACE(1, kControlThread, kWarning,
             "Message of %zu bytes to agent process %lld was not taken in time, connection given up", length,
             tracedPid(process));
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
        if (process && vxHasControl(*process) &&
            vxSendToAgent(*process, framed.text.get(), framed.length) == 0)
            ++reached;
    }
    return reached;
}

}  // namespace vx
