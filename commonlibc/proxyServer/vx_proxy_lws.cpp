#include "commonlibc/proxyServer/vx_proxy_lws.h"

#include <libwebsockets.h>

#include <cstdio>
#include <utility>

#include "commonlibc/VXAgentWs.h"
#include "commonlibc/lws_context.h"
#include "commonlibc/proxyServer/vx_proxy_listener.h"
#include "commonlibc/proxyServer/vx_proxy_lws_accept.h"
#include "commonlibc/proxyServer/vx_proxy_lws_callbacks.h"
#include "commonlibc/proxyServer/vx_proxy_lws_certificate.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr lws_usec_t kTurnUs = 10000000;
constexpr unsigned kOwnDescriptors = 3;  // of the library: listening, waking; and one that it keeps free
constexpr unsigned kServiceBuffer = 65536;
constexpr unsigned kHandshakeSeconds = 20;
// A WebSocket on which nothing came for so long is asked for a sign of life, and given up without one.
constexpr lws_retry_bo_t kIdlePolicy = {nullptr, 0, 0, 300, 600, 0};

// The loop's; it has one at a time.
struct {
    lws_context* context;
    lws_vhost* vhost;
    lws_sorted_usec_list_t timer;
    char reason[kSockErrorSize];  // why there is none
} server;

// The library may call this before it waits, if the time is over by then, and would wait on.
void onTime(lws_sorted_usec_list_t* /*timer*/) {
    lws_cancel_service(server.context);
}

lws_context_creation_info creationInfo() {
    lws_context_creation_info info{};
    info.protocols = kAgentProtocols;
    info.vhost_name = "http";
    info.port = CONTEXT_PORT_NO_LISTEN_SERVER;  // the listening socket is ours, see vx_proxy_lws_accept
    info.fd_limit_per_thread = static_cast<unsigned>(kPollsetSize) + kOwnDescriptors;
    info.pt_serv_buf_size = kServiceBuffer;
    info.timeout_secs = kHandshakeSeconds;
    info.retry_and_idle_policy = &kIdlePolicy;
    info.alpn = "http/1.1";
    info.http_proxy_address = ":0";  // none, whatever the variable http_proxy of the host says
    return info;
}

// False when the certificate cannot be used.
bool addCertificate(lws_context_creation_info& info, const VXAgentCertificate& paths) {
    VX_TRACE(1, kControlThread, kInfo, "vxHome:[%s]", paths.certificate);
    const VXCertificateVerdict verdict = vxCheckAgentCertificate(paths, server.reason, sizeof(server.reason));
    if (verdict == VXCertificateVerdict::kExpired)
        VX_TRACE(1, kControlThread, kWarning, "Agents over WSS: %s", server.reason);
    if (verdict == VXCertificateVerdict::kUnusable) return false;
    info.options |= LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
    info.ssl_cert_filepath = paths.certificate;
    info.ssl_private_key_filepath = paths.key;
    info.ssl_private_key_password = "";
    return true;
}

bool attemptStart(char* reason) {
    if (!VXProxy.proxyUnixDomain && create_proxy_server(VXProxy.proxyPort) == 0) return true;
    vxlb_copy_text(reason, kSockErrorSize, server.reason);
    VX_TRACE(1, kControlThread, kError, "Proxy Server Failed to Start");
    return false;
}

void noteBoundPort() {
    int port = 0;
    if (get_src_addr(VXProxy.listenSocket, VXProxy.proxyHost, sizeof(VXProxy.proxyHost), &port) == 0)
        VXProxy.proxyPort = port;
    VX_TRACE(1, kControlThread, kInfo, "Proxy Started at '%% s:%d'", VXProxy.proxyPort);
}

// The library takes no time to wait from its caller: it goes by its timers.
void turn() {
    lws_sul_schedule(server.context, 0, &server.timer, onTime, kTurnUs);
    lws_service(server.context, 0);
    lws_sul_cancel(&server.timer);
}

void endServer() {
    vxSetAgentWsContext(nullptr);  // nobody wakes it any more
    vxEndLwsContext(std::exchange(server.context, nullptr));
    if (apr_socket_t* socket = std::exchange(VXProxy.listenSocket, nullptr))
        apr_pool_destroy(apr_socket_pool_get(socket));  // its own, and closes it
}

int giveUp() {
    VX_TRACE(1, kControlThread, kError, "Agents over WebSocket, port %d: %s", VXProxy.proxyPort,
             server.reason);
    endServer();
    return -1;
}

}  // namespace

int create_proxy_server(int port) {
    lws_context_creation_info info = creationInfo();
    VXAgentCertificate paths;
    if (VXProxy.proxyAgentWebSocket == kAgentsOverWss) {
        vxAgentCertificate(paths);
        if (!addCertificate(info, paths)) return giveUp();
    }
    apr_socket_t* socket = create_socket_and_bind(port, VXProxy.listenerPool, server.reason);
    if (!socket) return giveUp();
    VXProxy.listenSocket = socket;
    apr_socket_timeout_set(socket, 0);  // accepting never waits
    server.context = vxMakeLwsContext(info, &server.vhost);
    if (server.context && vxLwsListen(server.vhost, vxlb_socket_fd(socket))) return 0;
    std::snprintf(server.reason, sizeof(server.reason), "no context");
    return giveUp();
}

void vxProxyInitLws() {
    if (!vxListenerStart() || !vxListenerBind(attemptStart)) {
        vxListenerAbandon();
        return;
    }
    noteBoundPort();
    vxSetAgentWsContext(server.context);
    vxListenerRuns(vxWakeAgentWs);
    while (!vxListenerStopOrdered()) {
        turn();
        vxServeReadyWebSockets();
        vxListenerOperations();
        vxListenerWork();
    }
    vxListenerEnds();
    endServer();
}

}  // namespace vx
