#include "commonlibc/proxyServer/vx_proxy_discovery.h"

#include <cstring>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/lws_handler.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/proxyServer/vx_proxy_send.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::int64_t kOpenTimeUs = 3000000;
constexpr std::int64_t kFailedPauseUs = 30000000;
constexpr std::size_t kOpeningSize = 2048;
constexpr std::size_t kAddressSize = 64;
constexpr const char* kLastPiece = "totalTimeTaken=";

// When opening a connection last failed, steady microseconds.
std::int64_t failedUs = 0;

bool failedJustNow() {
    return vxlb_steady_us() - failedUs < kFailedPauseUs;
}

bool stands(const VXDiscoveryState_t& discovery) {
    return discovery.socket.get() || discovery.discoveryWsi.load(std::memory_order_acquire);
}

void closeDiscovery(VXDiscoveryState_t& discovery) {
    vxlb_shared_close(discovery.socket);
    vxLwsEndHandle(discovery.discoveryWsi);
    if (discovery.pool) apr_pool_destroy(discovery.pool);
    discovery.pool = nullptr;
}

// The collector's address, as the control thread has found it. False without a control connection.
bool collectorAddress(vxApplication& app, char (&address)[kAddressSize]) {
    VXSharedSocket& control = app.control.controlSocket;
    const VXGuard lock(control.closeMutex);  // it stays open meanwhile
    apr_socket_t* socket = control.get();
    int port = 0;
    return socket && get_dst_addr(socket, address, sizeof(address), &port) == 0;
}

int collectorPort(const vxApplication& app) {
    const std::int32_t protocol = app.control.ActiveAgentProtocolIndex.load(std::memory_order_relaxed);
    if (protocol < kProtocolTCP || protocol > kProtocolWSS)
        VX_TRACE(2, kControlThread, kWarning, "Unknown protocol");
    return vxCollectorInUse().port;
}

bool connectOverTcp(vxApplication& app) {
    char address[kAddressSize];
    if (failedJustNow() || !collectorAddress(app, address)) return false;
    VXDiscoveryState_t& discovery = app.discovery;
    if (apr_pool_create(&discovery.pool, VXProxy.listenerPool) != APR_SUCCESS) return false;
    apr_socket_t* socket =
        vxlb_create_client_con(address, collectorPort(app), discovery.pool, kOpenTimeUs, nullptr);
    if (!socket) {
        failedUs = vxlb_steady_us();
        closeDiscovery(discovery);
        return false;
    }
    vxlb_shared_put(discovery.socket, socket);
    return true;
}

bool connectOverLws(const vxApplication& app) {
    if (failedJustNow() || !app.control.controlWsi.load(std::memory_order_acquire)) return false;
    if (create_lws_discovery_connection(vxCollectorInUse().host, collectorPort(app))) return true;
    failedUs = vxlb_steady_us();
    return false;
}

bool peerGone(const VXDiscoveryState_t& discovery) {
    if (VXLwsConnection* connection = discovery.discoveryWsi.load(std::memory_order_acquire)) {
        vxLwsTurn(*connection, 0);
        return !vxLwsStands(*connection);
    }
    int atEnd = 0;
    return apr_socket_atreadeof(discovery.socket.get(), &atEnd) != APR_SUCCESS || atEnd;
}

// A connection that stands and whose other end is there, else a new one. False without one.
bool haveConnection(vxApplication& app) {
    if (stands(app.discovery)) {
        if (!peerGone(app.discovery)) return true;
        closeDiscovery(app.discovery);
    }
    return app.control.lws_active.load(std::memory_order_acquire) ? connectOverLws(app) : connectOverTcp(app);
}

// A message that is not taken ends the connection: what follows would be no line of its own.
bool sendToCollector(vxApplication& app, const char* text, std::size_t length) {
    const bool sent = app.discovery.discoveryWsi.load(std::memory_order_acquire)
                          ? vxListenerSendDiscovery(text, length) == 0
                          : vxListenerSend(app.discovery.socket.get(), text, length) == 0;
    if (sent) return true;
    VX_TRACE(1, kControlThread, kError, "Discovery connection with VXC was lost, class list given up");
    closeDiscovery(app.discovery);
    return false;
}

void writeOpening(const vxApplication& app, VXWriter& out) {
    out.text("agent_post_data_req:action=discover_loaded_classes;Id=");
    out.number(app.VXBCISetting.testRunIndex.load(std::memory_order_relaxed));
    out.text(";Tier=").text(getTierName()).text(";Server=").text(getAppServerName());
    out.text(";Instance=").text(getAppName()).text(";").endLine();
}

}  // namespace

void vxOpenDiscovery(vxApplication& app) {
    vxSetCurrent(&app);
    if (!haveConnection(app)) {
        VX_TRACE(1, kControlThread, kError, "Discovery socket was not created connextion error");
        return;
    }
    VX_TRACE(1, kControlThread, kInfo, "Discovery socket was created successfully");
    char line[kOpeningSize];
    VXWriter out(line, sizeof(line) - 1);
    writeOpening(app, out);
    sendToCollector(app, line, out.length());
}

VXForwarded vxForwardDiscoveryLine(vxApplication& app, const char* line) {
    if (!stands(app.discovery)) return VXForwarded::kNotTaken;
    const std::size_t size = std::strlen(line) + 1;
    auto* whole = static_cast<char*>(VXLB_MALLOC(size, "discovery line", -1));
    if (!whole) return VXForwarded::kSent;
    VXWriter(whole, size).text(line).endLine();
    const bool sent = sendToCollector(app, whole, size);
    VXLB_FREE(whole, "discovery line", -1);
    if (sent && std::strstr(line, kLastPiece)) {
        VX_TRACE(1, kControlThread, kInfo, "Sending the method and class counters. %s", line);
        closeDiscovery(app.discovery);
    }
    return sent ? VXForwarded::kSent : VXForwarded::kLost;
}

void vxDiscoveryConnectionGone(vxApplication& app) {
    if (!stands(app.discovery)) return;
    const std::int32_t count = app.identity.numProcess.load(std::memory_order_relaxed);
    for (std::int32_t i = 0; i < count; ++i)
        if (vxConnectionStands(*processAt(app, i), VXConnection::kDiscovery)) return;
    closeDiscovery(app.discovery);
}

}  // namespace vx
