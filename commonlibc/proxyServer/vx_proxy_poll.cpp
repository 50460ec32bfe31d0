#include "commonlibc/proxyServer/vx_proxy_poll.h"

#include <apr_errno.h>

#include <utility>
#include <vector>

#include "commonlibc/VXAgentWs.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

epollPtr_t vxUnidentified{-1, -1};

namespace {

constexpr apr_int16_t kWantedEvents = APR_POLLIN | APR_POLLERR | APR_POLLHUP | APR_POLLNVAL;

// Pools of the sockets closed in this round.
std::vector<apr_pool_t*>& closedPools() {
    static auto& pools = *new std::vector<apr_pool_t*>;
    return pools;
}

apr_pollfd_t entryOf(apr_socket_t* socket, epollPtr_t* address) {
    apr_pollfd_t entry{};
    entry.p = VXProxy.listenerPool;
    entry.desc_type = APR_POLL_SOCKET;
    entry.reqevents = kWantedEvents;
    entry.desc.s = socket;
    entry.client_data = address;
    return entry;
}

void beforeClose(apr_socket_t* socket, bool removeFromPoll) {
    if (removeFromPoll) vxRemoveFromPoll(socket);
    const VXPeer peer(socket);
    VX_TRACE(2, kControlThread, kInfo, "'%s:%d' - Connection terminated.", peer.ip(), peer.port());
}

}  // namespace

int vxMakePollset() {
    VXProxy.polledSockets = 0;
    return apr_pollset_create(&VXProxy.pollset, kPollsetSize, VXProxy.listenerPool, APR_POLLSET_WAKEABLE);
}

bool addSocketInEpoll(apr_socket_t* socket, epollPtr_t* address) {
    const VXPeer peer(socket);
    apr_status_t status = APR_ENOMEM;  // what a full pollset answers
    if (VXProxy.pollset && VXProxy.polledSockets < kPollsetSize) {
        const apr_pollfd_t entry = entryOf(socket, address);
        status = apr_pollset_add(VXProxy.pollset, &entry);
    }
    if (status != APR_SUCCESS) {
        char error[kSockErrorSize];
        VX_TRACE(1, kControlThread, kError, "Could not add '%s:%d' to poll. Error: %s", peer.ip(),
                 peer.port(), apr_strerror(status, error, sizeof(error)));
        ++VXProxy.socketsRefused;
        return false;
    }
    ++VXProxy.polledSockets;
    VX_TRACE(2, kControlThread, kInfo, "Successully registered '%s:%d' in epoll.", peer.ip(), peer.port());
    return true;
}

void vxRemoveFromPoll(apr_socket_t* socket) {
    if (!VXProxy.pollset) return;
    const apr_pollfd_t entry = entryOf(socket, nullptr);
    if (apr_pollset_remove(VXProxy.pollset, &entry) == APR_SUCCESS) {
        --VXProxy.polledSockets;
        return;
    }
    const VXPeer peer(socket);
    VX_TRACE(1, kControlThread, kWarning, "Unable to remove '%s:%d' from epoll", peer.ip(), peer.port());
}

void cleanAndRemoveSocket(apr_socket_t*& slot, bool removeFromPoll) {
    apr_socket_t* socket = std::exchange(slot, nullptr);
    if (!socket) return;
    beforeClose(socket, removeFromPoll);
    apr_socket_close(socket);
    closedPools().push_back(apr_socket_pool_get(socket));
}

void cleanAndRemoveSocket(VXSharedSocket& slot, bool removeFromPoll) {
    apr_socket_t* socket = slot.get();
    if (!socket) return;
    beforeClose(socket, removeFromPoll);
    vxlb_shared_close(slot);
    closedPools().push_back(apr_socket_pool_get(socket));
}

bool vxSocketClosed(apr_socket_t* socket) {
    return vxlb_socket_fd(socket) < 0;
}

bool vxConnectionClosed(apr_socket_t* socket, const VXAgentWs* wsi) {
    return wsi ? wsi->closing : vxSocketClosed(socket);
}

void vxEndPollRound() {
    for (apr_pool_t* pool : closedPools()) apr_pool_destroy(pool);
    closedPools().clear();
}

void VXPeer::look() const {
    if (port_ >= 0) return;
    port_ = 0;
    if (wsi_)
        vxAgentWsPeer(*wsi_, ip_, sizeof(ip_), &port_);
    else
        get_dst_addr(socket_, ip_, sizeof(ip_), &port_);
}

const char* VXPeer::ip() const {
    look();
    return ip_;
}

int VXPeer::port() const {
    look();
    return port_;
}

}  // namespace vx
