#include "commonlibc/proxyServer/vx_proxy_pending.h"

#include <algorithm>
#include <vector>

#include "commonlibc/proxyServer/vx_proxy_poll.h"
#include "commonlibc/proxyServer/vx_proxy_read.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

struct Pending {
    apr_socket_t* socket;
    std::int64_t sinceUs;  // accepted, or put among the unknown
};
using PendingList = std::vector<Pending>;  // oldest first

struct Lists {
    PendingList silent, unknown;
};
Lists& lists() {
    static auto& both = *new Lists;
    return both;
}

void forget(PendingList& list, const apr_socket_t* socket) {
    const auto at =
        std::find_if(list.begin(), list.end(), [&](const Pending& p) { return p.socket == socket; });
    if (at != list.end()) list.erase(at);
}

bool isOld(const Pending& pending, std::int64_t nowUs) {
    return nowUs - pending.sinceUs >= kUnknownTimeUs;
}

// The oldest silent connection gives way when the pollset is full.
void makeRoom(std::int64_t nowUs) {
    PendingList& silent = lists().silent;
    if (VXProxy.polledSockets < kPollsetSize || silent.empty() || !isOld(silent.front(), nowUs)) return;
    ++VXProxy.socketsRefused;
    vxPendingGone(silent.front().socket);
}

void watchUnknown(apr_socket_t* socket) {
    PendingList& unknown = lists().unknown;
    if (unknown.size() >= kPollsetSize) {
        cleanAndRemoveSocket(unknown.front().socket, false);
        unknown.erase(unknown.begin());
        ++VXProxy.socketsRefused;
    }
    unknown.push_back({socket, vxlb_steady_us()});
}

void closeUnread(apr_socket_t* socket, const epollPtr_t* address) {
    const VXPeer peer(socket);
    if (address)
        VX_TRACE(1, kControlThread, kError, "Read Failed due to connection closed [pid = %d] ['%s':'%d'].",
                 static_cast<int>(processAt(*instanceAt(address->appIndex), address->procIndex)->pid.load()),
                 peer.ip(), peer.port());
    else
        VX_TRACE(1, kControlThread, kError, "Read Failed due to connection closed ['%s':'%d'].", peer.ip(),
                 peer.port());
    cleanAndRemoveSocket(socket, false);
}

bool peerGone(apr_socket_t* socket) {
    int atEnd = 0;
    return apr_socket_atreadeof(socket, &atEnd) != APR_SUCCESS || atEnd;
}

}  // namespace

void vxPendingAccepted(apr_socket_t* socket) {
    const std::int64_t nowUs = vxlb_steady_us();
    makeRoom(nowUs);
    if (addSocketInEpoll(socket, &vxUnidentified))
        lists().silent.push_back({socket, nowUs});
    else
        cleanAndRemoveSocket(socket, false);
}

void vxPendingReadable(apr_socket_t* socket) {
    // Out of the pollset first: an identified connection comes back with its process's address.
    vxRemoveFromPoll(socket);
    forget(lists().silent, socket);
    epollPtr_t* address = nullptr;
    const int result = readMessageFromSocket(socket, VXProxy.controlBuf, &address);
    if (vxSocketClosed(socket) || (result == kReadDone && address)) return;
    if (result == kReadNothing) {
        vxPendingAccepted(socket);
    } else if (result == kReadDone) {
        watchUnknown(socket);
    } else {
        closeUnread(socket, address);
    }
}

void vxPendingGone(apr_socket_t* socket) {
    forget(lists().silent, socket);
    cleanAndRemoveSocket(socket, true);
}

void vxPendingLook() {
    PendingList& unknown = lists().unknown;
    if (unknown.empty()) return;
    const std::int64_t nowUs = vxlb_steady_us();
    const auto ended = [&](Pending& pending) {
        if (!isOld(pending, nowUs) && !peerGone(pending.socket)) return false;
        cleanAndRemoveSocket(pending.socket, false);
        return true;
    };
    unknown.erase(std::remove_if(unknown.begin(), unknown.end(), ended), unknown.end());
}

std::size_t vxPendingCount() {
    return lists().silent.size() + lists().unknown.size();
}

}  // namespace vx
