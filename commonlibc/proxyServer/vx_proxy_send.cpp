#include "commonlibc/proxyServer/vx_proxy_send.h"

#include <algorithm>

#include "commonlibc/VXAgentLine.h"
#include "commonlibc/vxlb_sock.h"

namespace vx {

namespace {

using Clock = VXSendLimit::Clock;
constexpr std::chrono::microseconds kMostWaits = kMessageTime;
constexpr int kGrowsBy = 10;  // a tenth of the time that passes

// What the listener may still spend in waiting.
struct Allowance {
    std::chrono::microseconds left = kMostWaits;
    Clock::time_point since = Clock::now();

    void grow() {
        const auto now = Clock::now();
        left += std::chrono::duration_cast<std::chrono::microseconds>(now - since) / kGrowsBy;
        left = std::min(left, kMostWaits);
        since = now;
    }
};

template <class Send>
int sendWithinAllowance(Send send) {
    static Allowance allowance;
    allowance.grow();
    VXSendLimit limit(kMessageTime);
    limit.waits = allowance.left;
    const int result = send(limit);
    allowance.left = limit.waits;
    return result;
}

}  // namespace

int vxListenerSend(processInfo_t& process, const char* data, std::size_t length) {
    return sendWithinAllowance(
        [&](VXSendLimit& limit) { return vxSendToAgent(process, data, length, limit); });
}

int vxListenerSend(apr_socket_t* socket, const char* data, std::size_t length) {
    return sendWithinAllowance([&](VXSendLimit& limit) {
        return vxlb_send_within(vxlb_socket_fd(socket), data, length, limit) ? 0 : -1;
    });
}

}  // namespace vx
