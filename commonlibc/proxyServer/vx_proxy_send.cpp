#include "commonlibc/proxyServer/vx_proxy_send.h"

#include <algorithm>

#include "commonlibc/VXAgentLine.h"
#include "commonlibc/lws_handler.h"
#include "commonlibc/vxlb_sock.h"

namespace vx {

namespace {

using Clock = VXSendLimit::Clock;
constexpr std::chrono::microseconds kMostWaits = kMessageTime;
constexpr int kGrowsBy = 10;  // a tenth of the time that passes
constexpr std::chrono::microseconds kTurns{1000};

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

int vxListenerSendDiscovery(const char* data, std::size_t length) {
    return sendWithinAllowance([&](VXSendLimit& limit) {
        const auto before = Clock::now();
        const std::chrono::microseconds most = std::max(limit.waits, std::chrono::microseconds{0}) + kTurns;
        const int result =
            send_discovery_data_via_lws_socket(data, static_cast<std::int32_t>(length), most.count());
        const auto spent = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - before);
        limit.waits -= std::max(spent - kTurns, std::chrono::microseconds{0});
        return result == 0 ? 0 : -1;
    });
}

}  // namespace vx
