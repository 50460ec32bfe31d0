#include "commonlibc/proxyServer/vx_proxy_server.h"

#include <apr_errno.h>

#include "commonlibc/proxyServer/vx_proxy_events.h"
#include "commonlibc/proxyServer/vx_proxy_listener.h"
#include "commonlibc/proxyServer/vx_proxy_pending.h"
#include "commonlibc/proxyServer/vx_proxy_poll.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::int64_t kPollUs = 10000000;
constexpr std::int64_t kAcceptPauseUs = 1000000;

// When accepting goes on after the system ran out of descriptors, 0 while it does.
std::int64_t acceptAgainUs = 0;

bool bindPort(char* reason) {
    VXProxy.listenSocket = create_socket_and_bind(VXProxy.proxyPort, VXProxy.listenerPool, reason);
    if (VXProxy.listenSocket) return true;
    VX_TRACE(1, kControlThread, kError, "Proxy Server Failed to listen on port %d. Error: '%s'",
             VXProxy.proxyPort, reason);
    return false;
}

void noteBoundAddress() {
    int port = 0;
    if (get_src_addr(VXProxy.listenSocket, VXProxy.proxyHost, sizeof(VXProxy.proxyHost), &port) == 0)
        VXProxy.proxyPort = port;
    apr_socket_timeout_set(VXProxy.listenSocket, 0);  // accepting never waits
    VX_TRACE(1, kControlThread, kInfo, "Proxy Started at '%s:%d'", VXProxy.proxyHost, VXProxy.proxyPort);
}

bool makePollset() {
    const apr_status_t status = vxMakePollset();
    if (status == APR_SUCCESS && addSocketInEpoll(VXProxy.listenSocket, nullptr)) return true;
    char error[kSockErrorSize];
    VX_TRACE(1, kControlThread, kError, "Error in creating poll. Error: %s\n",
             apr_strerror(status, error, sizeof(error)));
    return false;
}

bool startListener() {
    if (!vxListenerStart() || !vxListenerBind(bindPort)) return false;
    noteBoundAddress();
    return makePollset();
}

void wakePoll() {
    apr_pollset_wakeup(VXProxy.pollset);
}

// Out of descriptors: the listening socket leaves the pollset for a while, or it would wake every round.
void pauseAccepting() {
    vxRemoveFromPoll(VXProxy.listenSocket);
    acceptAgainUs = vxlb_steady_us() + kAcceptPauseUs;
}

void resumeAccepting() {
    if (acceptAgainUs == 0 || vxlb_steady_us() < acceptAgainUs) return;
    if (addSocketInEpoll(VXProxy.listenSocket, nullptr)) acceptAgainUs = 0;
}

void acceptFailed(apr_status_t status) {
    if (APR_STATUS_IS_EAGAIN(status) || APR_STATUS_IS_EINTR(status)) return;
    char error[kSockErrorSize];
    VX_TRACE(1, kControlThread, kError, "Error in accepting connection : rv = %d , Error msg - '%s'", status,
             apr_strerror(status, error, sizeof(error)));
    if (!APR_STATUS_IS_ECONNABORTED(status)) pauseAccepting();
}

void acceptNewConnection() {
    apr_pool_t* pool = nullptr;
    if (apr_pool_create(&pool, VXProxy.listenerPool) != APR_SUCCESS) return;
    apr_socket_t* socket = nullptr;
    const apr_status_t status = apr_socket_accept(&socket, VXProxy.listenSocket, pool);
    if (status != APR_SUCCESS) {
        apr_pool_destroy(pool);
        acceptFailed(status);
        return;
    }
    apr_socket_opt_set(socket, APR_SO_KEEPALIVE, 1);  // a peer that went without a word is found out
    const VXPeer peer(socket);
    VX_TRACE(3, kControlThread, kInfo, "Connection received from '%s:%d' ", peer.ip(), peer.port());
    vxPendingAccepted(socket);
}

// Its first line, or its end without one.
void serveSilent(const apr_pollfd_t& event) {
    if (event.rtnevents & APR_POLLIN) {
        vxPendingReadable(event.desc.s);
        return;
    }
    const VXPeer peer(event.desc.s);
    VX_TRACE(2, kControlThread, kInfo, "Received event on, '%s:%d'. Closed the connection.", peer.ip(),
             peer.port());
    vxPendingGone(event.desc.s);
}

// The number of events; a time-out, a wake-up and an error have none.
int waitForEvents(const apr_pollfd_t*& events) {
    apr_int32_t count = 0;
    VX_TRACE(3, kControlThread, kInfo, "Epoll set with 10 sec timeout.");
    const apr_status_t status =
        apr_pollset_poll(VXProxy.pollset, acceptAgainUs ? kAcceptPauseUs : kPollUs, &count, &events);
    VX_TRACE(3, kControlThread, kInfo, "Returned epoll events = %d", count);
    if (status == APR_SUCCESS && count > 0) return count;
    char error[kSockErrorSize];
    VX_TRACE(3, kControlThread, kInfo, "Agent select/epoll_wait. Error = %s\n",
             apr_strerror(status, error, sizeof(error)));
    return 0;
}

void dispatch(const apr_pollfd_t* events, int count) {
    for (int i = 0; i < count; ++i) {
        const apr_pollfd_t& event = events[i];
        if (vxSocketClosed(event.desc.s)) continue;  // by an earlier event of this round
        if (event.desc.s == VXProxy.listenSocket)
            acceptNewConnection();
        else if (event.client_data == &vxUnidentified)
            serveSilent(event);
        else
            vxServeConnection(event, i, count);
    }
}

}  // namespace

void vxProxyInit() {
    if (!startListener()) {
        vxListenerAbandon();
        return;
    }
    vxListenerRuns(wakePoll);
    while (!vxListenerStopOrdered()) {
        const apr_pollfd_t* events = nullptr;
        const int count = waitForEvents(events);
        vxListenerOperations();
        dispatch(events, count);
        vxPendingLook();
        vxEndPollRound();  // behind everything that may name a socket of this round
        resumeAccepting();
        vxListenerWork();
    }
    vxListenerEnds();
}

}  // namespace vx
