#include "commonlibc/proxyServer/vx_proxy_lws.h"

#include <libwebsockets.h>

#include <cstdio>
#include <utility>

#include "commonlibc/VXAgentWs.h"
#include "commonlibc/lws_context.h"
#include "commonlibc/proxyServer/vx_proxy_listener.h"
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
constexpr int kAliveSeconds = 600, kAliveProbes = 5, kAliveInterval = 60;  // of connections without a word
// A WebSocket on which nothing came for so long is asked for a sign of life, and given up without one.
constexpr lws_retry_bo_t kIdlePolicy = {nullptr, 0, 0, 300, 600, 0};
constexpr const char* kAnyAddress = "0.0.0.0";

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

lws_context_creation_info creationInfo(int port) {
    lws_context_creation_info info{};
    info.protocols = kAgentProtocols;
    info.vhost_name = "http";
    info.port = port;
    info.options = LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
    info.fd_limit_per_thread = static_cast<unsigned>(kPollsetSize) + kOwnDescriptors;
    info.pt_serv_buf_size = kServiceBuffer;
    info.timeout_secs = kHandshakeSeconds;
    info.ka_time = kAliveSeconds;
    info.ka_probes = kAliveProbes;
    info.ka_interval = kAliveInterval;
    info.retry_and_idle_policy = &kIdlePolicy;
    info.http_proxy_address = ":0";  // none, whatever the variable http_proxy of the host says
    return info;
}

// False when the certificate cannot be used.
bool addCertificate(lws_context_creation_info& info, const VXAgentCertificate& paths) {
    VX_TRACE(1, kControlThread, kInfo, "vxHome:[%s]", paths.certificate);
    const VXCertificateVerdict verdict = vxCheckAgentCertificate(paths, server.reason, sizeof(server.reason));
    if (verdict != VXCertificateVerdict::kGood)
        VX_TRACE(1, kControlThread, kError, "Agents over WSS: %s", server.reason);
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
    VXProxy.proxyPort = lws_get_vhost_listen_port(server.vhost);
    vxlb_copy_text(VXProxy.proxyHost, sizeof(VXProxy.proxyHost), kAnyAddress);
    VX_TRACE(1, kControlThread, kInfo, "Proxy Started at '%% s:%d'", VXProxy.proxyPort);
}

// The library takes no time to wait from its caller: it goes by its timers.
void turn() {
    lws_sul_schedule(server.context, 0, &server.timer, onTime, kTurnUs);
    lws_service(server.context, 0);
    lws_sul_cancel(&server.timer);
}

// Behind it nobody wakes the context any more.
void endServer() {
    vxSetAgentWsContext(nullptr);
    vxEndLwsContext(std::exchange(server.context, nullptr));
}

}  // namespace

int create_proxy_server(int port) {
    lws_context_creation_info info = creationInfo(port);
    VXAgentCertificate paths;
    if (VXProxy.proxyAgentWebSocket == kAgentsOverWss) {
        vxAgentCertificate(paths);
        if (!addCertificate(info, paths)) return -1;
    }
    server.context = vxMakeLwsContext(info, &server.vhost);
    if (server.context) return 0;
    std::snprintf(server.reason, sizeof(server.reason), "port %d cannot be bound", port);
    VX_TRACE(1, kControlThread, kError, "Agents over WebSocket: %s", server.reason);
    return -1;
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
